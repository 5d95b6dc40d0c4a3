// Removal of an entry: later entries move down over it, and the file is cut behind the
// new central directory.
#include "archive/minizip/zip_writer_state.hpp"
#include "support/progress.hpp"

#include <algorithm>
#include <new>

namespace QOB::MiniZip {
namespace {

constexpr std::uint32_t kMoveChunk = 4 * 1024 * 1024;

bool Move(StreamAccess& file, std::uint64_t from, std::uint64_t to, std::uint64_t size,
          std::vector<std::uint8_t>& buffer) {
    // Moving down, front to back: every chunk is read before anything behind it is
    // overwritten.
    for (std::uint64_t done = 0; done < size;) {
        const auto chunk =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(size - done, kMoveChunk));
        if (!file.ReadAt(from + done, buffer.data(), chunk) ||
            !file.WriteAt(to + done, buffer.data(), chunk)) {
            return false;
        }
        ProgressAdvance(chunk);
        done += chunk;
    }
    return true;
}

int Remove(ZipWriter& writer, const char* name) {
    if (writer.entry) {
        if (const int closed = zipCloseFileInZip(&writer); closed != ZIP_OK) {
            return closed;
        }
    }
    const std::ptrdiff_t found = FindRow(writer, name);
    if (found < 0) {
        return ZIP_FILENOTINPACKAGE;
    }
    const auto endOfData = writer.file.Tell();
    if (!endOfData) {
        return ZIP_ERRNO;
    }
    auto& table = writer.table;
    const auto position = [&](std::size_t row) {
        return std::uint64_t{table[row].localHeaderOffset} + writer.bytesBefore;
    };
    // Each entry is taken to run up to the next one's local header: that only holds for a
    // directory in file order, without entries behind the end of the data.
    for (std::size_t row = 0; row < table.size(); ++row) {
        if ((row > 0 && position(row) < position(row - 1)) || position(row) > *endOfData) {
            return ZIP_BADZIPFILE;
        }
    }

    // The entries behind the removed one are contiguous: they move down as one block, so a
    // journal under the file sees one run of large writes.
    const auto removed = static_cast<std::size_t>(found);
    std::uint64_t destination = position(removed);
    const std::uint64_t tail = removed + 1 < table.size() ? position(removed + 1) : *endOfData;
    const std::uint64_t shift = tail - destination;
    std::vector<std::uint8_t> buffer(
        static_cast<std::size_t>(std::min<std::uint64_t>(*endOfData - tail, kMoveChunk)));
    int result = ZIP_OK;
    if (Move(writer.file, tail, destination, *endOfData - tail, buffer)) {
        for (std::size_t row = removed + 1; row < table.size(); ++row) {
            table[row].localHeaderOffset =
                static_cast<std::uint32_t>(position(row) - shift - writer.bytesBefore);
        }
        destination += *endOfData - tail;
    } else {
        result = ZIP_ERRNO;
    }
    table.erase(table.begin() + found);
    if (result != ZIP_OK) {
        // Half compacted: keep the directory behind all data that may still be referenced.
        writer.file.SeekTo(*endOfData);
        return result;
    }

    std::uint64_t directorySize = 0;
    for (const CentralRecord& row : table) {
        directorySize += row.StoredSize();
    }
    const std::uint64_t newSize = destination + directorySize + kEndRecordSize;
    if (!writer.file.SeekTo(destination) || newSize > 0xFFFFFFFF) {
        return ZIP_ERRNO;
    }
    const int cut = writer.file.Truncate(static_cast<std::uint32_t>(newSize));
    if (cut == -5) {
        // The file kept its length: put the directory where it ends exactly at the end.
        writer.file.SeekFromEnd(-static_cast<std::int64_t>(directorySize + kEndRecordSize));
    }
    return cut;
}

} // namespace

int zipRemoveFileInZip(zipFile file, const char* name) {
    if (file == nullptr || name == nullptr) {
        return ZIP_PARAMERROR;
    }
    try {
        return Remove(*AsWriter(file), name);
    } catch (const std::bad_alloc&) {
        return ZIP_INTERNALERROR;
    }
}

} // namespace QOB::MiniZip
