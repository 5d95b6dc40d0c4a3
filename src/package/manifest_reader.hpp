// Reading a package's manifests into a QOB_PackageInfo.
#pragma once

#include "archive/archive.hpp"
#include "support/xml/xml_node.hpp"

#include <qob/qob.h>

#include <cstddef>
#include <vector>

namespace QOB {

// One manifest entry's bytes plus a terminating NUL.
struct ManifestContent {
    std::size_t row;
    std::vector<char> text;
};

// The parsed root element of one manifest.
struct ManifestNode {
    std::size_t row;
    Xml::Node root;
    std::size_t index; // of its content in the sequence it was parsed from
};

// True when the primary manifest parses and its version is 0 or 1. Never throws for a bad
// manifest: it logs and answers false.
bool IsPackageVersionSupported(Archive& archive);

// Every manifest of the name table that the archive holds, in table order; the primary one
// must be there (CANNOT_READ_FILE_PCK "missing manifest: ...").
std::vector<ManifestContent> GetManifestContents(Archive& archive);

// Parses the manifests and copies each rendering into its text buffer of info. Only the
// primary manifest must parse; copies that do not are skipped.
std::vector<ManifestNode> GetManifestNodes(Archive& archive, QOB_PackageInfo& info);

// Checks Version and the number of File elements; returns that number (1 to 10).
unsigned ReadManifestHeader(const Xml::Node& root, QOB_PackageInfo& info);

// Fills entry from a path element: its path, its numbers from the archive, and for profiles
// (attribute given) its file name and identifier. Returns whether the entry was filled.
bool PopulateInfoFromXml(Archive& archive, QOB_EntryInfo* entry, const Xml::Node& node,
                         const char* attribute);

// Fills the sizes, data offset and time of entry when the archive holds its path.
bool getFileInfo(Archive& archive, QOB_EntryInfo& entry);

// The whole read: manifests, header, and every file of the image into info (allocating
// its LCC and ICC lists, which info owns from then on).
void GetPackageInfoInternal(Archive& archive, QOB_PackageInfo& info);

} // namespace QOB
