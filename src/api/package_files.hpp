// Naming and writing one companion file of an image into a package: shared by create and
// update, so that both give a file the same entry name.
#pragma once

#include "archive/archive.hpp"
#include "package/manifest_format.hpp"

#include <qob/qob.h>

#include <string>
#include <string_view>

namespace QOB {

// The entry path of source inside the package, as the zip stores it: the kind's directory
// plus the internal name formed from source's file name, the image's base name and
// (profiles) its identifier. Throws INVALID_PARAMETER "entryName is empty" when there is no
// name to form, and refuses (INVALID_PARAMETER, naming the entry) a name the package could
// never find again or that would land outside the kind's directory or on a manifest.
std::string InternalEntryPath(const QOB_EntryInfo& source, EntryKind kind, std::string_view base);

// The base name of every internal name: the file-name part of the raw image's path,
// extension included.
std::string_view ImageBaseName(const QOB_EntryInfo& raw) noexcept;

} // namespace QOB
