// The subcommands that only read a package: info, ls, lcc, check, verify, extract, cat.
#include "cli.hpp"
#include "commands.hpp"
#include "host_platform.hpp"
#include "library_log.hpp"

#include "core/package_audit.hpp"
#include "support/utf8_path.hpp"

#include <qob/qob.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>

namespace qobtool {
namespace {

namespace Inspect = QOB::Inspect;

const std::vector<OptionDef> kJsonOption = {{"--json", false}};

struct NamedEntry {
    const char* kind;
    const QOB_EntryInfo* entry;
};

// Every file that the manifest names, raw image first.
std::vector<NamedEntry> ManifestFiles(const QOB_ImageFiles& files) {
    std::vector<NamedEntry> list;
    auto add = [&](const char* kind, const QOB_EntryInfo& entry) {
        if (entry.szPath[0] != '\0') {
            list.push_back({kind, &entry});
        }
    };
    add("raw", files.raw);
    add("settings", files.settings);
    add("proxy", files.proxy);
    for (std::uint32_t i = 0; i < files.uLccCount && files.pLccs != nullptr; ++i) {
        add("lcc", files.pLccs[i]);
    }
    for (std::uint32_t i = 0; i < files.uIccCount && files.pIccs != nullptr; ++i) {
        add("icc", files.pIccs[i]);
    }
    add("mask", files.mask);
    add("hair", files.hair);
    return list;
}

// The file object of the JSON schema (info and lcc).
std::string FileJson(const char* kind, const QOB_EntryInfo& e) {
    char numbers[160];
    std::snprintf(numbers, sizeof numbers,
                  "\"contentSize\": %u, \"reservedSize\": %u, \"dataOffset\": %u, ", e.uStoredSize,
                  e.uReservedSpace, e.uDataOffset);
    return "{\"kind\": " + JsonString(kind) + ", \"path\": " + JsonString(e.szPath) +
           ", \"secondPath\": " + JsonString(e.szSecondPath) +
           ", \"identifier\": " + JsonString(e.szIdentifier) + ", " + numbers +
           "\"time\": " + TimeJson(e.uTime) + ", \"dosTime\": " + std::to_string(e.uTime) + "}";
}

// The entry object of the JSON schema (ls and verify).
std::string EntryJson(const Inspect::EntryReport& e) {
    char numbers[160];
    std::snprintf(numbers, sizeof numbers,
                  "\"contentSize\": %" PRIu64 ", \"allocatedSize\": %" PRIu64
                  ", \"dataOffset\": %" PRIu64 ", ",
                  e.content_size, e.allocated_size, e.data_offset);
    std::string json = "{\"name\": " + JsonString(e.name) + ", " + numbers +
                       "\"time\": " + TimeJson(e.dos_time) +
                       ", \"dosTime\": " + std::to_string(e.dos_time);
    if (e.checked) {
        json += ", \"sound\": ";
        json += e.problem.empty() ? "true, \"problem\": null"
                                  : "false, \"problem\": " + JsonString(e.problem);
    }
    return json + "}";
}

template <class Item, class ToJson>
void PrintJsonList(const char* key, const std::vector<Item>& items, ToJson toJson, bool last) {
    std::printf("  \"%s\": [", key);
    for (std::size_t i = 0; i < items.size(); ++i) {
        std::printf("%s\n    %s", i == 0 ? "" : ",", toJson(items[i]).c_str());
    }
    std::printf("%s]%s\n", items.empty() ? "" : "\n  ", last ? "" : ",");
}

// A QOB_PackageInfo on the heap, emptied, released with its lists.
struct InfoRecord {
    InfoRecord() : info(std::make_unique<QOB_PackageInfo>()) {
        QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    }
    ~InfoRecord() { QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO); }
    InfoRecord(const InfoRecord&) = delete;
    InfoRecord& operator=(const InfoRecord&) = delete;
    std::unique_ptr<QOB_PackageInfo> info;
};

void ReadInfo(InfoRecord& record, const std::string& package) {
    CopyField(record.info->szPackagePath, package, "package path");
    BeginCall();
    Check(QOB_GetPackageInfo(record.info.get()), "QOB_GetPackageInfo", package);
}

// Throws "<dir>: <reason>" when dir cannot be made or a file cannot be created in it.
void RequireWritableDirectory(const std::string& dir) {
    std::error_code error;
    std::filesystem::create_directories(QOB::PathFromUtf8(dir), error);
    if (error) {
        throw ToolError(dir + ": " + error.message());
    }
    const std::string probe = dir + "/.qob-write-probe";
    std::FILE* file = OpenFile(probe, "wb");
    if (file == nullptr) {
        throw ToolError(dir + ": " + std::strerror(errno));
    }
    std::fclose(file);
    std::filesystem::remove(QOB::PathFromUtf8(probe), error);
}

std::vector<Inspect::EntryReport> List(const std::string& package, bool check) {
    // Through an export first, whatever its answer: opening a package there is what repairs
    // one that a change interrupted, and the listing must not see it half-changed.
    BeginCall();
    static_cast<void>(QOB_IsQob(package.c_str()));
    try {
        return Inspect::ListEntries(package, check);
    } catch (const Inspect::Failure& e) {
        throw ToolError(package + ": " + e.what(),
                        e.code() == PACKAGE_NOT_FOUND ? kExitNotFound : kExitNotPackage);
    }
}

// The one positional argument PKG, which must name an existing file.
const std::string& ExistingPackageArgument(const ParsedArgs& parsed) {
    RequirePositional(parsed, {"PKG"});
    RequireFile(parsed.positional[0], false);
    return parsed.positional[0];
}

} // namespace

