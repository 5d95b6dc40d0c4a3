#include "package/manifest_reader.hpp"

#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "package/entry_list.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/xml/xml_parser.hpp"
#include "support/xml/xml_render.hpp"

#include <algorithm>
#include <cstring>

namespace QOB {
namespace {

using namespace ManifestTag;

// A manifest renders to less than one text buffer (16 KiB) and is stored with as much padding;
// anything far larger is hostile and is refused before it is inflated or parsed.
constexpr std::uint64_t kMaxManifestEntry = 1024 * 1024;
// No manifest that renders to under 16 KiB holds more elements ("<a/>" is four bytes) or
// deeper nesting than this; a hostile text stops here instead of building millions of nodes.
constexpr Xml::Limits kManifestLimits{kManifestBufferSize / 4, kManifestBufferSize / 8};

Xml::ParseResult ParseManifest(const std::vector<char>& text) {
    return Xml::Parse(std::string_view(text.data(), std::strlen(text.data())), kManifest,
                      kManifestLimits);
}

} // namespace

bool IsPackageVersionSupported(Archive& archive) {
    QOB_FAILURE_TRAIL("in IsPackageVersionSupported");
    const std::vector<std::byte> bytes =
        archive.Read(Path(kManifestNames[kPrimaryManifestRow]), kMaxManifestEntry);
    std::vector<char> text(bytes.size() + 1, '\0');
    std::memcpy(text.data(), bytes.data(), bytes.size());
    const Xml::ParseResult parsed = ParseManifest(text);
    if (!parsed.element) {
        LogError(Format("IsPackageVersionSupported: xml at [%i, %i]: %s", parsed.row, parsed.column,
                        Xml::ErrorText(parsed.error)));
        return false;
    }
    const Xml::Node version = parsed.element.Child(kVersion);
    if (!version) {
        LogError("IsPackageVersionSupported: version tag missing from manifest");
        return false;
    }
    return ManifestVersion(version.Text()) <= kSupportedVersion;
}

std::vector<ManifestContent> GetManifestContents(Archive& archive) {
    QOB_FAILURE_TRAIL("in GetManifestContents");
    const char* primary = kManifestNames[kPrimaryManifestRow];
    if (!archive.Contains(Path(primary))) {
        throw Exception(CANNOT_READ_FILE_PCK, Format("missing manifest: \"%s\"", primary));
    }
    std::vector<ManifestContent> contents;
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        const Path name(kManifestNames[row]);
        if (!archive.Contains(name)) {
            continue;
        }
        const std::vector<std::byte> bytes = archive.Read(name, kMaxManifestEntry);
        ManifestContent content{row, std::vector<char>(bytes.size() + 1, '\0')};
        std::memcpy(content.text.data(), bytes.data(), bytes.size());
        contents.push_back(std::move(content));
    }
    if (contents.empty()) {
        throw Exception(INTERNAL_INCONSISTENCY, "manifest content array is empty");
    }
    return contents;
}

std::vector<ManifestNode> GetManifestNodes(Archive& archive, QOB_PackageInfo& info) {
    QOB_FAILURE_TRAIL("in GetManifestNodes");
    std::vector<ManifestNode> nodes;
    const std::vector<ManifestContent> contents = GetManifestContents(archive);
    for (std::size_t i = 0; i < contents.size(); ++i) {
        // The copies usually hold the same text: parse and render each distinct text once,
        // and let the rows that repeat it share the (read-only) tree and the rendering.
        if (const auto same = std::find_if(nodes.begin(), nodes.end(),
                                           [&](const ManifestNode& node) {
                                               return contents[node.index].text == contents[i].text;
                                           });
            same != nodes.end()) {
            const char* rendered = ManifestText(info, same->row);
            std::memcpy(ManifestText(info, contents[i].row), rendered, std::strlen(rendered) + 1);
            nodes.push_back({contents[i].row, same->root, i});
            continue;
        }
        const Xml::ParseResult parsed = ParseManifest(contents[i].text);
        if (!parsed.element) {
            if (i == 0) {
                throw Exception(CANNOT_READ_FILE_PCK,
                                Format("xml error at row=%i col=%i: %s", parsed.row, parsed.column,
                                       Xml::ErrorText(parsed.error)));
            }
            continue; // only the primary manifest has to be well-formed
        }
        const std::size_t length = Xml::RenderLength(parsed.element);
        if (length >= kManifestBufferSize) {
            throw Exception(CANNOT_READ_FILE_PCK,
                            Format("xml string too long: src=%i dst=%zu", static_cast<int>(length),
                                   kManifestBufferSize));
        }
        Xml::Render(parsed.element, ManifestText(info, contents[i].row), kManifestBufferSize);
        nodes.push_back({contents[i].row, parsed.element, i});
    }
    if (nodes.empty()) {
        throw Exception(INTERNAL_INCONSISTENCY, "manifest node array is empty");
    }
    return nodes;
}

