// The subcommands that only read a package: info, ls, lcc, check, extract, cat.
#include "cli.hpp"
#include "commands.hpp"
#include "host_platform.hpp"
#include "library_log.hpp"
#include "zip_directory.hpp"

#include <qob/qob.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace qobtool {
namespace {

// The manifest entries, in the order of QOB_PackageInfo::szManifests.
constexpr std::array<const char*, QOB_MANIFEST_COUNT> kManifestNames = {
    "manifest.xml",     "manifest50.xml",   "manifest70.xml",   "manifest80.xml",
    "manifest81.xml",   "manifest82.xml",   "manifest90.xml",   "manifest91.xml",
    "manifest100.xml",  "manifest110.xml",  "manifest120.xml",  "manifest130.xml",
    "manifest131.xml",  "manifest140.xml",  "manifest141.xml",  "manifest152.xml",
    "manifest165.xml",  "manifest166.xml",  "manifest1664.xml", "manifest1665.xml",
    "manifest1670.xml", "manifest1674.xml", "manifest1680.xml"};

struct InfoRecord {
    InfoRecord() : info(std::make_unique<QOB_PackageInfo>()) {
        QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    }
    ~InfoRecord() { QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO); }
    InfoRecord(const InfoRecord&) = delete;
    InfoRecord& operator=(const InfoRecord&) = delete;
    std::unique_ptr<QOB_PackageInfo> info;
};

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

void PrintJsonEntry(const NamedEntry& item, bool last) {
    const QOB_EntryInfo& e = *item.entry;
    std::printf("    {\"kind\": %s, \"path\": %s, \"secondPath\": %s, \"identifier\": %s, "
                "\"contentSize\": %u, \"reservedSize\": %u, \"dataOffset\": %u, "
                "\"time\": %s, \"dosTime\": %u}%s\n",
                JsonString(item.kind).c_str(), JsonString(e.szPath).c_str(),
                JsonString(e.szSecondPath).c_str(), JsonString(e.szIdentifier).c_str(),
                e.uStoredSize, e.uReservedSpace, e.uDataOffset,
                JsonString(DosTimeText(e.uTime)).c_str(), e.uTime, last ? "" : ",");
}

void PrintInfoJson(const QOB_PackageInfo& info, const std::vector<NamedEntry>& files) {
    std::printf("{\n  \"package\": %s,\n  \"manifests\": [",
                JsonString(info.szPackagePath).c_str());
    bool first = true;
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        if (info.szManifests[row][0] != '\0') {
            std::printf("%s%s", first ? "" : ", ", JsonString(kManifestNames[row]).c_str());
            first = false;
        }
    }
    std::printf("],\n  \"files\": [\n");
    for (std::size_t i = 0; i < files.size(); ++i) {
        PrintJsonEntry(files[i], i + 1 == files.size());
    }
    std::printf("  ]\n}\n");
}

void PrintInfoText(const QOB_PackageInfo& info, const std::vector<NamedEntry>& files) {
    std::size_t manifests = 0;
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        manifests += info.szManifests[row][0] != '\0' ? 1 : 0;
    }
    std::printf("package:   %s\nmanifests: %zu of %d\n\n", info.szPackagePath, manifests,
                QOB_MANIFEST_COUNT);
    std::printf("%-8s %10s %10s %10s  %-19s  %-10s %s\n", "kind", "content", "reserved", "offset",
                "time", "identifier", "path");
    for (const NamedEntry& item : files) {
        const QOB_EntryInfo& e = *item.entry;
        std::printf("%-8s %10u %10u %10u  %-19s  %-10s %s\n", item.kind, e.uStoredSize,
                    e.uReservedSpace, e.uDataOffset, DosTimeText(e.uTime).c_str(),
                    e.szIdentifier[0] != '\0' ? e.szIdentifier : "-", e.szPath);
    }
}

} // namespace

int RunInfo(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {{"--json", false}});
    RequirePositional(parsed, {"PKG"});
    InfoRecord record;
    CopyField(record.info->szPackagePath, parsed.positional[0], "package path");
    BeginCall();
    Check(QOB_GetPackageInfo(record.info.get()), "QOB_GetPackageInfo");
    const std::vector<NamedEntry> files = ManifestFiles(record.info->files);
    if (parsed.Has("--json")) {
        PrintInfoJson(*record.info, files);
    } else {
        PrintInfoText(*record.info, files);
    }
    return 0;
}

