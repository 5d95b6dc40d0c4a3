// How files are named inside a package, and how an entry's name maps back to disk.
#pragma once

#include "archive/path.hpp"
#include "package/manifest_format.hpp"

#include <filesystem>
#include <string>
#include <string_view>

namespace QOB {

// The part after the last "/" or "\" (the whole text when there is none).
std::string_view FileNamePart(std::string_view path) noexcept;

// The name (without directory) under which an external file of a kind is stored:
//  raw image: its own file name;
//  settings, proxy, mask, hair: base + the file name's last extension (own name if none);
//  LCC profile: base + "." + suffix + ".lcc";  ICC profile: base + "." + suffix.
// Kinds above 6 fail with INTERNAL_INCONSISTENCY "invalid entry type".
std::string GetInternalFileNameFromExternal(std::string_view external, EntryKind kind,
                                            std::string_view base, std::string_view suffix);

// The entry's directory with its file name replaced by newName plus the old name's extension
// counted from its first ".", as a path relative to a destination directory.
std::filesystem::path ReplaceFilenameInPath(const Path& path, std::string_view newName);

} // namespace QOB