unsigned ReadManifestHeader(const Xml::Node& root, QOB_PackageInfo& /*info*/) {
    QOB_FAILURE_TRAIL("in ReadManifestHeader");
    const Xml::Node version = root.Child(kVersion);
    if (!version) {
        throw Exception(CANNOT_READ_FILE_PCK, "missing tag: version");
    }
    const unsigned value = ManifestVersion(version.Text());
    if (value > kSupportedVersion) {
        throw Exception(
            PACKAGEVERSION_NOT_SUPPORTED,
            Format("unsupported version: actual=%u supported=%u", value, kSupportedVersion));
    }
    const auto count = static_cast<unsigned>(root.ChildCount(kFile));
    if (count < 1) {
        throw Exception(CANNOT_READ_FILE_PCK, Format("invalid file count: %u", count));
    }
    if (count > kMaxFilesPerManifest) {
        throw Exception(FILE_COUNT_EXCEEDS_MAX, Format("too many files: actual=%u supported=%u",
                                                       count, kMaxFilesPerManifest));
    }
    return count;
}

bool getFileInfo(Archive& archive, QOB_EntryInfo& entry) {
    QOB_FAILURE_TRAIL("in getFileInfo");
    if (entry.szPath[0] == '\0') {
        return false; // a file the manifest does not name
    }
    const Path path(entry.szPath);
    if (!archive.Contains(path)) {
        return false;
    }
    const Entry found = archive.Get(path);
    // Sizes are 32-bit in the format; anything the reader accepted fits.
    entry.uStoredSize = static_cast<std::uint32_t>(found.content_size);
    entry.uBufferLength = static_cast<std::uint32_t>(found.content_size);
    entry.uReservedSpace = static_cast<std::uint32_t>(found.allocated_size - found.content_size);
    entry.uDataOffset = static_cast<std::uint32_t>(found.data_offset);
    entry.uTime = found.dos_time;
    return true;
}

bool PopulateInfoFromXml(Archive& archive, QOB_EntryInfo* entry, const Xml::Node& node,
                         const char* attribute) {
    QOB_FAILURE_TRAIL("in PopulateInfoFromXml");
    if (entry == nullptr) {
        throw Exception(INVALID_PARAMETER, "entry path is null");
    }
    bool copiedPath = false;
    const char* text = node.Text();
    if (text != nullptr && std::strlen(text) + 1 < 261) {
        copiedPath = CopyToField(entry->szPath, text);
        std::replace(entry->szPath, entry->szPath + std::strlen(entry->szPath), '\\', '/');
    }
    CheckEntryPathField(entry->szPath);
    getFileInfo(archive, *entry);
    if (attribute == nullptr) {
        return copiedPath;
    }
    // The file name comes from the element's text, even when the whole path was too long.
    const std::string name(text != nullptr ? FileNamePart(text) : std::string_view());
    if (!CopyToField(entry->szSecondPath, name.c_str())) {
        entry->szSecondPath[0] = '\0';
    }
    const char* value = node.Attribute(attribute);
    if (value == nullptr || !CopyToField(entry->szIdentifier, value)) {
        entry->szIdentifier[0] = '\0';
        return false;
    }
    return true;
}

