// Helpers of the archive tests: byte views and fields, the text and code of a failure, an
// independent reading of the zip structure, and the zip layer over an in-memory file.
#pragma once

#include "archive/minizip/unzip.hpp"
#include "archive/minizip/zip.hpp"
#include "archive/read_cache.hpp"
#include "support/exception.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace qobtest {

using namespace QOB::MiniZip;

inline const std::byte* Bytes(const std::string& text) {
    return reinterpret_cast<const std::byte*>(text.data());
}

inline std::string Text(const std::vector<std::byte>& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// what() of the QOB::Exception that action throws, or "no exception".
inline std::string Failure(const std::function<void()>& action) {
    try {
        action();
    } catch (const QOB::Exception& e) {
        return e.what();
    }
    return "no exception";
}

// code() of the QOB::Exception that action throws, or 0.
inline int CodeOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const QOB::Exception& e) {
        return e.code();
    }
    return 0;
}

// Little-endian fields of `width` bytes; out_of_range beyond the end.
inline std::uint32_t Le(const std::string& bytes, std::size_t at, int width = 4) {
    std::uint32_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + static_cast<unsigned>(i)));
    }
    return value;
}

struct Patch {
    std::size_t at;
    std::uint32_t value;
    int width = 4;
};

inline std::string Patched(std::string bytes, const std::vector<Patch>& patches) {
    for (const Patch& patch : patches) {
        for (int i = 0; i < patch.width; ++i) {
            bytes.at(patch.at + static_cast<unsigned>(i)) =
                static_cast<char>((patch.value >> (8 * i)) & 0xFF);
        }
    }
    return bytes;
}

struct CentralRecord {
    std::size_t at = 0; // where the record starts
    std::uint32_t dosTime = 0, crc = 0, compressed = 0, localOffset = 0;
    std::string name;
};

struct ZipImage {
    std::uint32_t directoryOffset = 0;
    std::vector<CentralRecord> records;
};

// Reads an archive without a comment; throws when the structure does not hold.
inline ZipImage InspectZip(const std::string& bytes) {
    if (bytes.size() < 22 || Le(bytes, bytes.size() - 22) != 0x06054B50) {
        throw std::runtime_error("no end record at the end of the file");
    }
    const std::size_t end = bytes.size() - 22;
    ZipImage image;
    const std::uint32_t count = Le(bytes, end + 10, 2);
    image.directoryOffset = Le(bytes, end + 16);
    if (image.directoryOffset + Le(bytes, end + 12) != end || Le(bytes, end + 8, 2) != count) {
        throw std::runtime_error("central directory does not end at the end record");
    }
    std::size_t at = image.directoryOffset;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (Le(bytes, at) != 0x02014B50) {
            throw std::runtime_error("bad central signature");
        }
        CentralRecord r{at,
                        Le(bytes, at + 12),
                        Le(bytes, at + 16),
                        Le(bytes, at + 20),
                        Le(bytes, at + 42),
                        bytes.substr(at + 46, Le(bytes, at + 28, 2))};
        at += 46 + r.name.size() + Le(bytes, at + 30, 2) + Le(bytes, at + 32, 2);
        image.records.push_back(r);
    }
    if (at != end) {
        throw std::runtime_error("central directory size does not match its records");
    }
    return image;
}

// --- The zip layer directly ---

inline constexpr std::uint32_t kDosDate = 0x58A16B2Cu; // 2024-05-01 13:25:24

struct Padded {
    std::string name;
    std::string content;
    std::uint32_t padding = 0;
};

// One entry framed as the archive frames it: content, then `padding` zeros; both extra
// fields hold the raw 4-byte content size (0 without padding).
inline int AddPadded(zipFile zip, const Padded& entry, int method = 0) {
    const std::string field =
        Patched(std::string(4, '\0'),
                {{0, entry.padding > 0 ? static_cast<std::uint32_t>(entry.content.size()) : 0u}});
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
};

