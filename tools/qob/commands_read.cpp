// The subcommands that only read a package: info, ls, lcc, check, verify, extract, cat.
#include "commands.hpp"
#include "library.hpp"
#include "progress.hpp"
#include "text.hpp"

#include <qob/qob.h>
#include <qob/qob_ext.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>

namespace qobtool {
namespace {

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

// The zip entry a manifest path names, found as the library finds it: the exact name first,
// then one that differs in ASCII letter case only.
const QOBX_EntryStat* FindEntry(const std::vector<QOBX_EntryStat>& entries, std::string_view path) {
    const QOBX_EntryStat* loose = nullptr;
    for (const QOBX_EntryStat& entry : entries) {
        if (path == entry.name) {
            return &entry;
        }
        if (loose == nullptr && SameIgnoringCase(path, entry.name)) {
            loose = &entry;
        }
    }
    return loose;
}

// The entry's time in UTC seconds, taken from the listing (the manifest's record carries the
// DOS word only).
std::int64_t UtcSeconds(const std::vector<QOBX_EntryStat>& entries, const QOB_EntryInfo& e) {
    const QOBX_EntryStat* found = FindEntry(entries, e.szPath);
    return found != nullptr ? found->unixTime : 0;
}

// The file object of the JSON output (info and lcc).
Json FileJson(const char* kind, const QOB_EntryInfo& e, std::int64_t utcSeconds) {
    return {{"kind", kind},
            {"path", e.szPath},
            {"secondPath", e.szSecondPath},
            {"identifier", e.szIdentifier},
            {"contentSize", e.uStoredSize},
            {"reservedSize", e.uReservedSpace},
            {"dataOffset", e.uDataOffset},
            {"time", TimeJson(e.uTime, utcSeconds)},
            {"dosTime", e.uTime}};
}

// The entry object of the JSON output (ls and verify).
Json EntryJson(const QOBX_EntryStat& e) {
    return {{"name", e.name},
            {"contentSize", e.contentSize},
            {"allocatedSize", e.allocatedSize},
            {"dataOffset", e.dataOffset},
            {"crc32", e.crc32},
            {"method", e.method},
            {"time", TimeJson(e.dosTime, e.unixTime)},
            {"dosTime", e.dosTime}};
}

std::string Dash(const std::string& text) {
    return text.empty() ? "-" : text;
}

// A QOB_PackageInfo on the heap, filled by the library, released with its lists.
class InfoRecord {
public:
    explicit InfoRecord(const std::string& package) : info_(std::make_unique<QOB_PackageInfo>()) {
        QOB_Constructor(info_.get(), QOB_OBJECT_PACKAGE_INFO);
        CopyField(info_->szPackagePath, package, "package path");
    }
    ~InfoRecord() { QOB_Destructor(info_.get(), QOB_OBJECT_PACKAGE_INFO); }
    InfoRecord(const InfoRecord&) = delete;
    InfoRecord& operator=(const InfoRecord&) = delete;

    QobErrorCode_e Read() { return QOB_GetPackageInfo(info_.get()); }
    const QOB_PackageInfo& operator*() const { return *info_; }

private:
    std::unique_ptr<QOB_PackageInfo> info_;
};

} // namespace

int RunInfo(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    InfoRecord record(package);
    Check(record.Read(), package);
    const QOB_PackageInfo& info = *record;
    const std::vector<QOBX_EntryStat> entries = ListEntries(package);
    const std::vector<NamedEntry> files = ManifestFiles(info.files);
    Json manifests = Json::array();
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        if (info.szManifests[row][0] != '\0') {
            manifests.push_back(kManifestNames[row]);
        }
    }
    if (options.json) {
        Json list = Json::array();
        for (const NamedEntry& f : files) {
            list.push_back(FileJson(f.kind, *f.entry, UtcSeconds(entries, *f.entry)));
        }
        PrintJson({{"package", package}, {"manifests", manifests}, {"files", list}});
        return kExitSuccess;
    }
    std::printf("package:   %s\nmanifests: %zu of %d\n\n", package.c_str(), manifests.size(),
                QOB_MANIFEST_COUNT);
    std::printf("%-8s %10s %10s %10s  %-25s  %-10s %s\n", "kind", "content", "reserved", "offset",
                "time", "identifier", "path");
    for (const NamedEntry& item : files) {
        const QOB_EntryInfo& e = *item.entry;
        std::printf("%-8s %10u %10u %10u  %-25s  %-10s %s\n", item.kind, e.uStoredSize,
                    e.uReservedSpace, e.uDataOffset,
                    Dash(TimeText(e.uTime, UtcSeconds(entries, e))).c_str(),
                    e.szIdentifier[0] != '\0' ? e.szIdentifier : "-", e.szPath);
    }
    return kExitSuccess;
}

