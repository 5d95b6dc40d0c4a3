// Entry arrays that the library allocates inside a QOB_PackageInfo. One allocator for
// allocation, growth and release, whichever operation does which.
#pragma once

#include <qob/qob.h>

#include <cstdint>

namespace QOB {

// count zero-filled entries; throws std::bad_alloc.
QOB_EntryInfo* AllocateEntryList(std::uint32_t count);
// Grows (or shrinks) to newCount, keeping the old entries and zero-filling new slots.
QOB_EntryInfo* ResizeEntryList(QOB_EntryInfo* entries, std::uint32_t oldCount,
                               std::uint32_t newCount);
void FreeEntryList(QOB_EntryInfo* entries) noexcept;

} // namespace QOB
