#include "package/entry_names.hpp"

#include "archive/defer.hpp"
#include "support/exception.hpp"
#include "support/utf8_path.hpp"

namespace QOB {

std::string_view FileNamePart(std::string_view path) noexcept {
    const auto slash = path.find_last_of("/\\");
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string GetInternalFileNameFromExternal(std::string_view external, EntryKind kind,
                                            std::string_view base, std::string_view suffix) {
    QOB_FAILURE_TRAIL("in GetInternalFileNameFromExternal");
    const std::string_view name = FileNamePart(external);
    switch (kind) {
    case EntryKind::Raw:
        return std::string(name);
    case EntryKind::Settings:
    case EntryKind::Proxy:
    case EntryKind::Mask:
    case EntryKind::Hair: {
        // The last extension counts: photo.old.tif becomes <base>.tif.
        const auto dot = name.rfind('.');
        if (dot == std::string_view::npos || dot + 1 == name.size()) {
            return std::string(name);
        }
        return std::string(base).append(name.substr(dot));
    }
    case EntryKind::Lcc:
        return std::string(base).append(".").append(suffix).append(".lcc");
    case EntryKind::Icc:
        return std::string(base).append(".").append(suffix);
    }
    throw Exception(INTERNAL_INCONSISTENCY, "invalid entry type");
}

std::filesystem::path ReplaceFilenameInPath(const Path& path, std::string_view newName) {
    QOB_FAILURE_TRAIL("in ReplaceFilenameInPath");
    const std::string& text = path.Sanitized();
    const auto slash = text.find_last_of("/\\");
    const std::string_view directory = slash == std::string::npos
                                           ? std::string_view()
                                           : std::string_view(text).substr(0, slash + 1);
    const std::string_view oldName = FileNamePart(text);
    // The first dot counts here (a.tar.gz keeps ".tar.gz"), unlike the internal naming rule.
    const auto dot = oldName.find('.');
    std::string relative(directory);
    relative.append(newName);
    if (dot != std::string_view::npos) {
        relative.append(oldName.substr(dot));
    }
    return PathFromUtf8(relative);
}

} // namespace QOB
