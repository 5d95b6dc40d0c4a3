// Helpers of the archive tests: byte views, the text of a failure, and an independent
// reading of the zip structure that the archive writes (end record and central records).
#pragma once

#include "support/exception.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qobtest {

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
    std::uint32_t dosTime = 0, crc = 0, compressed = 0, uncompressed = 0, localOffset = 0;
    std::string name;
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
        r.dosTime = Le(bytes, at + 12, 4);
        r.crc = Le(bytes, at + 16, 4);
        r.compressed = Le(bytes, at + 20, 4);
        r.uncompressed = Le(bytes, at + 24, 4);
        r.localOffset = Le(bytes, at + 42, 4);
        r.name = bytes.substr(at + 46, Le(bytes, at + 28, 2));
        at += 46 + r.name.size() + Le(bytes, at + 30, 2) + Le(bytes, at + 32, 2);
        image.records.push_back(r);
    }
    if (at != end) {
        throw std::runtime_error("central directory size does not match its records");
    }
    return image;
}

} // namespace qobtest