int RunInfo(const Args& args, bool /*quiet*/) {
    const ParsedArgs parsed = ParseArgs(args, kJsonOption);
    const std::string& package = ExistingPackageArgument(parsed);
    InfoRecord record;
    ReadInfo(record, package);
    const QOB_PackageInfo& info = *record.info;
    const std::vector<NamedEntry> files = ManifestFiles(info.files);
    std::vector<std::string> manifests;
    const auto names = Inspect::ManifestNames();
    for (std::size_t row = 0; row < names.size(); ++row) {
        if (info.szManifests[row][0] != '\0') {
            manifests.push_back(names[row]);
        }
    }
    if (parsed.Has("--json")) {
        std::printf("{\n  \"package\": %s,\n", JsonString(package).c_str());
        PrintJsonList(
            "manifests", manifests, [](const std::string& n) { return JsonString(n); }, false);
        PrintJsonList(
            "files", files, [](const NamedEntry& f) { return FileJson(f.kind, *f.entry); }, true);
        std::printf("}\n");
        return kExitSuccess;
    }
    std::printf("package:   %s\nmanifests: %zu of %d\n\n", package.c_str(), manifests.size(),
                QOB_MANIFEST_COUNT);
    std::printf("%-8s %10s %10s %10s  %-25s  %-10s %s\n", "kind", "content", "reserved", "offset",
                "time", "identifier", "path");
    for (const NamedEntry& item : files) {
        const QOB_EntryInfo& e = *item.entry;
        std::printf("%-8s %10u %10u %10u  %-25s  %-10s %s\n", item.kind, e.uStoredSize,
                    e.uReservedSpace, e.uDataOffset, TimeText(e.uTime).c_str(),
                    e.szIdentifier[0] != '\0' ? e.szIdentifier : "-", e.szPath);
    }
    return kExitSuccess;
}

int RunList(const Args& args, bool /*quiet*/) {
    const ParsedArgs parsed = ParseArgs(args, kJsonOption);
    const std::string& package = ExistingPackageArgument(parsed);
    const std::vector<Inspect::EntryReport> entries = List(package, false);
    if (parsed.Has("--json")) {
        std::printf("{\n  \"package\": %s,\n", JsonString(package).c_str());
        PrintJsonList("entries", entries, EntryJson, true);
        std::printf("}\n");
        return kExitSuccess;
    }
    // The name comes last, so a line's name is everything after the fifth column.
    std::printf("%10s %10s %10s  %-25s  %s\n", "content", "allocated", "offset", "time", "name");
    std::uint64_t content = 0, allocated = 0;
    for (const Inspect::EntryReport& e : entries) {
        std::printf("%10" PRIu64 " %10" PRIu64 " %10" PRIu64 "  %-25s  %s\n", e.content_size,
                    e.allocated_size, e.data_offset, TimeText(e.dos_time).c_str(), e.name.c_str());
        content += e.content_size;
        allocated += e.allocated_size;
    }
    std::printf("%10" PRIu64 " %10" PRIu64 "  %zu entries\n", content, allocated, entries.size());
    return kExitSuccess;
}