int RunList(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG"});
    const std::string& package = parsed.positional[0];
    std::vector<ZipEntry> entries;
    try {
        entries = ReadZipDirectory(PathFromUtf8(package));
    } catch (const ToolError& e) {
        throw ToolError(package + ": " + e.what());
    }
    std::printf("%10s %10s %10s  %-19s  %s\n", "content", "allocated", "offset", "time", "name");
    std::printf("---------- ---------- ----------  -------------------  ----\n");
    std::uint64_t content = 0, allocated = 0;
    for (const ZipEntry& e : entries) {
        std::printf("%10" PRIu64 " %10" PRIu64 " %10" PRIu64 "  %-19s  %s\n", e.content_size,
                    e.allocated_size, e.data_offset, DosTimeText(e.dos_time).c_str(),
                    e.name.c_str());
        content += e.content_size;
        allocated += e.allocated_size;
    }
    std::printf("---------- ----------                                  ----\n");
    std::printf("%10" PRIu64 " %10" PRIu64 "                                  %zu entries\n",
                content, allocated, entries.size());
    return 0;
}

int RunLcc(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "ID"});
    QOB_EntryInfo entry;
    QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    BeginCall();
    Check(QOB_GetLensCastCalibInfo(parsed.positional[0].c_str(), parsed.positional[1].c_str(),
                                   &entry),
          "QOB_GetLensCastCalibInfo");
    std::printf("identifier:  %s\npath:        %s\ncontent:     %u bytes\nreserved:    %u "
                "bytes\ndata offset: %u\ntime:        %s\n",
                entry.szIdentifier, entry.szPath, entry.uStoredSize, entry.uReservedSpace,
                entry.uDataOffset, DosTimeText(entry.uTime).c_str());
    return 0;
}

int RunCheck(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG"});
    const std::string& package = parsed.positional[0];
    BeginCall();
    const QobErrorCode_e result = QOB_IsQob(package.c_str());
    if (result == SUCCESS) {
        std::printf("%s: an image package\n", package.c_str());
        return 0;
    }
    const std::string message = LastMessage("QOB_IsQob");
    std::printf("%s: not an image package (%s%s%s)\n", package.c_str(), ResultName(result),
                message.empty() ? "" : ": ", message.c_str());
    return 1;
}

int RunExtract(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "DIR"});
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    CopyField(extract->szPackagePath, parsed.positional[0], "package path");
    CopyField(extract->szDestination, parsed.positional[1], "destination");
    extract->eMode = QOB_EXTRACT_ALL;
    BeginCall();
    Check(QOB_Extract(extract.get()), "QOB_Extract");
    std::printf("extracted %s into %s\n", parsed.positional[0].c_str(),
                parsed.positional[1].c_str());
    return 0;
}

int RunCat(const Args& args) {
    const ParsedArgs parsed = ParseArgs(args, {});
    RequirePositional(parsed, {"PKG", "ENTRY"});
    const std::string& package = parsed.positional[0];
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    CopyField(extract->szPackagePath, package, "package path");
    CopyField(extract->szEntryPath, parsed.positional[1], "entry path");
    extract->eMode = QOB_EXTRACT_TO_BUFFER;

    // The size comes from the zip directory; when that cannot say, the library's "buffer too
    // small: src=<size>" failure does. A package the directory reader rejects still goes to
    // the library, whose failure is the one to report.
    std::size_t size = 0;
    try {
        if (const auto entry =
                FindEntry(ReadZipDirectory(PathFromUtf8(package)), parsed.positional[1])) {
            size = static_cast<std::size_t>(entry->content_size);
        }
    } catch (const ToolError&) {
    }
    std::vector<char> buffer;
    for (int attempt = 0;; ++attempt) {
        buffer.assign(std::max<std::size_t>(size, 1), '\0');
        extract->pBuffer = buffer.data();
        extract->uBufferSize = static_cast<std::uint32_t>(size);
        BeginCall();
        const QobErrorCode_e result = QOB_Extract(extract.get());
        if (result == SUCCESS) {
            break;
        }
        const std::string message = LastMessage("QOB_Extract");
        const std::size_t at = message.find("buffer too small: src=");
        if (result != INTERNAL_INCONSISTENCY || at == std::string::npos || attempt > 0) {
            Check(result, "QOB_Extract");
        }
        size = std::strtoull(message.c_str() + at + 22, nullptr, 10);
    }
    if (size > 0 && std::fwrite(buffer.data(), 1, size, stdout) != size) {
        throw ToolError("cannot write to standard output");
    }
    if (std::fflush(stdout) != 0) {
        throw ToolError("cannot write to standard output");
    }
    return 0;
}

} // namespace qobtool
