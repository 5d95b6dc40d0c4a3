// Crafts package files entry by entry with the archive layer, for tests that need manifests
// or layouts that the library itself would never write.
#pragma once

#include "archive/archive.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace qobtest {

struct EntrySpec {
    std::string name;
    std::string content;
    std::size_t padding = 0;
};

inline void BuildPackage(const std::filesystem::path& file, const std::vector<EntrySpec>& entries) {
    QOB::Archive archive(file, false);
    for (const auto& entry : entries) {
        archive.Insert(QOB::Path(entry.name),
                       reinterpret_cast<const std::byte*>(entry.content.data()),
                       entry.content.size(), entry.padding);
    }
}

inline const std::string kRawOnly = "<File><RawPath>a.raw</RawPath></File>";

// A primary manifest with the given version text and File elements.
inline std::string Manifest(const std::string& version = "1", const std::string& files = kRawOnly) {
    return "<Manifest><Platform>0</Platform>" + files + "<Version>" + version +
           "</Version><MinorVersion>3</MinorVersion><Type>0</Type></Manifest>";
}

} // namespace qobtest
