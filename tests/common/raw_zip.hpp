// The tests' one zip writer: writes zip files byte by byte, for archives that no well-behaved
// writer would make: names that are not canonical, repeated or in another encoding, foreign
// extra fields, deflate bombs, central records that lie about sizes or share one local
// record, stubs in front of the archive, comments that end early, zip64 locators, tens of
// thousands of entries. Used by the tests and by the seed writer of the archive fuzz target.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qobtest {

// Little-endian fields: (value, width in bytes).
inline void PutLe(std::string& bytes, std::initializer_list<std::pair<std::uint64_t, int>> fields) {
    for (const auto& [value, width] : fields) {
        for (int i = 0; i < width; ++i) {
            bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
        }
    }
}

inline std::uint32_t ZipCrc(const std::string& content) {
    return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(content.data()),
                                            static_cast<uInt>(content.size())));
}

// The raw 4-byte content size field of a padded entry, as the library writes it.
inline std::string ContentSizeField(std::uint32_t size) {
    std::string field;
    PutLe(field, {{size, 4}});
    return field;
}

// A tagged extra block: ID, data size, data.
inline std::string ExtraBlock(std::uint16_t id, const std::string& data) {
    std::string block;
    PutLe(block, {{id, 2}, {data.size(), 2}});
    return block + data;
}

// An Info-ZIP Unicode Path block (0x7075) giving utf8 for a stored name.
inline std::string UnicodePathBlock(const std::string& stored, const std::string& utf8,
                                    std::optional<std::uint32_t> crc = std::nullopt) {
    std::string data(1, '\1');
    PutLe(data, {{crc.value_or(ZipCrc(stored)), 4}});
    return ExtraBlock(0x7075, data + utf8);
}

class RawZip {
public:
    // What an entry carries beside its name and content.
    struct Options {
        std::uint16_t flags = 0;
        std::string extra;                     // central extra field, and local unless below
        std::optional<std::string> localExtra; // a different local extra field
        std::optional<std::string> localName;  // a different name in the local header
    };

    struct Record {
        std::string name;
        std::uint16_t method;
        std::uint32_t crc, stored, full, local;
        std::uint16_t flags = 0;
        std::string extra;
    };

    // A stored entry, or a deflated one (method 8; empty content is always stored).
    std::size_t Add(const std::string& name, const std::string& content, int method = 0) {
        return Add(name, content, method, Options{});
    }

    std::size_t Add(const std::string& name, const std::string& content, int method,
                    const Options& options) {
        if (method == 8 && !content.empty()) {
            return AddDeflatedRun(name, content.size(), content, options);
        }
        return AddRaw(name, content, static_cast<std::uint16_t>(method), ZipCrc(content),
                      static_cast<std::uint32_t>(content.size()), options);
    }

    // A deflated entry of `size` bytes repeating `unit`, compressed without holding it whole.
    std::size_t AddDeflatedRun(const std::string& name, std::size_t size, const std::string& unit) {
        return AddDeflatedRun(name, size, unit, Options());
    }

    std::size_t AddDeflatedRun(const std::string& name, std::size_t size, const std::string& unit,
                               const Options& options) {
        std::string block;
        while (block.size() < (1u << 20) && block.size() < size) {
            block += unit;
        }
        block.resize(block.size() - block.size() % unit.size());
        z_stream z{};
        deflateInit2(&z, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        std::string out;
        std::uint32_t crc = 0;
        std::vector<unsigned char> buffer(1 << 16);
        for (std::size_t left = size; left > 0 || z.avail_in > 0;) {
            const std::size_t round = std::min(left, block.size());
            crc = static_cast<std::uint32_t>(
                crc32(crc, reinterpret_cast<const Bytef*>(block.data()), static_cast<uInt>(round)));
            z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(block.data()));
            z.avail_in = static_cast<uInt>(round);
            left -= round;
            const int flush = left == 0 ? Z_FINISH : Z_NO_FLUSH;
            do {
                z.next_out = buffer.data();
                z.avail_out = static_cast<uInt>(buffer.size());
                deflate(&z, flush);
                out.append(reinterpret_cast<char*>(buffer.data()), buffer.size() - z.avail_out);
            } while (z.avail_out == 0);
        }
        deflateEnd(&z);
        return AddRaw(name, out, 8, crc, static_cast<std::uint32_t>(size), options);
    }

    // A central record under another name for the local record of entry `index`.
    void Alias(const std::string& name, std::size_t index) {
        Record record = records_.at(index);
        record.name = name;
        records_.push_back(record);
    }

