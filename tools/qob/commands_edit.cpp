// The subcommands that change a package: create, update, rm.
#include "cli.hpp"
#include "commands.hpp"
#include "host_platform.hpp"
#include "library_log.hpp"

#include <qob/qob.h>

#include <cstdio>
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

// The library passes over a companion file it cannot find; the user asked for it, so say so.
void RequireFile(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(PathFromUtf8(path), error)) {
        throw ToolError("cannot read " + path + ": no such file");
    }
}

// The companion files named on the command line, and the lists their records point into.
struct Companions {
    explicit Companions(const ParsedArgs& parsed) {
        const std::optional<std::string> reserveText = parsed.Get("--reserve");
        const std::uint32_t reserve = reserveText ? ParseByteCount(*reserveText, "--reserve") : 0;
        const std::uint32_t settingsReserve = reserveText ? reserve : kDefaultSettingsReserve;
        auto single = [&](const char* option, QOB_EntryInfo& entry, std::uint32_t space) {
            if (const auto path = parsed.Get(option)) {
                RequireFile(*path);
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
            RequireFile(path);
            lccs.push_back(FileEntry(path, reserve, id, "lcc"));
        }
        for (const std::string& value : parsed.All("--icc")) {
            const auto [id, path] = SplitIdAndFile(value, "--icc");
            RequireFile(path);
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

int RunCreate(const Args& args) {
    std::vector<OptionDef> known = kCompanionOptions;
    known.push_back({"--raw", true});
    const ParsedArgs parsed = ParseArgs(args, known);
    RequirePositional(parsed, {"PKG"});
    const std::optional<std::string> raw = parsed.Get("--raw");
    if (!raw) {
        throw UsageError("missing --raw FILE");
    }
    const std::string& package = parsed.positional[0];
    Companions companions(parsed);

    auto create = std::make_unique<QOB_CreateArgs>();
    QOB_Constructor(create.get(), QOB_OBJECT_CREATE_ARGS);
    create->files = companions.files;
    create->files.raw = FileEntry(*raw, 0, "", "raw image path");
    CopyField(create->szPackagePath, package, "package path");
    // The library may leave a partial package behind when it fails; a new one goes again.
    std::error_code error;
    const std::filesystem::path file = PathFromUtf8(package);
    const bool existed = std::filesystem::exists(file, error);
    BeginCall();
    const QobErrorCode_e result = QOB_Create(create.get());
    if (result != SUCCESS && !existed) {
        std::filesystem::remove(file, error);
    }
    Check(result, "QOB_Create");
    std::printf("created %s\n", package.c_str());
    return 0;
}

int RunUpdate(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, kCompanionOptions);
    RequirePositional(parsed, {"PKG"});
    const std::string& package = parsed.positional[0];
    Companions companions(parsed);
    if (companions.count == 0) {
        throw UsageError("nothing to update: name at least one file");
    }

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
    Check(QOB_GetPackageInfo(&update->info), "QOB_GetPackageInfo");
    update->files = companions.files;
    BeginCall();
    Check(QOB_Update(update.get()), "QOB_Update");
    std::printf("updated %s\n", package.c_str());
    return 0;
}

int RunRemove(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "ENTRY"});
    const std::string& package = parsed.positional[0];
    const std::string& entry = parsed.positional[1];
    BeginCall();
    Check(QOB_RemoveEntry(package.c_str(), entry.c_str()), "QOB_RemoveEntry");
    std::printf("removed %s from %s\n", entry.c_str(), package.c_str());
    return 0;
}

} // namespace qobtool
