// The subcommands that change a package: create, update, rm.
#include "cli.hpp"
#include "commands.hpp"
#include "host_platform.hpp"
#include "library_log.hpp"

#include <qob/qob.h>

#include "core/package_audit.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace qobtool {
namespace {

const std::vector<OptionDef> kCompanionOptions = {
    {"--settings", true}, {"--proxy", true}, {"--lcc", true},     {"--icc", true},
    {"--mask", true},     {"--hair", true},  {"--reserve", true},
};

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
    explicit Companions(const ParsedArgs& parsed) {
        const std::optional<std::string> reserveText = parsed.Get("--reserve");
        const std::uint32_t reserve = reserveText ? ParseByteCount(*reserveText, "--reserve") : 0;
        const std::uint32_t settingsReserve = reserveText ? reserve : kDefaultSettingsReserve;
        auto single = [&](const char* option, QOB_EntryInfo& entry, std::uint32_t space) {
            if (const auto path = parsed.Get(option)) {
                RequireFile(*path, false);
                entry = FileEntry(*path, space, "", option + 2);
                ++count;
            }
        };
        QOB_Constructor(&files, QOB_OBJECT_IMAGE_FILES);
        single("--settings", files.settings, settingsReserve);
        single("--proxy", files.proxy, reserve);
        single("--mask", files.mask, reserve);
        single("--hair", files.hair, reserve);
        for (const std::string& value : parsed.All("--lcc")) {
            const auto [id, path] = SplitIdAndFile(value, "--lcc");
            RequireFile(path, false);
            lccs.push_back(FileEntry(path, reserve, id, "lcc"));
        }
        for (const std::string& value : parsed.All("--icc")) {
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

} // namespace

int RunCreate(const Args& args, bool quiet) {
    std::vector<OptionDef> known = kCompanionOptions;
    known.push_back({"--raw", true});
    const ParsedArgs parsed = ParseArgs(args, known);
    RequirePositional(parsed, {"PKG"});
    const std::optional<std::string> raw = parsed.Get("--raw");
    if (!raw) {
        throw UsageError("missing --raw FILE");
    }
    const std::string& package = parsed.positional[0];
    RequireFile(*raw, false);
    Companions companions(parsed);
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
    create->files.raw = FileEntry(*raw, 0, "", "raw image path");
    CopyField(create->szPackagePath, package, "package path");
    BeginCall();
    const QobErrorCode_e result = QOB_Create(create.get());
    if (result != SUCCESS) {
        const std::string message = Describe(result, "QOB_Create");
        // A failed create may leave a partial file behind: the package did not exist before.
        std::error_code error;
        std::filesystem::remove(QOB::PathFromUtf8(package), error);
        // Where the system refuses the file itself, its reason says more than the library's.
        if (std::FILE* probe = OpenFile(package, "wb")) {
            std::fclose(probe);
            std::filesystem::remove(QOB::PathFromUtf8(package), error);
        } else {
            throw ToolError(package + ": " + std::strerror(errno));
        }
        throw ToolError(package + ": " + message);
    }
    if (!quiet) {
        std::printf("created %s\n", package.c_str());
    }
    return kExitSuccess;
}

// Refuses, with the library's answer, a file that is not a package, before anything changes.
static void RequirePackage(const std::string& package, const char* action) {
    RequireFile(package, true);
    BeginCall();
    const QobErrorCode_e result = QOB_IsQob(package.c_str());
    if (result != SUCCESS) {
        const std::string message = Describe(result, "QOB_IsQob");
        throw ToolError(package + ": not an image package, " + action + " (" + message + ")",
                        StatusFor(result, package));
    }
}

int RunUpdate(const Args& args, bool quiet) {
    const ParsedArgs parsed = ParseArgs(args, kCompanionOptions);
    RequirePositional(parsed, {"PKG"});
    const std::string& package = parsed.positional[0];
    Companions companions(parsed);
    if (companions.count == 0) {
        throw UsageError("nothing to update: name at least one file");
    }
    RequirePackage(package, "nothing updated");

    // The package as it stands is read into the record that the update merges into; the
    // merged record owns the lists the library allocated, and is released once, at the end.
    auto update = std::make_unique<QOB_UpdateArgs>();
    QOB_Constructor(update.get(), QOB_OBJECT_UPDATE_ARGS);
    struct Release {
        QOB_PackageInfo* info;
        ~Release() { QOB_Destructor(info, QOB_OBJECT_PACKAGE_INFO); }
    } release{&update->info};
    CopyField(update->szPackagePath, package, "package path");
    CopyField(update->info.szPackagePath, package, "package path");
    BeginCall();
    Check(QOB_GetPackageInfo(&update->info), "QOB_GetPackageInfo", package);
    update->files = companions.files;
    BeginCall();
    Check(QOB_Update(update.get()), "QOB_Update", package);
    if (!quiet) {
        std::printf("updated %s\n", package.c_str());
    }
    return kExitSuccess;
}

namespace {

bool SameIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

bool HasEntry(const std::string& package, const std::string& entry) {
    for (const auto& e : QOB::Inspect::ListEntries(package, false)) {
        if (e.name == entry) {
            return true;
        }
    }
    return false;
}

} // namespace

int RunRemove(const Args& args, bool quiet) {
    const ParsedArgs parsed = ParseArgs(args, {{"--force", false}});
    RequirePositional(parsed, {"PKG", "ENTRY"});
    const std::string& package = parsed.positional[0];
    const std::string& entry = parsed.positional[1];

    // Everything that would make the call fail, or leave a package that no longer opens, is
    // found before the package is touched.
    RequirePackage(package, "nothing removed");
    bool present = false;
    try {
        present = HasEntry(package, entry);
    } catch (const QOB::Inspect::Failure& e) {
        throw ToolError(package + ": " + e.what(), kExitNotPackage);
    }
    if (!present) {
        throw ToolError(package + ": no entry " + entry + " (names are compared exactly)",
                        kExitNotFound);
    }
    if (!parsed.Has("--force")) {
        const char* primary = QOB::Inspect::ManifestNames()[0];
        if (SameIgnoringCase(entry, primary)) {
            throw ToolError(package + ": refusing to remove " + entry +
                            ": without it the file is no image package (--force removes it)");
        }
        auto info = std::make_unique<QOB_PackageInfo>();
        QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
        struct Release {
            QOB_PackageInfo* info;
            ~Release() { QOB_Destructor(info, QOB_OBJECT_PACKAGE_INFO); }
        } release{info.get()};
        CopyField(info->szPackagePath, package, "package path");
        BeginCall();
        Check(QOB_GetPackageInfo(info.get()), "QOB_GetPackageInfo", package);
        if (SameIgnoringCase(entry, info->files.raw.szPath)) {
            throw ToolError(package + ": refusing to remove the raw image " + entry +
                            ": the package would no longer open (--force removes it)");
        }
    }

    BeginCall();
    const QobErrorCode_e result = QOB_RemoveEntry(package.c_str(), entry.c_str());
    if (result != SUCCESS) {
        const std::string message = Describe(result, "QOB_RemoveEntry");
        bool gone = false;
        try {
            gone = !HasEntry(package, entry);
        } catch (const QOB::Inspect::Failure&) {
        }
        if (!gone) {
            throw ToolError(package + ": " + message, StatusFor(result, package));
        }
        // The entry is gone: that is what was asked; say what else went wrong.
        std::fprintf(stderr, "%s: removed %s, but: %s\n", package.c_str(), entry.c_str(),
                     message.c_str());
        return kExitSuccess;
    }
    if (!quiet) {
        std::printf("removed %s from %s\n", entry.c_str(), package.c_str());
    }
    return kExitSuccess;
}

} // namespace qobtool
