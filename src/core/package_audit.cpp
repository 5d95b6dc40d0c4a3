#include "core/package_audit.hpp"

#include "api/process_lock.hpp"
#include "archive/archive.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_reader.hpp"
#include "platform/platform.hpp"
#include "support/dos_time.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"
#include "support/xml/xml_node.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>

namespace QOB::Inspect {
namespace {

// Runs body, turning the library's exceptions into Failure.
template <class Body> auto Translate(Body&& body) {
    try {
        return body();
    } catch (const Exception& e) {
        throw Failure(e.code(), e.what());
    } catch (const std::bad_alloc&) {
        throw Failure(INTERNAL_INCONSISTENCY, "out of memory");
    } catch (const std::exception& e) {
        throw Failure(INTERNAL_INCONSISTENCY, e.what());
    }
}

std::vector<EntryReport> ListOpen(Archive& archive, bool check) {
    std::vector<EntryReport> reports;
    for (const Entry& entry : archive.List()) {
        EntryReport report;
        report.name = entry.path;
        report.content_size = entry.content_size;
        report.allocated_size = entry.allocated_size;
        report.data_offset = entry.data_offset;
        report.dos_time = entry.dos_time;
        if (check) {
            report.checked = true;
            try {
                const Path path(entry.path);
                if (path.Sanitized() != entry.path) {
                    report.problem = "the name is not a plain relative path";
                } else {
                    // Reading checks the zero padding and the CRC-32 of content and padding.
                    archive.Check(path);
                }
            } catch (const std::exception& e) {
                report.problem = e.what();
            }
        }
        reports.push_back(std::move(report));
    }
    return reports;
}

bool IsPathElement(std::string_view name) {
    using namespace ManifestTag;
    for (const std::string_view tag :
         {kRawPath, kSettingsPath, kProxyPath, kLccPath, kIccPath, kMaskPath, kHairPath}) {
        if (Xml::EqualsIgnoreCase(name, tag)) {
            return true;
        }
    }
    return false;
}

// Every file path that the element's subtree names, with "\" read as "/" as the reader does.
void CollectPaths(const Xml::Node& node, std::vector<std::string>& paths) {
    for (std::size_t i = 0; i < node.ChildCount(); ++i) {
        const Xml::Node child = node.ChildAt(i);
        if (IsPathElement(child.Name() != nullptr ? child.Name() : "")) {
            std::string text = child.Text() != nullptr ? child.Text() : "";
            std::replace(text.begin(), text.end(), '\\', '/');
            paths.push_back(std::move(text));
        } else {
            CollectPaths(child, paths);
        }
    }
}

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// Days from 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

} // namespace

bool VerifyReport::Sound() const noexcept {
    return problems.empty() && std::all_of(entries.begin(), entries.end(),
                                           [](const auto& e) { return e.problem.empty(); });
}

const char* ResultName(int code) noexcept {
    return ErrorName(code);
}

std::span<const char* const> ManifestNames() noexcept {
    return kManifestNames;
}

void SetLogSink(void (*fn)(int, const char*, void*), void* user) {
    QOB::SetLogSink(fn, user);
}

std::vector<EntryReport> ListEntries(const std::string& package, bool check) {
    return Translate([&] {
        const ProcessLockScope lock; // the same lock the exports take
        Archive archive(PathFromUtf8(package), true);
        return ListOpen(archive, check);
    });
}

VerifyReport Verify(const std::string& package) {
    return Translate([&] {
        const ProcessLockScope lock; // the same lock the exports take
        Archive archive(PathFromUtf8(package), true);
        VerifyReport report;
        report.entries = ListOpen(archive, true);

        // Which manifest names each path, compared as the reader looks entries up (ASCII
        // letters without regard to case).
        std::map<std::string, std::string> named; // lower-case path -> first manifest naming it
        std::set<std::string> present;
        for (const EntryReport& entry : report.entries) {
            present.insert(Lower(entry.name));
        }
        try {
            auto info = std::make_unique<QOB_PackageInfo>();
            for (const ManifestNode& node : GetManifestNodes(archive, *info)) {
                std::vector<std::string> paths;
                CollectPaths(node.root, paths);
                for (const std::string& path : paths) {
                    const char* manifest = kManifestNames[node.row];
                    if (path.empty()) {
                        report.problems.push_back(std::string(manifest) + " names an empty path");
                    } else if (present.count(Lower(path)) == 0) {
                        report.problems.push_back(std::string(manifest) + " names \"" + path +
                                                  "\", which the zip does not hold");
                    }
                    named.emplace(Lower(path), manifest);
                }
            }
        } catch (const std::exception& e) {
            report.problems.push_back(std::string("the manifests cannot be read: ") + e.what());
            return report;
        }
        for (const EntryReport& entry : report.entries) {
            if (!IsManifestName(entry.name) && named.count(Lower(entry.name)) == 0) {
                report.problems.push_back("\"" + entry.name + "\" is named by no manifest");
            }
        }
        return report;
    });
}

std::string IsoTime(std::uint32_t dosTime) {
    const DosFields f = UnpackDosTime(dosTime);
    if (dosTime == 0 || f.month < 1 || f.month > 12 || f.day < 1 || f.day > 31 || f.hour > 23 ||
        f.minute > 59 || f.second > 59) {
        return {};
    }
    // The word holds local time: the offset is the one the local zone had at that moment.
    std::tm local{};
    local.tm_year = static_cast<int>(f.year) - 1900;
    local.tm_mon = static_cast<int>(f.month) - 1;
    local.tm_mday = static_cast<int>(f.day);
    local.tm_hour = static_cast<int>(f.hour);
    local.tm_min = static_cast<int>(f.minute);
    local.tm_sec = static_cast<int>(f.second);
    local.tm_isdst = -1;
    const std::time_t instant = std::mktime(&local);
    long offsetMinutes = 0;
    if (instant != static_cast<std::time_t>(-1)) {
        // time_t counts seconds since 1970 in UTC on every system we build for.
        const std::int64_t localSeconds = DaysFromCivil(f.year, f.month, f.day) * 86400 +
                                          f.hour * 3600 + f.minute * 60 + f.second;
        const auto utcSeconds = static_cast<std::int64_t>(instant);
        offsetMinutes = static_cast<long>((localSeconds - utcSeconds) / 60);
    }
    const char sign = offsetMinutes < 0 ? '-' : '+';
    const long magnitude = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
    char text[40];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u%c%02ld:%02ld", f.year, f.month,
                  f.day, f.hour, f.minute, f.second, sign, magnitude / 60, magnitude % 60);
    return text;
}

} // namespace QOB::Inspect
