#include "api/record_validation.hpp"

#include "support/exception.hpp"
#include "support/fixed_string.hpp"

namespace QOB {

bool IsValid(const QOB_EntryInfo& entry) noexcept {
    return IsTerminated(entry.szPath) && IsTerminated(entry.szSecondPath) &&
           IsTerminated(entry.szIdentifier);
}

bool IsValidList(std::uint32_t count, const QOB_EntryInfo* entries) noexcept {
    if (count == 0) {
        return entries == nullptr;
    }
    if (entries == nullptr) {
        return false;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        if (!IsValid(entries[i])) {
            return false;
        }
    }
    return true;
}

bool IsValid(const QOB_ImageFiles& files) noexcept {
    return IsValid(files.raw) && IsValid(files.settings) && IsValid(files.proxy) &&
           IsValid(files.mask) && IsValid(files.hair) &&
           IsValidList(files.uLccCount, files.pLccs) && IsValidList(files.uIccCount, files.pIccs);
}

bool IsValid(const QOB_PackageInfo& info) noexcept {
    if (!IsTerminated(info.szPackagePath)) {
        return false;
    }
    for (const auto& text : info.szManifests) {
        if (!IsTerminated(text)) {
            return false;
        }
    }
    return IsValid(info.files);
}

bool IsValid(const QOB_CreateArgs& args) noexcept {
    return IsValid(args.files) && IsTerminated(args.szPackagePath);
}

bool IsValid(const QOB_UpdateArgs& args) noexcept {
    return IsTerminated(args.szPackagePath) && IsValid(args.files) && IsValid(args.info);
}

bool IsValid(const QOB_ExtractArgs& args) noexcept {
    return IsTerminated(args.szPackagePath) && IsTerminated(args.szDestination) &&
           IsTerminated(args.szEntryPath) && IsTerminated(args.szPath4) &&
           IsTerminated(args.szPath5);
}

template <class Record> void RequireValid(const Record& record) {
    if (!IsValid(record)) {
        throw Exception(INVALID_PARAMETER, "argument contains invalid path");
    }
}

template void RequireValid(const QOB_EntryInfo&);
template void RequireValid(const QOB_ImageFiles&);
template void RequireValid(const QOB_PackageInfo&);
template void RequireValid(const QOB_CreateArgs&);
template void RequireValid(const QOB_UpdateArgs&);
template void RequireValid(const QOB_ExtractArgs&);

} // namespace QOB
