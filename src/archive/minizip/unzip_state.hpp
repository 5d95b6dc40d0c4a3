// The reader's state, shared by the directory walk and the reading of entry data.
#pragma once

#include "archive/minizip/central_directory.hpp"
#include "archive/minizip/stream_access.hpp"
#include "archive/minizip/unzip.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QOB::MiniZip {

// An entry open for reading; defined with the code that reads entry data.
struct ReadEntry;
struct ReadEntryDelete {
    void operator()(ReadEntry* entry) const noexcept;
};

struct UnzReader {
    UnzReader(const zlib_filefunc_def& functions, void* stream) : file(functions, stream) {}

    StreamAccess file;
    EndRecord end;
    // Set when the archive is of a kind that is refused (zip64, split over disks): every walk
    // and lookup then fails with this reason.
    const char* unsupported = nullptr;
    // The current entry: its position in the directory walk and its central record.
    bool currentValid = false;
    std::uint32_t index = 0;
    std::uint32_t recordPosition = 0; // file position of the central record
    CentralRecord current;
    std::string currentName; // the current entry's name decoded to UTF-8
    std::unique_ptr<ReadEntry, ReadEntryDelete> entry;
    // The central directory, read once at open when it is of a sane size: every walk and
    // lookup then works from memory instead of seeking through the file record by record.
    std::vector<std::uint8_t> directory;
    // Where each record of that directory starts and the name a lookup compares, up to the
    // first damaged record: built by the first lookup, so that the next ones skip the parsing.
    // A plain name is compared where it lies; any other is decoded once into `keys`.
    static constexpr std::uint32_t kStoredKey = 0xFFFFFFFF;
    struct NameSlot {
        std::uint32_t offset; // of the record in `directory`
        std::uint32_t key;    // index into `keys`, or kStoredKey: the stored name itself
        std::uint16_t length; // of the stored name
    };
    std::vector<NameSlot> names;
    std::vector<std::string> keys;
    bool namesIndexed = false;
    bool damagedAfterNames = false;
};

inline UnzReader* AsReader(unzFile file) noexcept {
    return static_cast<UnzReader*>(file);
}

} // namespace QOB::MiniZip