int RunList(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    const std::vector<QOBX_EntryStat> entries = ListEntries(package);
    if (options.json) {
        Json list = Json::array();
        for (const QOBX_EntryStat& e : entries) {
            list.push_back(EntryJson(e));
        }
        PrintJson({{"package", package}, {"entries", list}});
        return kExitSuccess;
    }
    // The name comes last, so a line's name is everything after the fifth column.
    std::printf("%10s %10s %10s  %-25s  %s\n", "content", "allocated", "offset", "time", "name");
    std::uint64_t content = 0, allocated = 0;
    for (const QOBX_EntryStat& e : entries) {
        std::printf("%10" PRIu64 " %10" PRIu64 " %10" PRIu64 "  %-25s  %s\n", e.contentSize,
                    e.allocatedSize, e.dataOffset, Dash(TimeText(e.dosTime, e.unixTime)).c_str(),
                    e.name);
        content += e.contentSize;
        allocated += e.allocatedSize;
    }
    std::printf("%10" PRIu64 " %10" PRIu64 "  %zu entries\n", content, allocated, entries.size());
    return kExitSuccess;
}

int RunLcc(const Options& options) {
    const std::string& package = options.package;
    const std::string& id = options.second;
    RequireFile(package, false);
    QOB_EntryInfo entry;
    QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    const QobErrorCode_e result = QOB_GetLensCastCalibInfo(package.c_str(), id.c_str(), &entry);
    if (result == FILE_NOT_IN_PACKAGE && QOB_IsQob(package.c_str()) == SUCCESS) {
        throw ToolError(package + ": no LCC profile with identifier " + id, kExitNotFound);
    }
    Check(result, package);
    // The look-up leaves the time out; the package's file list has it.
    InfoRecord record(package);
    Check(record.Read(), package);
    const QOB_ImageFiles& files = (*record).files;
    for (std::uint32_t i = 0; i < files.uLccCount && files.pLccs != nullptr; ++i) {
        if (std::string_view(files.pLccs[i].szPath) == entry.szPath) {
            entry.uTime = files.pLccs[i].uTime;
            break;
        }
    }
    const std::int64_t utcSeconds = UtcSeconds(ListEntries(package), entry);
    if (options.json) {
        PrintJson(FileJson("lcc", entry, utcSeconds));
        return kExitSuccess;
    }
    std::printf("identifier:  %s\npath:        %s\ncontent:     %u bytes\nreserved:    %u "
                "bytes\ndata offset: %u\ntime:        %s\n",
                entry.szIdentifier, entry.szPath, entry.uStoredSize, entry.uReservedSpace,
                entry.uDataOffset, Dash(TimeText(entry.uTime, utcSeconds)).c_str());
    return kExitSuccess;
}

int RunCheck(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    const QobErrorCode_e result = QOB_IsQob(package.c_str());
    const QOBX_Error error = LastError();
    const int status = result == SUCCESS ? kExitSuccess : StatusFor(error, package);
    if (options.json) {
        PrintJson({{"package", package},
                   {"imagePackage", result == SUCCESS},
                   {"result", QOBX_CodeName(result)},
                   {"code", static_cast<int>(result)},
                   {"message", result == SUCCESS ? Json() : Json(error.message)}});
    } else if (options.quiet) {
    } else if (result == SUCCESS) {
        std::printf("%s: an image package\n", package.c_str());
    } else {
        std::fprintf(stderr, "%s: not an image package (%s)\n", package.c_str(),
                     Describe(error).c_str());
    }
    return status;
}

namespace {

struct VerifyReport {
    std::vector<QOBX_EntryStat> entries;
    std::vector<std::string> entryProblems; // one per entry, empty when sound
    std::vector<std::string> problems;      // manifest against zip

