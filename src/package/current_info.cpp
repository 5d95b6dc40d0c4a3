#include "package/current_info.hpp"

#include "archive/defer.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_reader.hpp"

#include <cstring>
#include <memory>
#include <string_view>

namespace QOB {

bool DescribesPackage(Archive& archive, const QOB_PackageInfo& info) {
    QOB_FAILURE_TRAIL("in DescribesPackage");
    // Large record: on the heap, and only its manifest texts are used, so only they are
    // emptied (the rows the package lacks must read as empty).
    const auto fresh = std::make_unique_for_overwrite<QOB_PackageInfo>();
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        ManifestText(*fresh, row)[0] = '\0';
    }
    const std::vector<ManifestNode> nodes = GetManifestNodes(archive, *fresh);
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        if (std::strncmp(info.szManifests[row], fresh->szManifests[row], kManifestBufferSize) !=
            0) {
            return false;
        }
    }
    // The texts name the raw image; the entry the host passes must be that one too, since
    // every internal name is formed from it.
    const Xml::Node file = nodes.front().root.Child(ManifestTag::kFile, 0);
    const Xml::Node raw = file ? file.FindChildIgnoreCase(ManifestTag::kRawPath) : Xml::Node();
    const char* rawText = raw ? raw.Text() : nullptr;
    return rawText != nullptr && FileNamePart(info.files.raw.szPath) == std::string_view(rawText);
}

} // namespace QOB