namespace {

// The optional child of a kind, from the last collected File element that has it.
Xml::Node LastWith(const std::vector<Xml::Node>& files, std::string_view name) {
    for (auto it = files.rbegin(); it != files.rend(); ++it) {
        if (Xml::Node child = it->FindChildIgnoreCase(name)) {
            return child;
        }
    }
    return {};
}

// A list for the items of container, empty (null) when there are none.
QOB_EntryInfo* NewList(const Xml::Node& container, std::string_view itemName) {
    const auto items = static_cast<std::uint32_t>(container.ChildCount(itemName));
    return items > 0 ? AllocateEntryList(items) : nullptr;
}

void FillList(Archive& archive, const Xml::Node& container, std::string_view itemName,
              const char* attribute, QOB_EntryInfo* entries, std::uint32_t count) {
    for (std::uint32_t k = 0; k < count; ++k) {
        PopulateInfoFromXml(archive, &entries[k], container.Child(itemName, k), attribute);
    }
}

} // namespace

void GetPackageInfoInternal(Archive& archive, QOB_PackageInfo& info) {
    QOB_FAILURE_TRAIL("in GetPackageInfoInternal");
    const char* reading = kManifestNames[kPrimaryManifestRow];
    Deferred context(DeferCondition::OnFailure,
                     [&] { LogError(Format("in manifest: \"%s\"", reading)); });
    const std::vector<ManifestNode> nodes = GetManifestNodes(archive, info);
    const unsigned count = ReadManifestHeader(nodes.front().root, info);

    std::vector<Xml::Node> files;
    std::vector<Xml::Node> raws;
    for (unsigned i = 0; i < count; ++i) {
        for (const ManifestNode& node : nodes) {
            reading = kManifestNames[node.row];
            const Xml::Node file = node.root.Child(kFile, i);
            if (!file) {
                throw Exception(CANNOT_READ_FILE_PCK, "missing tag: structure node");
            }
            const Xml::Node raw = file.FindChildIgnoreCase(kRawPath);
            if (!raw) {
                throw Exception(CANNOT_READ_FILE_PCK, "missing tag: raw path");
            }
            files.push_back(file);
            raws.push_back(raw);
        }
    }
    reading = kManifestNames[nodes.front().row]; // the image's data comes from the primary one
    if (files.empty()) {
        throw Exception(INTERNAL_INCONSISTENCY, "file node array is empty");
    }
    if (raws.empty()) {
        throw Exception(INTERNAL_INCONSISTENCY, "raw node array is empty");
    }

    QOB_ImageFiles& image = info.files;
    if (!PopulateInfoFromXml(archive, &image.raw, raws.front(), nullptr)) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to populate image data");
    }
    PopulateInfoFromXml(archive, &image.settings, LastWith(files, kSettingsPath), nullptr);
    PopulateInfoFromXml(archive, &image.proxy, LastWith(files, kProxyPath), nullptr);
    // Each list is handed to the record before it is filled, so that the record owns it even
    // when filling fails. The pointer fields of the packed records may sit off their natural
    // alignment: they are assigned directly, never bound to a reference.
    const Xml::Node lccs = LastWith(files, kLccs);
    image.pLccs = NewList(lccs, kLccPath);
    image.uLccCount = static_cast<std::uint32_t>(lccs.ChildCount(kLccPath));
    FillList(archive, lccs, kLccPath, "LccID", image.pLccs, image.uLccCount);
    const Xml::Node iccs = LastWith(files, kIccs);
    image.pIccs = NewList(iccs, kIccPath);
    image.uIccCount = static_cast<std::uint32_t>(iccs.ChildCount(kIccPath));
    FillList(archive, iccs, kIccPath, "IccID", image.pIccs, image.uIccCount);
    PopulateInfoFromXml(archive, &image.mask, LastWith(files, kMaskPath), nullptr);
    PopulateInfoFromXml(archive, &image.hair, LastWith(files, kHairPath), nullptr);
}

} // namespace QOB
