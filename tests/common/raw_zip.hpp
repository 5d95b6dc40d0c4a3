// Writes zip files byte by byte, for packages that no well-behaved writer would make: names
// that are not canonical, repeated or case-folded names, deflate bombs, central records that
// share one local record, tens of thousands of entries.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qobtest {

class RawZip {
public:
    struct Record {
        std::string name;
        std::uint16_t method;
        std::uint32_t crc, stored, full, local;
    };

    // A stored entry, or a deflated one (method 8; empty content is always stored).
    std::size_t Add(const std::string& name, const std::string& content, int method = 0) {
        if (method == 8 && !content.empty()) {
            return AddDeflatedRun(name, content.size(), content);
        }
        return AddRaw(name, content, 0, Crc(content), static_cast<std::uint32_t>(content.size()));
    }

    // A deflated entry of `size` bytes repeating `unit`, compressed without holding it whole.
    std::size_t AddDeflatedRun(const std::string& name, std::size_t size, const std::string& unit) {
        std::string block;
        while (block.size() < (1u << 20)) {
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
        return AddRaw(name, out, 8, crc, static_cast<std::uint32_t>(size));
    }

    // A central record under another name for the local record of entry `index`.
    void Alias(const std::string& name, std::size_t index) {
        Record record = records_.at(index);
        record.name = name;
        records_.push_back(record);
    }

    // Makes the central record of entry `index` claim other sizes.
    void Claim(std::size_t index, std::uint32_t stored, std::uint32_t full) {
        records_.at(index).stored = stored;
        records_.at(index).full = full;
    }

    std::string Finish() const {
        std::string bytes = data_;
        const auto start = static_cast<std::uint32_t>(bytes.size());
        for (const Record& r : records_) {
            // signature, versions, flags, method, time, CRC-32, sizes, name length, extra,
            // comment, disk, attributes, local header offset
            // clang-format off
            Put(bytes, {{0x02014b50, 4}, {20, 2}, {20, 2}, {0, 2}, {r.method, 2}, {0x58A16B2Cu, 4},
                        {r.crc, 4}, {r.stored, 4}, {r.full, 4}, {r.name.size(), 2},
                        {0, 2}, {0, 2}, {0, 2}, {0, 2}, {0, 4}, {r.local, 4}});
            // clang-format on
            bytes += r.name;
        }
        const auto size = static_cast<std::uint32_t>(bytes.size()) - start;
        // clang-format off
        Put(bytes, {{0x06054b50, 4}, {0, 4}, {records_.size(), 2}, {records_.size(), 2},
                    {size, 4}, {start, 4}, {0, 2}});
        // clang-format on
        return bytes;
    }

private:
    std::size_t AddRaw(const std::string& name, const std::string& stored, std::uint16_t method,
                       std::uint32_t crc, std::uint32_t full) {
        const auto at = static_cast<std::uint32_t>(data_.size());
        const Record record{name, method, crc, static_cast<std::uint32_t>(stored.size()), full, at};
        // clang-format off
        Put(data_, {{0x04034b50, 4}, {20, 2}, {0, 2}, {method, 2}, {0x58A16B2Cu, 4}, {crc, 4},
                    {record.stored, 4}, {full, 4}, {name.size(), 2}, {0, 2}});
        // clang-format on
        data_ += name + stored;
        records_.push_back(record);
        return records_.size() - 1;
    }

    // Little-endian fields: (value, width in bytes).
    static void Put(std::string& bytes,
                    std::initializer_list<std::pair<std::uint64_t, int>> fields) {
        for (const auto& [value, width] : fields) {
            for (int i = 0; i < width; ++i) {
                bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
            }
        }
    }

    static std::uint32_t Crc(const std::string& content) {
        return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(content.data()),
                                                static_cast<uInt>(content.size())));
    }

    std::string data_;
    std::vector<Record> records_;
};

} // namespace qobtest
