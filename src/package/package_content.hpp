// Putting one file into a package, from disk or from memory: rewritten in place when it fits
// the entry's reserved space, otherwise removed and inserted again, or inserted new.
#pragma once

#include "archive/archive.hpp"
#include "archive/path.hpp"

#include <qob/qob.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace QOB {

// 0 when the entry's content is available: its file exists (QOB_PACK_FROM_FILE), or its buffer
// and length are set (QOB_PACK_FROM_MEMORY); else FILE_NOT_FOUND or INVALID_PARAMETER.
QobErrorCode_e ValidateData(const QOB_EntryInfo& entry);

struct UpdateSteps {
    bool updateInPlace = false;
    bool remove = false;
    bool insert = false;
    // The existing entry's name as stored: lookups ignore letter case, rewrites do not.
    std::string storedName;
};

// In place whenever the new content fits the entry's space, except that with compact a new
// content below 80 percent of the space gives the space back (remove and insert again).
UpdateSteps GetUpdateSteps(Archive& archive, const Path& path, std::uint64_t size, bool compact);

// Writes entry's content (its file or its buffer, by ePackingType) under path, reserving
// entry's reserved space when it has to insert. Flushes the archive.
void UpdateFileInPackage(Archive& archive, const QOB_EntryInfo& entry, const Path& path,
                         bool compact);
void UpdateEntryFromMemory(Archive& archive, const Path& path, const std::byte* content,
                           std::size_t length, bool compact, std::size_t padding);
void UpdateEntryFromFile(Archive& archive, const Path& path, const std::filesystem::path& file,
                         bool compact, const QOB_EntryInfo& entry);
// Stores a new file described by entry under path.
void AddFileToPackage(Archive& archive, const QOB_EntryInfo& entry, const Path& path);

} // namespace QOB
