#include "package/entry_list.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

namespace QOB {

QOB_EntryInfo* AllocateEntryList(std::uint32_t count) {
    auto* entries = static_cast<QOB_EntryInfo*>(std::calloc(count, sizeof(QOB_EntryInfo)));
    if (entries == nullptr && count > 0) {
        throw std::bad_alloc();
    }
    return entries;
}

QOB_EntryInfo* ResizeEntryList(QOB_EntryInfo* entries, std::uint32_t oldCount,
                               std::uint32_t newCount) {
    if (newCount == 0) {
        FreeEntryList(entries);
        return nullptr;
    }
    auto* grown = static_cast<QOB_EntryInfo*>(
        std::realloc(entries, static_cast<std::size_t>(newCount) * sizeof(QOB_EntryInfo)));
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    if (newCount > oldCount) {
        std::memset(grown + oldCount, 0,
                    static_cast<std::size_t>(newCount - oldCount) * sizeof(QOB_EntryInfo));
    }
    return grown;
}

void FreeEntryList(QOB_EntryInfo* entries) noexcept {
    std::free(entries);
}

} // namespace QOB