    bool Sound() const {
        return problems.empty() && std::ranges::all_of(entryProblems, &std::string::empty);
    }
};

// Every entry read to its end, which checks its CRC-32 and its zero padding.
void ReadBack(const std::string& package, VerifyReport& report, bool quiet) {
    std::uint64_t total = 0, done = 0;
    for (const QOBX_EntryStat& e : report.entries) {
        total += e.contentSize;
    }
    ProgressBar bar("verify", ProgressWanted(quiet));
    for (const QOBX_EntryStat& e : report.entries) {
        std::string problem;
        try {
            StreamEntry(package, e.name, [&](const char*, std::size_t size) {
                done += size;
                bar.Update(done, total);
            });
        } catch (const LibraryError& e) {
            problem = Describe(e.record());
        }
        report.entryProblems.push_back(problem);
    }
}

// Every file the manifest names is an entry, and every entry but the manifests is named.
void CompareManifest(const std::string& package, VerifyReport& report) {
    InfoRecord record(package);
    if (record.Read() != SUCCESS) {
        report.problems.push_back("the library cannot read the package (" + Describe(LastError()) +
                                  ")");
        return;
    }
    std::vector<bool> named(report.entries.size(), false);
    for (const NamedEntry& file : ManifestFiles((*record).files)) {
        const QOBX_EntryStat* entry = FindEntry(report.entries, file.entry->szPath);
        if (entry == nullptr) {
            report.problems.push_back(std::string(kManifestNames[0]) + " names \"" +
                                      file.entry->szPath + "\", which the zip does not hold");
        } else {
            named[static_cast<std::size_t>(entry - report.entries.data())] = true;
        }
    }
    for (std::size_t i = 0; i < report.entries.size(); ++i) {
        if (!named[i] && !IsManifestName(report.entries[i].name)) {
            report.problems.push_back(std::string("\"") + report.entries[i].name +
                                      "\" is named by no manifest");
        }
    }
}

} // namespace

int RunVerify(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    // The library's own answer first: it also recovers a package from an interrupted change.
    if (QOB_IsQob(package.c_str()) != SUCCESS) {
        const QOBX_Error error = LastError();
        throw ToolError(package + ": not an image package (" + Describe(error) + ")",
                        StatusFor(error, package));
    }
    VerifyReport report;
    report.entries = ListEntries(package);
    ReadBack(package, report, options.quiet);
    CompareManifest(package, report);
    const bool sound = report.Sound();
    if (options.json) {
        Json entries = Json::array();
        for (std::size_t i = 0; i < report.entries.size(); ++i) {
            Json entry = EntryJson(report.entries[i]);
            const std::string& problem = report.entryProblems[i];
            entry["sound"] = problem.empty();
            entry["problem"] = problem.empty() ? Json() : Json(problem);
            entries.push_back(std::move(entry));
        }
        PrintJson({{"package", package},
                   {"sound", sound},
                   {"problems", report.problems},
                   {"entries", entries}});
        return sound ? kExitSuccess : kExitFailure;
    }
    for (std::size_t i = 0; i < report.entries.size(); ++i) {
        if (!report.entryProblems[i].empty()) {
            std::fprintf(stderr, "%s: %s: %s\n", package.c_str(), report.entries[i].name,
                         report.entryProblems[i].c_str());
        }
    }
    for (const std::string& problem : report.problems) {
        std::fprintf(stderr, "%s: %s\n", package.c_str(), problem.c_str());
    }
    if (!sound) {
        throw ToolError(package + ": damaged");
    }
    if (!options.quiet) {
        std::printf("%s: sound: %zu entries read back, manifest and zip agree\n", package.c_str(),
                    report.entries.size());
    }
    return kExitSuccess;
}

int RunExtract(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    CopyField(extract->szPackagePath, package, "package path");
    CopyField(extract->szDestination, options.second, "destination");
    extract->eMode = QOB_EXTRACT_ALL;
    {
        ProgressBar bar("extract", ProgressWanted(options.quiet));
        const LibraryProgress progress(bar);
        Check(QOB_Extract(extract.get()), package);
    }
    if (!options.quiet) {
        std::printf("extracted %s into %s\n", package.c_str(), options.second.c_str());
    }
    return kExitSuccess;
}

int RunCat(const Options& options) {
    const std::string& package = options.package;
    RequireFile(package, false);
    StreamEntry(package, options.second, [](const char* data, std::size_t size) {
        if (std::fwrite(data, 1, size, stdout) != size) {
            throw ToolError(std::string("standard output: ") + std::strerror(errno));
        }
    });
    if (std::fflush(stdout) != 0) {
        throw ToolError(std::string("standard output: ") + std::strerror(errno));
    }
    return kExitSuccess;
}

} // namespace qobtool
