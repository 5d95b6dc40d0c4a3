// QOB_Constructor and QOB_Destructor: empty a host-allocated record, free what we allocated.
#include "api/operations.hpp"

#include "archive/defer.hpp"
#include "package/entry_list.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <cstdint>
#include <cstring>

namespace QOB {
namespace {

std::size_t RecordSize(QOB_ObjectType type) {
    // Unsigned, so negative values are rejected too.
    switch (static_cast<std::uint32_t>(type)) {
    case QOB_OBJECT_PACKAGE_INFO:
        return sizeof(QOB_PackageInfo);
    case QOB_OBJECT_IMAGE_FILES:
        return sizeof(QOB_ImageFiles);
    case QOB_OBJECT_UPDATE_ARGS:
        return sizeof(QOB_UpdateArgs);
    case QOB_OBJECT_ENTRY_INFO:
        return sizeof(QOB_EntryInfo);
    case QOB_OBJECT_CREATE_ARGS:
        return sizeof(QOB_CreateArgs);
    case QOB_OBJECT_EXTRACT_ARGS:
        return sizeof(QOB_ExtractArgs);
    default:
        throw Exception(INVALID_PARAMETER, "invalid QOB_ObjectType variant");
    }
}

// Returns what the record keeps as its list pointer. The pointer fields of the packed records
// may sit off their natural alignment, so they are passed by value and assigned by the caller.
QOB_EntryInfo* ReleaseList(std::uint32_t& count, QOB_EntryInfo* entries) noexcept {
    // A list whose count is 0 is left alone, even with a pointer: it is not ours to judge.
    if (count == 0) {
        return entries;
    }
    count = 0;
    FreeEntryList(entries);
    return nullptr;
}

} // namespace

void QOB_Constructor_Unlocked(void* record, QOB_ObjectType type) {
    QOB_FAILURE_TRAIL("in QOB_Constructor_Unlocked");
    if (record == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    std::memset(record, 0, RecordSize(type));
}

void QOB_Destructor_Unlocked(void* record, QOB_ObjectType type) {
    QOB_FAILURE_TRAIL("in QOB_Destructor_Unlocked");
    if (record == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RecordSize(type);
    if (type == QOB_OBJECT_PACKAGE_INFO) {
        auto& files = static_cast<QOB_PackageInfo*>(record)->files;
        files.pLccs = ReleaseList(files.uLccCount, files.pLccs);
        files.pIccs = ReleaseList(files.uIccCount, files.pIccs);
    }
}

} // namespace QOB
