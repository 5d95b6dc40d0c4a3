// QOB_Extract: every file of a package into a directory, or one entry into the host's buffer.
#include "api/operations.hpp"
#include "api/record_validation.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/progress.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <filesystem>
#include <string>
#include <unordered_map>
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
    Entry entry;
    fs::path relative;
};

// UTF-8 with "/" separators on every system, as entry names are.
std::string Generic(const fs::path& relative) {
    std::string text = PathToUtf8(relative);
    std::replace(text.begin(), text.end(), '\\', '/');
    return text;
}

// Output paths as this system compares file names.
std::string OutputKey(const fs::path& relative) {
    return Platform::OutputNameKey(Generic(relative));
}

[[noreturn]] void Collide(const Entry& first, const Entry& second, const std::string& where) {
    throw Exception(INVALID_PARAMETER,
                    Format("entries \"%s\" and \"%s\" extract to the same path \"%s\"",
                           first.path.c_str(), second.path.c_str(), where.c_str()));
}

// Every entry is planned and checked before anything is written: an untrusted package must
// not write outside the destination, nor one entry over another, not even partly. Entries
// are then read by their own records in one walk, so names that repeat or differ in case
// only cannot make one entry's bytes land under another's name, and time stays linear.
void ExtractAll(Archive& archive, const fs::path& destination) {
    std::vector<Planned> plan;
    std::unordered_map<std::string, std::size_t> files;       // output key -> plan index
    std::unordered_map<std::string, std::size_t> directories; // likewise, for directories
    for (Entry& entry : archive.List()) {
        if (IsManifestName(entry.path)) {
            continue; // manifests describe the package; they are not its files
        }
        const Path internal(entry.path);
        const fs::path stem = PathFromUtf8(std::string(FileNamePart(internal.Sanitized()))).stem();
        const fs::path relative = ReplaceFilenameInPath(internal, PathToUtf8(stem));
        if (!StaysInside(relative)) {
            throw Exception(INVALID_PARAMETER, "entry path escapes destination");
        }
        const fs::path normal = relative.lexically_normal();
        if (normal.filename().empty()) {
            continue; // a directory entry: it has nothing to write
        }
        const std::size_t index = plan.size();
        fs::path prefix;
        for (const fs::path& part : normal.parent_path()) {
            prefix /= part;
            const std::string key = OutputKey(prefix);
            if (const auto file = files.find(key); file != files.end()) {
                Collide(plan[file->second].entry, entry, Generic(prefix));
            }
            directories.emplace(key, index);
        }
        const std::string key = OutputKey(normal);
        if (const auto file = files.find(key); file != files.end()) {
            Collide(plan[file->second].entry, entry, Generic(normal));
        }
        if (const auto dir = directories.find(key);
            dir != directories.end() && dir->second != index) {
            Collide(plan[dir->second].entry, entry, Generic(normal));
        }
        files.emplace(key, index);
        plan.push_back({std::move(entry), normal});
    }
    std::uint64_t total = 0;
    for (const Planned& item : plan) {
        total += item.entry.content_size;
    }
    ProgressScope progress(total);
    for (const Planned& item : plan) {
        archive.Extract(item.entry, destination, item.relative);
    }
    progress.Finish();
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