// An in-memory file behind the archive's own read-ahead cache, as a real archive file is:
// the cache skips unread bytes on any repositioning, so the zip layer must seek before
// every structure it reads.
struct MemoryFile {
    std::string data;
    std::uint64_t position = 0;
    int truncateResult = 0; // non-zero: the cut fails and the file keeps its size
    ReadCache cache;

    static MemoryFile& Of(void* stream) { return *static_cast<MemoryFile*>(stream); }

    zlib_filefunc_def Table() {
        zlib_filefunc_def& t = cache.raw;
        t.opaque = this;
        t.zread_file = [](void*, void* s, void* buffer, std::uint32_t size) {
            MemoryFile& f = Of(s);
            const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(
                size, f.data.size() - std::min<std::uint64_t>(f.position, f.data.size())));
            if (n > 0) {
                std::memcpy(buffer, f.data.data() + f.position, n);
            }
            f.position += n;
            return n;
        };
        t.zwrite_file = [](void*, void* s, const void* buffer, std::uint32_t size) {
            MemoryFile& f = Of(s);
            f.data.resize(std::max<std::size_t>(f.data.size(), f.position + size));
            std::memcpy(f.data.data() + f.position, buffer, size);
            f.position += size;
            return size;
        };
        t.ztell_file = [](void*, void* s) { return static_cast<long>(Of(s).position); };
        t.zseek_file = [](void*, void* s, std::uint32_t offset, int origin) -> long {
            MemoryFile& f = Of(s); // the zip layer seeks from the start and the end only
            f.position = origin == kSeekSet ? offset : f.data.size() + std::int32_t(offset);
            return f.position <= f.data.size() ? 0 : -1;
        };
        t.zerror_file = [](void*, void*) { return 0; };
        t.ztruncate_file = [](void*, void* s, std::uint32_t size) {
            MemoryFile& f = Of(s);
            f.data.resize(f.truncateResult == 0 ? size : f.data.size());
            return f.truncateResult;
        };
        cache.stream = this;
        return BufferedFileFunctions(&cache);
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

// Every entry of an archive held in memory, in directory order, `chunk` bytes per read (the
// CRC-32 checked); the first failure's code.
inline int ReadMemory(const std::string& bytes, std::vector<ReadBack>& out, unsigned chunk = 999) {
    MemoryFile file;
    file.data = bytes;
    const zlib_filefunc_def table = file.Table();
    unzFile unz = unzOpen2(nullptr, &table);
    if (unz == nullptr) {
        return UNZ_BADZIPFILE;
    }
    out.clear();
    int step = unzGoToFirstFile(unz);
    for (; step == UNZ_OK; step = unzGoToNextFile(unz)) {
        ReadBack entry;
        unz_file_info info{};
        std::vector<char> name(1024), buffer(chunk);
        int result = unzGetCurrentFileInfo(unz, &info, name.data(), 1024, nullptr, 0, nullptr, 0);
        if (result != UNZ_OK || (result = unzOpenCurrentFile(unz)) != UNZ_OK) {
            step = result;
            break;
        }
        entry.name.assign(name.data(), std::min(info.size_filename, 1024u));
        while ((result = unzReadCurrentFile(unz, buffer.data(), chunk)) > 0) {
            entry.data.append(buffer.data(), static_cast<std::size_t>(result));
        }
        const int closed = unzCloseCurrentFile(unz);
        if (result < 0 || closed != UNZ_OK) {
            step = result < 0 ? result : closed;
            break;
        }
        out.push_back(std::move(entry));
    }
    unzClose(unz);
    return step == UNZ_END_OF_LIST_OF_FILE ? UNZ_OK : step;
}

// Opens the archive in `file` for editing, applies `edit`, closes; the edit's result.
inline int EditArchive(MemoryFile& file, const std::function<int(zipFile)>& edit) {
    const zlib_filefunc_def table = file.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, nullptr, &table);
    if (zip == nullptr) {
        return -9999;
    }
    const int result = edit(zip);
    const int closed = zipClose(zip, nullptr);
    return result != ZIP_OK ? result : closed;
}

} // namespace qobtest
