// Shared pieces of the zip layer's tests: writing padded entries the way the archive code
// frames them, reading everything back, and an in-memory stream for the I/O table.
#pragma once

#include "archive/minizip/unzip.hpp"
#include "archive/minizip/zip.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace minizip_test {

using namespace QOB::MiniZip;

inline constexpr std::uint32_t kDosDate = 0x58A16B2Cu; // 2024-05-01 13:25:24

// Little-endian fields of `width` bytes inside an archive held in a string.
inline std::uint32_t Le(const std::string& bytes, std::size_t at, int width = 4) {
    std::uint32_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes.at(at + static_cast<unsigned>(i)));
    }
    return value;
}
inline void SetLe(std::string& bytes, std::size_t at, std::uint32_t value, int width = 4) {
    for (int i = 0; i < width; ++i) {
        bytes.at(at + static_cast<unsigned>(i)) = static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}

struct Padded {
    std::string name;
    std::string content;
    std::uint32_t padding = 0;
};

// One entry: content, then `padding` zeros; both extra fields hold the raw 4-byte content
// size (0 without padding).
inline int AddPadded(zipFile zip, const Padded& entry, int method = 0) {
    std::string field(4, '\0');
    SetLe(field, 0, entry.padding > 0 ? static_cast<std::uint32_t>(entry.content.size()) : 0);
    zip_fileinfo info{};
    info.dosDate = kDosDate;
    const std::string data = entry.content + std::string(entry.padding, '\0');
    int result = zipOpenNewFileInZip3(zip, entry.name.c_str(), &info, field.data(), 4, field.data(),
                                      4, nullptr, method, 9, 0, -15, 8, 0, nullptr, 0);
    if (result == ZIP_OK) {
        result = zipWriteInFileInZip(zip, data.data(), static_cast<unsigned>(data.size()));
    }
    return result == ZIP_OK ? zipCloseFileInZip(zip) : result;
}

struct ReadBack {
    std::string name;
    std::string data; // the whole stored data, content and padding
    unz_file_info info{};
    std::string extra;
};

// Reads every entry in directory order, `chunk` bytes per read; the first failure's code.
inline int ReadAll(unzFile unz, std::vector<ReadBack>& out, unsigned chunk = 65536) {
    out.clear();
    int step = unzGoToFirstFile(unz);
    for (; step == UNZ_OK; step = unzGoToNextFile(unz)) {
        ReadBack entry;
        std::vector<char> name(1024), extra(64), buffer(chunk);
        int result = unzGetCurrentFileInfo(unz, &entry.info, name.data(), 1024, extra.data(), 64,
                                           nullptr, 0);
        if (result != UNZ_OK || (result = unzOpenCurrentFile(unz)) != UNZ_OK) {
            return result;
        }
        entry.name.assign(name.data(), entry.info.size_filename);
        entry.extra.assign(extra.data(), std::min(entry.info.size_file_extra, 64u));
        while ((result = unzReadCurrentFile(unz, buffer.data(), chunk)) > 0) {
            entry.data.append(buffer.data(), static_cast<std::size_t>(result));
        }
        const int closed = unzCloseCurrentFile(unz);
        if (result < 0 || closed != UNZ_OK) {
            return result < 0 ? result : closed;
        }
        out.push_back(std::move(entry));
    }
    return step == UNZ_END_OF_LIST_OF_FILE ? UNZ_OK : step;
}

// An in-memory file for the I/O table, opened with a null name like the archive's stream.
// Optionally it serves small reads from a 4096-byte read-ahead block whose unread bytes
// any repositioning skips, as the archive's read cache does: the zip layer must seek
// before every structure it reads.
struct MemoryFile {
    std::string data;
    std::uint64_t position = 0;
    bool readAhead = false;
    int truncateResult = 0; // non-zero: the cut fails and the file keeps its size
    std::string block;
    std::uint64_t blockStart = 0;
    std::size_t blockUsed = 0;

    std::uint32_t RawRead(void* buffer, std::uint32_t size) {
        const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(
            size, data.size() - std::min<std::uint64_t>(position, data.size())));
        std::memcpy(buffer, data.data() + position, n);
        position += n;
        return n;
    }
    static MemoryFile& Of(void* stream) { return *static_cast<MemoryFile*>(stream); }
    static MemoryFile& Discarding(void* stream) {
        MemoryFile& file = Of(stream);
        file.block.clear();
        file.blockUsed = 0;
        return file;
    }

    zlib_filefunc_def Table() {
        zlib_filefunc_def t;
        t.opaque = this;
        t.zopen_file = [](void* opaque, const char* name, int) { return name ? nullptr : opaque; };
        t.zread_file = [](void*, void* s, void* buffer, std::uint32_t size) {
            MemoryFile& f = Of(s);
            if (!f.readAhead || size >= 1024) {
                return Discarding(s).RawRead(buffer, size);
            }
            if (f.block.size() - f.blockUsed < size) {
                Discarding(s).blockStart = f.position;
                f.block.resize(4096);
                f.block.resize(f.RawRead(f.block.data(), 4096));
            }
            const auto n = static_cast<std::uint32_t>(
                std::min<std::size_t>(size, f.block.size() - f.blockUsed));
            std::memcpy(buffer, f.block.data() + f.blockUsed, n);
            f.blockUsed += n;
            return n;
        };
        t.zwrite_file = [](void*, void* s, const void* buffer, std::uint32_t size) {
            MemoryFile& f = Discarding(s);
            f.data.resize(std::max<std::size_t>(f.data.size(), f.position + size));
            std::memcpy(f.data.data() + f.position, buffer, size);
            f.position += size;
            return size;
        };
        t.ztell_file = [](void*, void* s) {
            MemoryFile& f = Of(s);
            return static_cast<long>(f.blockUsed < f.block.size() ? f.blockStart + f.blockUsed
                                                                  : f.position);
        };
        t.zseek_file = [](void*, void* s, std::uint32_t offset, int origin) -> long {
            MemoryFile& f = Discarding(s);
            const std::int64_t target =
                origin == kSeekSet ? std::int64_t{offset}
                                   : std::int64_t{static_cast<std::int32_t>(offset)} +
                                         static_cast<std::int64_t>(
                                             origin == kSeekCur ? f.position : f.data.size());
            if (target < 0) {
                return -1;
            }
            f.position = static_cast<std::uint64_t>(target);
            return 0;
        };
        t.zclose_file = [](void*, void*) { return 0; };
        t.zerror_file = [](void*, void*) { return 0; };
        t.ztruncate_file = [](void*, void* s, std::uint32_t size) {
            MemoryFile& f = Discarding(s);
            if (f.truncateResult == 0) {
                f.data.resize(size);
            }
            return f.truncateResult;
        };
        return t;
    }
};

// A fresh archive of the entries, built in memory.
inline std::string Build(const std::vector<Padded>& entries, int method = 0,
                         const char* comment = nullptr) {
    MemoryFile file;
    const zlib_filefunc_def table = file.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_CREATE, nullptr, &table);
    for (const Padded& entry : entries) {
        if (AddPadded(zip, entry, method) != ZIP_OK) {
            return {};
        }
    }
    return zipClose(zip, comment) == ZIP_OK ? file.data : std::string();
}

// Every entry of an archive held in memory; the result of opening and reading.
inline int ReadMemory(const std::string& bytes, std::vector<ReadBack>& out, bool readAhead = false,
                      unsigned chunk = 65536) {
    MemoryFile file;
    file.data = bytes;
    file.readAhead = readAhead;
    const zlib_filefunc_def table = file.Table();
    unzFile unz = unzOpen2(nullptr, &table);
    if (unz == nullptr) {
        return UNZ_BADZIPFILE;
    }
    const int result = ReadAll(unz, out, chunk);
    unzClose(unz);
    return result;
}

} // namespace minizip_test