    // Makes the central record of entry `index` claim other sizes (and its local header too).
    void Claim(std::size_t index, std::uint32_t stored, std::uint32_t full, bool local = false) {
        records_.at(index).stored = stored;
        records_.at(index).full = full;
        if (local) {
            Patch(records_[index].local + 18, stored);
            Patch(records_[index].local + 22, full);
        }
    }

    // Makes entry `index` give another CRC-32, in both headers.
    void ClaimCrc(std::size_t index, std::uint32_t crc) {
        records_.at(index).crc = crc;
        Patch(records_[index].local + 14, crc);
    }

    // Bytes in front of the archive. A stub (counted false) is not part of the archive: its
    // offsets start behind it, as a self-extractor's do. Counted bytes are, as when another
    // archive lies in front.
    void Prefix(const std::string& bytes, bool counted) {
        prefix_ = bytes;
        prefixCounted_ = counted;
    }

    // The archive comment, and the length the end record declares for it (its own length
    // unless given: a longer one runs past the end of the file).
    void Comment(const std::string& text, std::optional<std::uint16_t> declared = std::nullopt) {
        comment_ = text;
        declaredComment_ = declared;
    }

    // A zip64 end-of-directory locator in front of the end record.
    void Zip64Locator() { zip64Locator_ = true; }

    // The end record's disk numbers (this disk, the directory's disk).
    void Disks(std::uint16_t disk, std::uint16_t directoryDisk) {
        disk_ = disk;
        directoryDisk_ = directoryDisk;
    }

    const std::vector<Record>& Records() const { return records_; }

    std::string Finish() const {
        const std::uint32_t shift = prefixCounted_ ? static_cast<std::uint32_t>(prefix_.size()) : 0;
        std::string bytes = prefix_ + data_;
        const auto start = static_cast<std::uint32_t>(data_.size()) + shift;
        for (const Record& r : records_) {
            // signature, versions, flags, method, time, CRC-32, sizes, name length, extra,
            // comment, disk, attributes, local header offset
            // clang-format off
            PutLe(bytes, {{0x02014b50, 4}, {20, 2}, {20, 2}, {r.flags, 2}, {r.method, 2},
                          {0x58A16B2Cu, 4}, {r.crc, 4}, {r.stored, 4}, {r.full, 4},
                          {r.name.size(), 2}, {r.extra.size(), 2}, {0, 2}, {0, 2}, {0, 2},
                          {0, 4}, {r.local + shift, 4}});
            // clang-format on
            bytes += r.name + r.extra;
        }
        const auto size = static_cast<std::uint32_t>(bytes.size() - prefix_.size() - data_.size());
        if (zip64Locator_) {
            // signature, disk of the zip64 end record, its offset, disk count
            PutLe(bytes, {{0x07064b50, 4}, {0, 4}, {start + size, 8}, {1, 4}});
        }
        const std::uint16_t declared =
            declaredComment_.value_or(static_cast<std::uint16_t>(comment_.size()));
        // clang-format off
        PutLe(bytes, {{0x06054b50, 4}, {disk_, 2}, {directoryDisk_, 2}, {records_.size(), 2},
                      {records_.size(), 2}, {size, 4}, {start, 4}, {declared, 2}});
        // clang-format on
        return bytes + comment_;
    }

private:
    void Patch(std::size_t at, std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            data_.at(at + static_cast<std::size_t>(i)) =
                static_cast<char>((value >> (8 * i)) & 0xFF);
        }
    }

    std::size_t AddRaw(const std::string& name, const std::string& stored, std::uint16_t method,
                       std::uint32_t crc, std::uint32_t full, const Options& options) {
        const auto at = static_cast<std::uint32_t>(data_.size());
        const Record record{name, method, crc,           static_cast<std::uint32_t>(stored.size()),
                            full, at,     options.flags, options.extra};
        const std::string& localName = options.localName ? *options.localName : name;
        const std::string& localExtra = options.localExtra ? *options.localExtra : options.extra;
        // clang-format off
        PutLe(data_, {{0x04034b50, 4}, {20, 2}, {options.flags, 2}, {method, 2},
                      {0x58A16B2Cu, 4}, {crc, 4}, {record.stored, 4}, {full, 4},
                      {localName.size(), 2}, {localExtra.size(), 2}});
        // clang-format on
        data_ += localName + localExtra + stored;
        records_.push_back(record);
        return records_.size() - 1;
    }

    std::string data_;
    std::vector<Record> records_;
    std::string prefix_;
    bool prefixCounted_ = false;
    std::string comment_;
    std::optional<std::uint16_t> declaredComment_;
    bool zip64Locator_ = false;
    std::uint16_t disk_ = 0;
    std::uint16_t directoryDisk_ = 0;
};

} // namespace qobtest
