// An independent reading of the zip bytes that the archive writes, for tests: the end
// record, every central record and the local header each one points to.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qobtest {

inline std::uint32_t Le(const std::string& bytes, std::size_t at, int width) {
    if (at + static_cast<std::size_t>(width) > bytes.size()) {
        throw std::out_of_range("zip field beyond the end");
    }
    std::uint32_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
    }
    return value;
}

struct CentralRecord {
    std::size_t at = 0; // where the record starts
    std::uint32_t madeBy = 0, needed = 0, flags = 0, method = 0, dosTime = 0, crc = 0;
    std::uint32_t compressed = 0, uncompressed = 0, commentLength = 0, disk = 0;
    std::uint32_t internalAttributes = 0, externalAttributes = 0, localOffset = 0;
    std::string name, extra;
};

struct ZipImage {
    std::uint32_t count = 0, directorySize = 0, directoryOffset = 0;
    std::vector<CentralRecord> records;
};

// Reads an archive without a comment; throws when the structure does not hold.
inline ZipImage InspectZip(const std::string& bytes) {
    if (bytes.size() < 22 || Le(bytes, bytes.size() - 22, 4) != 0x06054B50) {
        throw std::runtime_error("no end record at the end of the file");
    }
    const std::size_t end = bytes.size() - 22;
    ZipImage image;
    image.count = Le(bytes, end + 10, 2);
    image.directorySize = Le(bytes, end + 12, 4);
    image.directoryOffset = Le(bytes, end + 16, 4);
    if (image.directoryOffset + image.directorySize != end ||
        Le(bytes, end + 8, 2) != image.count) {
        throw std::runtime_error("central directory does not end at the end record");
    }
    std::size_t at = image.directoryOffset;
    for (std::uint32_t i = 0; i < image.count; ++i) {
        CentralRecord r;
        r.at = at;
        if (Le(bytes, at, 4) != 0x02014B50) {
            throw std::runtime_error("bad central signature");
        }
        r.madeBy = Le(bytes, at + 4, 2);
        r.needed = Le(bytes, at + 6, 2);
        r.flags = Le(bytes, at + 8, 2);
        r.method = Le(bytes, at + 10, 2);
        r.dosTime = Le(bytes, at + 12, 4);
        r.crc = Le(bytes, at + 16, 4);
        r.compressed = Le(bytes, at + 20, 4);
        r.uncompressed = Le(bytes, at + 24, 4);
        const std::uint32_t nameLength = Le(bytes, at + 28, 2);
        const std::uint32_t extraLength = Le(bytes, at + 30, 2);
        r.commentLength = Le(bytes, at + 32, 2);
        r.disk = Le(bytes, at + 34, 2);
        r.internalAttributes = Le(bytes, at + 36, 2);
        r.externalAttributes = Le(bytes, at + 38, 4);
        r.localOffset = Le(bytes, at + 42, 4);
        r.name = bytes.substr(at + 46, nameLength);
        r.extra = bytes.substr(at + 46 + nameLength, extraLength);
        at += 46 + nameLength + extraLength + r.commentLength;
        image.records.push_back(r);
    }
    if (at != end) {
        throw std::runtime_error("central directory size does not match its records");
    }
    return image;
}

} // namespace qobtest
