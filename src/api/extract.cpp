// QOB_Extract: every file of a package into a directory, or one entry into the host's buffer.
#include "api/operations.hpp"
#include "api/record_validation.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "support/exception.hpp"
#include "support/utf8_path.hpp"

#include <filesystem>
#include <vector>

namespace QOB {
namespace {

namespace fs = std::filesystem;

// True when relative, joined to a directory, stays inside it. Judged lexically: a name
// that climbs out with "..", or one with a root or drive, could overwrite files elsewhere.
bool StaysInside(const fs::path& relative) {
    if (relative.empty() || relative.has_root_name() || relative.has_root_directory()) {
        return false;
    }
    const fs::path normal = relative.lexically_normal();
    if (normal.empty() || normal == ".") {
        return false;
    }
    return *normal.begin() != "..";
}

struct Planned {
    Path internal;
    fs::path external;
};

void ExtractAll(Archive& archive, const fs::path& destination) {
    std::vector<Planned> plan;
    for (const Entry& entry : archive.List()) {
        if (IsManifestName(entry.path)) {
            continue; // manifests describe the package; they are not its files
        }
        Path internal(entry.path);
        const fs::path stem = PathFromUtf8(std::string(FileNamePart(internal.Sanitized()))).stem();
        const fs::path relative = ReplaceFilenameInPath(internal, PathToUtf8(stem));
        // Every entry is checked before anything is written: an untrusted package must not
        // write outside the destination, not even partly.
        if (!StaysInside(relative)) {
            throw Exception(INVALID_PARAMETER, "entry path escapes destination");
        }
        plan.push_back({std::move(internal), destination / relative});
    }
    for (const Planned& item : plan) {
        archive.Extract(item.internal, item.external, true);
    }
}

} // namespace

void QOB_Extract_Unlocked(QOB_ExtractArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Extract_Unlocked");
    if (args == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RequireValid(*args);
    Archive archive(PathFromUtf8(args->szPackagePath), true);
    // The mode is looked at only now, so that a missing package is reported first.
    switch (args->eMode) {
    case QOB_EXTRACT_TO_BUFFER:
        archive.Read(Path(args->szEntryPath), static_cast<std::byte*>(args->pBuffer),
                     args->uBufferSize);
        return;
    case QOB_EXTRACT_ALL:
        ExtractAll(archive, PathFromUtf8(args->szDestination));
        return;
    default:
        throw Exception(INVALID_PARAMETER, "invalid QOB_ExtractMode variant");
    }
}

} // namespace QOB