int RunLcc(const Args& args, bool /*quiet*/) {
    const ParsedArgs parsed = ParseArgs(args, kJsonOption);
    RequirePositional(parsed, {"PKG", "ID"});
    const std::string& package = parsed.positional[0];
    const std::string& id = parsed.positional[1];
    RequireFile(package, false);
    QOB_EntryInfo entry;
    QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    BeginCall();
    const QobErrorCode_e result = QOB_GetLensCastCalibInfo(package.c_str(), id.c_str(), &entry);
    if (result == FILE_NOT_IN_PACKAGE && QOB_IsQob(package.c_str()) == SUCCESS) {
        throw ToolError(package + ": no LCC profile with identifier " + id, kExitNotFound);
    }
    Check(result, "QOB_GetLensCastCalibInfo", package);
    // The look-up leaves the time out; the package's file list has it.
    InfoRecord record;
    ReadInfo(record, package);
    const QOB_ImageFiles& files = record.info->files;
    for (std::uint32_t i = 0; i < files.uLccCount && files.pLccs != nullptr; ++i) {
        if (std::string_view(files.pLccs[i].szPath) == entry.szPath) {
            entry.uTime = files.pLccs[i].uTime;
            break;
        }
    }
    if (parsed.Has("--json")) {
        std::printf("%s\n", FileJson("lcc", entry).c_str());
        return kExitSuccess;
    }
    std::printf("identifier:  %s\npath:        %s\ncontent:     %u bytes\nreserved:    %u "
                "bytes\ndata offset: %u\ntime:        %s\n",
                entry.szIdentifier, entry.szPath, entry.uStoredSize, entry.uReservedSpace,
                entry.uDataOffset, TimeText(entry.uTime).c_str());
    return kExitSuccess;
}

int RunCheck(const Args& args, bool quiet) {
    const ParsedArgs parsed = ParseArgs(args, kJsonOption);
    const std::string& package = ExistingPackageArgument(parsed);
    BeginCall();
    const QobErrorCode_e result = QOB_IsQob(package.c_str());
    const std::string message = result == SUCCESS ? "" : LastMessage("QOB_IsQob");
    const int status = result == SUCCESS ? kExitSuccess : StatusFor(result, package);
    if (parsed.Has("--json")) {
        std::printf("{\"package\": %s, \"imagePackage\": %s, \"result\": %s, \"code\": %d, "
                    "\"message\": %s}\n",
                    JsonString(package).c_str(), result == SUCCESS ? "true" : "false",
                    JsonString(Inspect::ResultName(result)).c_str(), static_cast<int>(result),
                    message.empty() ? "null" : JsonString(message).c_str());
    } else if (quiet) {
    } else if (result == SUCCESS) {
        std::printf("%s: an image package\n", package.c_str());
    } else {
        std::fprintf(stderr, "%s: not an image package (%s)\n", package.c_str(),
                     Describe(result, "QOB_IsQob").c_str());
    }
    return status;
}

