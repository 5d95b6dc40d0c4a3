// The subcommands that change a package: create, update, rm.
#include "commands.hpp"
#include "host_platform.hpp"
#include "library.hpp"
#include "progress.hpp"
#include "text.hpp"

#include <qob/qob.h>

#include <CLI/Error.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace qobtool {
namespace {

QOB_EntryInfo FileEntry(const std::string& path, std::uint32_t reserve, const std::string& id,
                        std::string_view what) {
    QOB_EntryInfo entry;
    QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    CopyField(entry.szPath, path, what);
    CopyField(entry.szIdentifier, id, std::string(what) + " identifier");
    entry.uReservedSpace = reserve;
    entry.ePackingType = QOB_PACK_FROM_FILE;
    return entry;
}

// The companion files named on the command line, and the lists their records point into.
struct Companions {
    explicit Companions(const Options& options) {
        const std::uint32_t reserve = options.reserve.value_or(0);
        const std::uint32_t settingsReserve = options.reserve.value_or(kDefaultSettingsReserve);
        auto single = [&](const std::optional<std::string>& path, const char* what,
                          QOB_EntryInfo& entry, std::uint32_t space) {
            if (path) {
                RequireFile(*path, false);
                entry = FileEntry(*path, space, "", what);
                ++count;
            }
        };
        QOB_Constructor(&files, QOB_OBJECT_IMAGE_FILES);
        single(options.settings, "settings", files.settings, settingsReserve);
        single(options.proxy, "proxy", files.proxy, reserve);
        single(options.mask, "mask", files.mask, reserve);
        single(options.hair, "hair", files.hair, reserve);
        for (const std::string& value : options.lccs) {
            const auto [id, path] = SplitIdAndFile(value, "--lcc");
            RequireFile(path, false);
            lccs.push_back(FileEntry(path, reserve, id, "lcc"));
        }
        for (const std::string& value : options.iccs) {
            const auto [id, path] = SplitIdAndFile(value, "--icc");
            RequireFile(path, false);
            iccs.push_back(FileEntry(path, reserve, id, "icc"));
        }
        count += lccs.size() + iccs.size();
        files.uLccCount = static_cast<std::uint32_t>(lccs.size());
        files.pLccs = lccs.empty() ? nullptr : lccs.data();
        files.uIccCount = static_cast<std::uint32_t>(iccs.size());
        files.pIccs = iccs.empty() ? nullptr : iccs.data();
    }
    Companions(const Companions&) = delete;
    Companions& operator=(const Companions&) = delete;

    QOB_ImageFiles files;
    std::vector<QOB_EntryInfo> lccs, iccs;
    std::size_t count = 0;
};

// Refuses, with the library's answer, a file that is not a package, before anything changes.
void RequirePackage(const std::string& package, const char* action) {
    RequireFile(package, true);
    if (QOB_IsQob(package.c_str()) != SUCCESS) {
        const QOBX_Error error = LastError();
        throw ToolError(package + ": not an image package, " + action + " (" + Describe(error) +
                            ")",
                        StatusFor(error, package));
    }
}

// A QOB_PackageInfo on the heap, read by the library and released with its lists.
struct PackageRecord {
    explicit PackageRecord(const std::string& package) : info(std::make_unique<QOB_PackageInfo>()) {
        QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
        CopyField(info->szPackagePath, package, "package path");
        Check(QOB_GetPackageInfo(info.get()), package);
    }
    ~PackageRecord() { QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO); }
    PackageRecord(const PackageRecord&) = delete;
    PackageRecord& operator=(const PackageRecord&) = delete;
    std::unique_ptr<QOB_PackageInfo> info;
};

bool HasEntry(const std::string& package, const std::string& name) {
    return std::ranges::any_of(ListEntries(package),
                               [&](const QOBX_EntryStat& e) { return name == e.name; });
}

} // namespace

int RunCreate(const Options& options) {
    const std::string& package = options.package;
    RequireFile(*options.raw, false);
    Companions companions(options);
    std::FILE* existing = IsDirectory(package) ? nullptr : OpenFile(package, "rb");
    if (existing != nullptr) {
        std::fclose(existing);
    }
    if (existing != nullptr || IsDirectory(package)) {
        throw ToolError(package + ": " + std::strerror(EEXIST));
    }
    auto create = std::make_unique<QOB_CreateArgs>();
    QOB_Constructor(create.get(), QOB_OBJECT_CREATE_ARGS);
    create->files = companions.files;
    create->files.raw = FileEntry(*options.raw, 0, "", "raw image path");
    CopyField(create->szPackagePath, package, "package path");
    {
        ProgressBar bar("create", ProgressWanted(options.quiet));
        const LibraryProgress progress(bar);
        Check(QOB_Create(create.get()), package);
    }
    if (!options.quiet) {
        std::printf("created %s\n", package.c_str());
    }
    return kExitSuccess;
}

int RunUpdate(const Options& options) {
    const std::string& package = options.package;
    Companions companions(options);
    if (companions.count == 0) {
        throw CLI::ValidationError("nothing to update: name at least one file");
    }
    RequirePackage(package, "nothing updated");

    // The package as it stands is read into the record that the update merges into; its
    // lists are the library's, released through the embedded record (the update's own
    // destructor frees nothing).
    auto update = std::make_unique<QOB_UpdateArgs>();
    QOB_Constructor(update.get(), QOB_OBJECT_UPDATE_ARGS);
    struct Release {
        QOB_PackageInfo* info;
        ~Release() { QOB_Destructor(info, QOB_OBJECT_PACKAGE_INFO); }
    } release{&update->info};
    CopyField(update->szPackagePath, package, "package path");
    CopyField(update->info.szPackagePath, package, "package path");
    Check(QOB_GetPackageInfo(&update->info), package);
    update->files = companions.files;
    {
        ProgressBar bar("update", ProgressWanted(options.quiet));
        const LibraryProgress progress(bar);
        Check(QOB_Update(update.get()), package);
    }
    if (!options.quiet) {
        std::printf("updated %s\n", package.c_str());
    }
    return kExitSuccess;
}

int RunRemove(const Options& options) {
    const std::string& package = options.package;
    const std::string& entry = options.second;

    // Everything that would make the call fail, or leave a package that no longer opens or
    // whose manifests are written again over the removal, is found before the package is
    // touched.
    RequirePackage(package, "nothing removed");
    if (!options.force && IsManifestName(entry)) {
        throw ToolError(package + ": refusing to remove the manifest " + entry +
                        ": the manifests are written again by every change, and without "
                        "manifest.xml the file is no image package (--force removes it)");
    }
    if (!HasEntry(package, entry)) {
        throw ToolError(package + ": no entry " + entry + " (names are compared exactly)",
                        kExitNotFound);
    }
    if (!options.force) {
        const PackageRecord record(package);
        if (SameIgnoringCase(entry, record.info->files.raw.szPath)) {
            throw ToolError(package + ": refusing to remove the raw image " + entry +
                            ": the package would no longer open (--force removes it)");
        }
    }
    {
        ProgressBar bar("rm", ProgressWanted(options.quiet));
        const LibraryProgress progress(bar);
        Check(QOB_RemoveEntry(package.c_str(), entry.c_str()), package);
    }
    // Said only when it is so: removing a manifest succeeds, and the manifests are written
    // again behind it.
    if (HasEntry(package, entry)) {
        throw ToolError(package + ": " + entry + " is still in the package after its removal");
    }
    if (!options.quiet) {
        std::printf("removed %s from %s\n", entry.c_str(), package.c_str());
    }
    return kExitSuccess;
}

} // namespace qobtool
