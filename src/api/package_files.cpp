#include "api/package_files.hpp"

#include "package/entry_names.hpp"
#include "support/exception.hpp"

namespace QOB {

std::string_view ImageBaseName(const QOB_EntryInfo& raw) noexcept {
    return FileNamePart(raw.szPath);
}

std::string InternalEntryPath(const QOB_EntryInfo& source, EntryKind kind, std::string_view base) {
    const bool profile = kind == EntryKind::Lcc || kind == EntryKind::Icc;
    const std::string name = GetInternalFileNameFromExternal(
        source.szPath, kind, base, profile ? std::string_view(source.szIdentifier) : "");
    if (name.empty()) {
        throw Exception(INVALID_PARAMETER, "entryName is empty");
    }
    return std::string(KindDirectory(kind)).append(name);
}

} // namespace QOB
