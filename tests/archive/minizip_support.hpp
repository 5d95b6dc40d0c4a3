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

struct Padded {
    std::string name;
    std::string content;
    std::uint32_t padding = 0;
};

inline std::uint32_t Le32(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes.at(at + static_cast<unsigned>(i)));
    }
    return value;
}
inline std::uint16_t Le16(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(Le32(bytes.substr(at, 2) + std::string(2, '\0'), 0));
}
inline void SetLe32(std::string& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.at(at + static_cast<unsigned>(i)) = static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}
inline void SetLe16(std::string& bytes, std::size_t at, std::uint16_t value) {
    bytes.at(at) = static_cast<char>(value & 0xFF);
    bytes.at(at + 1) = static_cast<char>(value >> 8);
}

// One stored entry: content, then `padding` zeros; both extra fields hold the raw 4-byte
// content size (0 without padding).
inline int AddPadded(zipFile zip, const Padded& entry, int method = 0) {
    unsigned char field[4];
    const std::uint32_t value =
        entry.padding > 0 ? static_cast<std::uint32_t>(entry.content.size()) : 0;
    std::memcpy(field, &value, 4); // the tests run on little-endian hosts only
    zip_fileinfo info{};
    info.dosDate = kDosDate;
    int result = zipOpenNewFileInZip3(zip, entry.name.c_str(), &info, field, 4, field, 4, nullptr,
                                      method, method == 0 ? 0 : 9, 0, -15, 8, 0, nullptr, 0);
    if (result == ZIP_OK && !entry.content.empty()) {
        result = zipWriteInFileInZip(zip, entry.content.data(),
                                     static_cast<unsigned>(entry.content.size()));
    }
    const std::string zeros(entry.padding, '\0');
    if (result == ZIP_OK && entry.padding > 0) {
        result = zipWriteInFileInZip(zip, zeros.data(), entry.padding);
    }
    return result == ZIP_OK ? zipCloseFileInZip(zip) : result;
}

struct ReadBack {
    std::string name;
    std::string data; // the whole stored data, content and padding
    unz_file_info info{};
    std::vector<unsigned char> extra;
    int closeResult = UNZ_OK;
};

// Reads every entry of the archive in directory order; stops at the first failure and
// returns its code (0 when all went well).
inline int ReadAll(unzFile unz, std::vector<ReadBack>& out, unsigned chunk = 65536) {
    out.clear();
    int step = unzGoToFirstFile(unz);
    for (; step == UNZ_OK; step = unzGoToNextFile(unz)) {
        ReadBack entry;
        char name[1024];
        unsigned char extra[64];
        int result = unzGetCurrentFileInfo(unz, &entry.info, name, sizeof name, extra, sizeof extra,
                                           nullptr, 0);
        if (result != UNZ_OK) {
            return result;
        }
        entry.name.assign(name, entry.info.size_filename);
        entry.extra.assign(extra, extra + std::min<std::size_t>(entry.info.size_file_extra, 64));
        if ((result = unzOpenCurrentFile(unz)) != UNZ_OK) {
            return result;
        }
        std::vector<char> buffer(chunk);
        int got;
        while ((got = unzReadCurrentFile(unz, buffer.data(), chunk)) > 0) {
            entry.data.append(buffer.data(), static_cast<std::size_t>(got));
        }
        entry.closeResult = unzCloseCurrentFile(unz);
        if (got < 0) {
            return got;
        }
        if (entry.closeResult != UNZ_OK) {
            return entry.closeResult;
        }
        out.push_back(std::move(entry));
    }
    return step == UNZ_END_OF_LIST_OF_FILE ? UNZ_OK : step;
}

// An in-memory file for the I/O table, opened with a null name like the handle's stream.
// Optionally it serves small reads from a 4096-byte read-ahead block whose unread bytes
// are skipped by any repositioning, as the archive's read cache does: the zip layer must
// seek before every structure it reads.
struct MemoryFile {
    std::string data;
    std::uint64_t position = 0;
    bool readAhead = false;
    int truncateResult = 0; // a failing cut: the file keeps its size
    std::string block;
    std::uint64_t blockStart = 0;
    std::size_t blockUsed = 0;

    void Discard() {
        block.clear();
        blockUsed = 0;
    }
    std::uint32_t RawRead(void* buffer, std::uint32_t size) {
        const std::uint64_t available = position < data.size() ? data.size() - position : 0;
        const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, available));
        std::memcpy(buffer, data.data() + position, n);
        position += n;
        return n;
    }

    static MemoryFile& Of(void* stream) { return *static_cast<MemoryFile*>(stream); }

    zlib_filefunc_def Table() {
        zlib_filefunc_def table;
        table.opaque = this;
        table.zopen_file = [](void* opaque, const char* name, int) -> void* {
            return name == nullptr ? opaque : nullptr;
        };
        table.zread_file = [](void*, void* s, void* buffer, std::uint32_t size) {
            MemoryFile& f = Of(s);
            if (!f.readAhead || size >= 1024) {
                f.Discard();
                return f.RawRead(buffer, size);
            }
            if (f.block.size() - f.blockUsed < size) {
                f.Discard();
                f.blockStart = f.position;
                f.block.resize(4096);
                f.block.resize(f.RawRead(f.block.data(), 4096));
            }
            const auto n = static_cast<std::uint32_t>(
                std::min<std::size_t>(size, f.block.size() - f.blockUsed));
            std::memcpy(buffer, f.block.data() + f.blockUsed, n);
            f.blockUsed += n;
            return n;
        };
        table.zwrite_file = [](void*, void* s, const void* buffer, std::uint32_t size) {
            MemoryFile& f = Of(s);
            f.Discard();
            if (f.data.size() < f.position + size) {
                f.data.resize(f.position + size);
            }
            std::memcpy(f.data.data() + f.position, buffer, size);
            f.position += size;
            return size;
        };
        table.ztell_file = [](void*, void* s) -> long {
            MemoryFile& f = Of(s);
            return static_cast<long>(f.blockUsed < f.block.size() ? f.blockStart + f.blockUsed
                                                                  : f.position);
        };
        table.zseek_file = [](void*, void* s, std::uint32_t offset, int origin) -> long {
            MemoryFile& f = Of(s);
            f.Discard();
            const std::int64_t base = origin == kSeekSet ? 0
                                      : origin == kSeekCur
                                          ? static_cast<std::int64_t>(f.position)
                                          : static_cast<std::int64_t>(f.data.size());
            const std::int64_t distance = origin == kSeekSet
                                              ? std::int64_t{offset}
                                              : std::int64_t{static_cast<std::int32_t>(offset)};
            if (base + distance < 0) {
                return -1;
            }
            f.position = static_cast<std::uint64_t>(base + distance);
            return 0;
        };
        table.zclose_file = [](void*, void*) { return 0; };
        table.zerror_file = [](void*, void*) { return 0; };
        table.ztruncate_file = [](void*, void* s, std::uint32_t size) {
            MemoryFile& f = Of(s);
            f.Discard();
            if (f.truncateResult == 0) {
                f.data.resize(size);
            }
            return f.truncateResult;
        };
        return table;
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

// Every entry of an archive held in memory; the result code of opening and reading.
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
