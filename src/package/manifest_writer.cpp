#include "package/manifest_writer.hpp"

#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "package/package_content.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/xml/xml_parser.hpp"
#include "support/xml/xml_render.hpp"

#include <cstring>
#include <string>
#include <vector>

namespace QOB {
namespace {

using namespace ManifestTag;

Xml::Node FindOrAppend(Xml::Node parent, std::string_view name) {
    if (Xml::Node found = parent.FindChildIgnoreCase(name)) {
        return found;
    }
    return parent.AppendChild(name);
}

void SetChildText(Xml::Node parent, std::string_view name, std::string_view text) {
    FindOrAppend(parent, name).SetText(text);
}

// The directory followed by the entry's internal name. A path already inside the directory
// is the stored entry name itself and stays whole: an internal name may hold separators (an
// identifier such as "f/2.8"), so its file-name part alone would name another entry.
std::string InPackage(std::string_view prefix, const char* path) {
    const std::string_view text(path);
    if (text.size() > prefix.size() && text.starts_with(prefix)) {
        return std::string(text);
    }
    return std::string(prefix).append(FileNamePart(text));
}

void WriteProfiles(Xml::Node file, std::string_view containerName, std::string_view itemName,
                   std::string_view attribute, const QOB_EntryInfo* entries, std::uint32_t count) {
    Xml::Node container = FindOrAppend(file, containerName);
    for (std::uint32_t k = 0; k < count; ++k) {
        const QOB_EntryInfo& entry = entries[k];
        if (entry.szPath[0] == '\0') {
            continue; // a profile the package does not hold
        }
        // Matched by identifier first, so that rewriting updates a profile's element.
        Xml::Node item = container.ChildWithAttribute(itemName, attribute, entry.szIdentifier);
        if (!item) {
            item = container.Child(itemName, k);
        }
        if (!item) {
            item = container.AppendChild(itemName);
        }
        item.SetText(InPackage(kSettingsPrefix, entry.szPath));
        item.SetAttribute(attribute, entry.szIdentifier);
    }
}

void WriteFileElement(Xml::Node root, const QOB_ImageFiles& files) {
    Xml::Node file = FindOrAppend(root, kFile);
    if (files.raw.szPath[0] != '\0') {
        SetChildText(file, kRawPath, FileNamePart(files.raw.szPath));
    }
    if (files.settings.szPath[0] != '\0') {
        SetChildText(file, kSettingsPath, InPackage(kSettingsPrefix, files.settings.szPath));
    }
    if (files.proxy.szPath[0] != '\0') {
        SetChildText(file, kProxyPath, InPackage(kProxyPrefix, files.proxy.szPath));
    }
    WriteProfiles(file, kLccs, kLccPath, kLccId, files.pLccs, files.uLccCount);
    WriteProfiles(file, kIccs, kIccPath, kIccId, files.pIccs, files.uIccCount);
    if (files.mask.szPath[0] != '\0') {
        SetChildText(file, kMaskPath, InPackage(kSettingsPrefix, files.mask.szPath));
    }
    if (files.hair.szPath[0] != '\0') {
        SetChildText(file, kHairPath, InPackage(kSettingsPrefix, files.hair.szPath));
    }
}

} // namespace

void GenerateManifestInMem(QOB_PackageInfo* info) {
    QOB_FAILURE_TRAIL("in GenerateManifestInMem");
    if (info == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    // The copies (every row but the primary one) usually hold one text: each distinct text is
    // parsed, edited and rendered once, and the rows that repeat it take that rendering.
    constexpr std::size_t kOwn = static_cast<std::size_t>(-1);
    std::vector<std::size_t> sameAs(kManifestNames.size(), kOwn);
    std::vector<Xml::Node> roots(kManifestNames.size());
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        const char* text = ManifestText(*info, row);
        const std::string_view view(text, strnlen(text, kManifestBufferSize));
        for (std::size_t earlier = 1; row != kPrimaryManifestRow && earlier < row; ++earlier) {
            const char* other = ManifestText(*info, earlier);
            if (sameAs[earlier] == kOwn &&
                view == std::string_view(other, strnlen(other, kManifestBufferSize))) {
                sameAs[row] = earlier;
                break;
            }
        }
        if (sameAs[row] != kOwn) {
            continue;
        }
        const Xml::ParseResult parsed = Xml::Parse(view, kManifest);
        // A copy that does not parse is rebuilt from nothing.
        roots[row] = parsed.element ? parsed.element : Xml::CreateDocument(kManifest);
    }
    Xml::Node primary = roots[kPrimaryManifestRow];
    SetChildText(primary, kPlatform, kPlatformValue);
    for (const Xml::Node& root : roots) {
        if (root) {
            WriteFileElement(root, info->files);
        }
    }
    SetChildText(primary, kVersion, kVersionValue);
    SetChildText(primary, kMinorVersion, kMinorVersionValue);
    SetChildText(primary, kType, kTypeValue);

    // Measured before anything is written, so a refusal leaves every buffer as it was.
    for (std::size_t row = 0; row < roots.size(); ++row) {
        const std::size_t length = roots[row] ? Xml::RenderLength(roots[row]) : 0;
        if (length >= kManifestBufferSize) {
            throw Exception(INVALID_PARAMETER,
                            Format("xml string too long: src=%i dst=%zu", static_cast<int>(length),
                                   kManifestBufferSize));
        }
    }
    for (std::size_t row = 0; row < roots.size(); ++row) {
        if (sameAs[row] == kOwn) {
            Xml::Render(roots[row], ManifestText(*info, row), kManifestBufferSize);
        } else {
            const char* rendered = ManifestText(*info, sameAs[row]);
            std::memcpy(ManifestText(*info, row), rendered, std::strlen(rendered) + 1);
        }
    }
}

void PutManifestInZip(Archive& archive, const char* text, const char* name, bool direct) {
    QOB_FAILURE_TRAIL("in PutManifestInZip");
    const std::size_t length = strnlen(text, kManifestBufferSize);
    const Path path(name);
    if (direct) {
        archive.Insert(path, reinterpret_cast<const std::byte*>(text), length, kManifestReserve);
        return;
    }
    QOB_EntryInfo entry{};
    if (!CopyToField(entry.szPath, name)) {
        throw Exception(INVALID_PARAMETER, "manifest path too long");
    }
    entry.ePackingType = QOB_PACK_FROM_MEMORY;
    entry.uStoredSize = static_cast<std::uint32_t>(length);
    entry.uBufferLength = static_cast<std::uint32_t>(length);
    entry.pBuffer = text;
    UpdateFileInPackage(archive, entry, path, false);
}

int DeleteFileFromManifest(char* text, const char* entryName) {
    QOB_FAILURE_TRAIL("in DeleteFileFromManifest");
    const Xml::ParseResult parsed =
        Xml::Parse(std::string_view(text, strnlen(text, kManifestBufferSize)), kManifest);
    if (!parsed.element) {
        return INVALID_PARAMETER;
    }
    const std::string_view target(entryName);
    auto names = [&](const Xml::Node& node) {
        const char* value = node.Text();
        return value != nullptr && target == value;
    };
    std::vector<Xml::Node> doomed;
    const Xml::Node& root = parsed.element;
    for (std::size_t i = 0; i < root.ChildCount(); ++i) {
        const Xml::Node file = root.ChildAt(i);
        if (!Xml::EqualsIgnoreCase(file.Name(), kFile)) {
            continue;
        }
        for (std::size_t j = 0; j < file.ChildCount(); ++j) {
            const Xml::Node child = file.ChildAt(j);
            const std::string_view childName = child.Name();
            // The containers are matched case-sensitively, unlike the lookups elsewhere.
            if (childName == kLccs || childName == kIccs) {
                for (std::size_t k = 0; k < child.ChildCount(); ++k) {
                    if (names(child.ChildAt(k))) {
                        doomed.push_back(child.ChildAt(k));
                    }
                }
            } else if (names(child)) {
                doomed.push_back(child);
            }
        }
    }
    for (Xml::Node& node : doomed) {
        node.Remove();
    }
    // Re-rendering can lengthen a text (entities written out): never write past the buffer.
    if (Xml::RenderLength(root) >= kManifestBufferSize) {
        return INVALID_PARAMETER;
    }
    Xml::Render(root, text, kManifestBufferSize);
    return SUCCESS;
}

} // namespace QOB
