#include "api/package_files.hpp"

#include "archive/path.hpp"
#include "package/entry_names.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/xml/xml_node.hpp"

namespace QOB {
namespace {

// The zip layer's lookup never finds a name this long, so such an entry would be lost.
constexpr std::size_t kMaxEntryName = 255;

bool NamesManifest(std::string_view entry) noexcept {
    for (const char* name : kManifestNames) {
        if (Xml::EqualsIgnoreCase(entry, name)) { // lookups ignore letter case
            return true;
        }
    }
    return false;
}

// The checks every stored name must pass, so that the manifests can always name it and a
// later call can always find it again.
void RequireStorable(const std::string& entry, EntryKind kind) {
    if (entry.size() > kMaxEntryName) {
        throw Exception(INVALID_PARAMETER,
                        Format("entry name too long (%zu bytes, at most %zu): \"%s\"", entry.size(),
                               kMaxEntryName, entry.c_str()));
    }
    const std::string_view directory = KindDirectory(kind);
    const bool escapes = entry == "." || entry == ".." || entry.starts_with("../") ||
                         entry.ends_with('/') || !entry.starts_with(directory) ||
                         entry.size() == directory.size() ||
                         (directory.empty() && entry.find('/') != std::string::npos);
    if (escapes) {
        throw Exception(INVALID_PARAMETER,
                        Format("entry path leaves its folder: \"%s\"", entry.c_str()));
    }
    if (NamesManifest(entry)) {
        throw Exception(INVALID_PARAMETER,
                        Format("entry name is a manifest's: \"%s\"", entry.c_str()));
    }
}

} // namespace

std::string_view ImageBaseName(const QOB_EntryInfo& raw) noexcept {
    return FileNamePart(raw.szPath);
}

std::string InternalEntryPath(const QOB_EntryInfo& source, EntryKind kind, std::string_view base) {
    const bool profile = kind == EntryKind::Lcc || kind == EntryKind::Icc;
    const std::string name = GetInternalFileNameFromExternal(
        source.szPath, kind, base, profile ? std::string_view(source.szIdentifier) : "");
    if (name.empty()) {
        throw Exception(INVALID_PARAMETER, "entryName is empty");
    }
    // The manifests name the entry exactly as the zip stores it: identifiers may hold
    // separators ("EF24-70mm f/2.8L"), which become part of the stored path.
    std::string entry = Path(std::string(KindDirectory(kind)).append(name)).Sanitized();
    RequireStorable(entry, kind);
    return entry;
}

} // namespace QOB
