// Regenerating the manifests from a package description and storing them in the package.
#pragma once

#include "archive/archive.hpp"

#include <qob/qob.h>

namespace QOB {

// Rewrites the 23 manifest texts of info from its file set, editing each existing manifest
// in place (elements found are updated, missing ones appended) or starting a new one.
void GenerateManifestInMem(QOB_PackageInfo* info);

// Stores text (at most 16384 bytes, up to its first NUL) as the entry name. direct: insert
// with 16384 bytes reserved behind it; otherwise rewrite in place when it fits, else
// remove and insert.
void PutManifestInZip(Archive& archive, const char* text, const char* name, bool direct);

// Removes every path element whose text is exactly entryName from the manifest in text
// (a 16384-byte buffer). Returns 0, or INVALID_PARAMETER when the text does not parse or the
// result would not fit the buffer.
int DeleteFileFromManifest(char* text, const char* entryName);

} // namespace QOB