int RunVerify(const Args& args, bool quiet) {
    const ParsedArgs parsed = ParseArgs(args, kJsonOption);
    const std::string& package = ExistingPackageArgument(parsed);
    // The library's own answer first: it also recovers a package from an interrupted change.
    BeginCall();
    const QobErrorCode_e result = QOB_IsQob(package.c_str());
    if (result != SUCCESS) {
        const std::string message = Describe(result, "QOB_IsQob");
        throw ToolError(package + ": not an image package (" + message + ")",
                        StatusFor(result, package));
    }
    Inspect::VerifyReport report;
    try {
        report = Inspect::Verify(package);
    } catch (const Inspect::Failure& e) {
        throw ToolError(package + ": " + e.what());
    }
    // A package whose manifests no longer describe an image (its raw image removed, say)
    // fails the library's full read even where zip and manifests agree.
    {
        InfoRecord record;
        CopyField(record.info->szPackagePath, package, "package path");
        BeginCall();
        const QobErrorCode_e read = QOB_GetPackageInfo(record.info.get());
        if (read != SUCCESS) {
            report.problems.push_back("the library cannot read the package (" +
                                      Describe(read, "QOB_GetPackageInfo") + ")");
        }
    }
    const bool sound = report.Sound();
    if (parsed.Has("--json")) {
        std::printf("{\n  \"package\": %s,\n  \"sound\": %s,\n", JsonString(package).c_str(),
                    sound ? "true" : "false");
        PrintJsonList(
            "problems", report.problems, [](const std::string& p) { return JsonString(p); }, false);
        PrintJsonList("entries", report.entries, EntryJson, true);
        std::printf("}\n");
        return sound ? kExitSuccess : kExitFailure;
    }
    for (const Inspect::EntryReport& e : report.entries) {
        if (!e.problem.empty()) {
            std::fprintf(stderr, "%s: %s: %s\n", package.c_str(), e.name.c_str(),
                         e.problem.c_str());
        }
    }
    for (const std::string& problem : report.problems) {
        std::fprintf(stderr, "%s: %s\n", package.c_str(), problem.c_str());
    }
    if (!sound) {
        throw ToolError(package + ": damaged");
    }
    if (!quiet) {
        std::printf("%s: sound: %zu entries read back, manifests and zip agree\n", package.c_str(),
                    report.entries.size());
    }
    return kExitSuccess;
}

int RunExtract(const Args& args, bool quiet) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "DIR"});
    const std::string& package = parsed.positional[0];
    RequireFile(package, false);
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    CopyField(extract->szPackagePath, package, "package path");
    CopyField(extract->szDestination, parsed.positional[1], "destination");
    extract->eMode = QOB_EXTRACT_ALL;
    BeginCall();
    const QobErrorCode_e result = QOB_Extract(extract.get());
    if (result != SUCCESS) {
        // When the destination is what the system refuses, its reason names the cause.
        const std::string message = Describe(result, "QOB_Extract");
        RequireWritableDirectory(parsed.positional[1]);
        throw ToolError(package + ": " + message, StatusFor(result, package));
    }
    if (!quiet) {
        std::printf("extracted %s into %s\n", package.c_str(), parsed.positional[1].c_str());
    }
    return kExitSuccess;
}

int RunCat(const Args& args, bool /*quiet*/) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "ENTRY"});
    const std::string& package = parsed.positional[0];
    const std::string& name = parsed.positional[1];
    RequireFile(package, false);
    // The buffer's size comes from the entry listing: an exact name first, then one that
    // differs in letter case only, as the library looks entries up.
    const std::vector<Inspect::EntryReport> entries = List(package, false);
    auto found =
        std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e.name == name; });
    if (found == entries.end()) {
        found = std::find_if(entries.begin(), entries.end(), [&](const auto& e) {
            return std::ranges::equal(e.name, name, [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) ==
                       std::tolower(static_cast<unsigned char>(b));
            });
        });
    }
    if (found == entries.end()) {
        throw ToolError(package + ": no entry " + name, kExitNotFound);
    }
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    CopyField(extract->szPackagePath, package, "package path");
    CopyField(extract->szEntryPath, name, "entry path");
    extract->eMode = QOB_EXTRACT_TO_BUFFER;
    const auto size = static_cast<std::size_t>(found->content_size);
    std::vector<char> buffer(std::max<std::size_t>(size, 1), '\0');
    extract->pBuffer = buffer.data();
    extract->uBufferSize = static_cast<std::uint32_t>(size);
    BeginCall();
    Check(QOB_Extract(extract.get()), "QOB_Extract", package);
    if ((size > 0 && std::fwrite(buffer.data(), 1, size, stdout) != size) ||
        std::fflush(stdout) != 0) {
        throw ToolError("standard output: cannot write");
    }
    return kExitSuccess;
}

} // namespace qobtool
