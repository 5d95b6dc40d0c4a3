// Writes the seed corpus of the journal fuzz target into the directory given (created if
// needed). Each seed is a u32 package length, a package "p.qob" and a journal beside it:
// a small package after a change (a manifest rewritten in place, an entry appended) with the
// journal that change wrote, encoded by the library's own journal layout, and that journal
// damaged in the ways a crash, a device or another user leaves it.
#include "archive/journal_format.hpp"
#include "common/raw_zip.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using qobtest::PutLe;
using qobtest::RawZip;
namespace JF = QOB::JournalFormat;

constexpr std::uint64_t kNonce = 0x5EED0F0A11CE5EEDull;

struct Region {
    std::uint64_t offset;
    std::uint64_t length;
    std::uint32_t batch;
};

std::string Manifest(const std::string& raw) {
    return "<Manifest><Platform>0</Platform><File><RawPath>" + raw +
           "</RawPath></File><Version>1</Version><MinorVersion>3</MinorVersion><Type>0</Type>"
           "</Manifest>";
}

// A package as the library frames it: a manifest with reserved zero padding, a raw image and,
// after the change, one more entry.
std::string Package(const std::string& manifest, int method, bool changed) {
    RawZip zip;
    RawZip::Options framed;
    framed.extra = qobtest::ContentSizeField(static_cast<std::uint32_t>(manifest.size()));
    zip.Add("manifest.xml", manifest + std::string(512 - manifest.size(), '\0'), 0, framed);
    std::string raw;
    for (int i = 0; i < 3000; ++i) {
        raw += static_cast<char>(i * 7 & 0xFF);
    }
    zip.Add("a.raw", raw, method);
    if (changed) {
        zip.Add("Settings/a.raw.xmp", "<x:xmpmeta rating=\"5\"/>", method);
    }
    return zip.Finish();
}

// The regions of before that the change overwrote, as the writer saves them: the end (the
// central directory, written first) in batch 1, the others in batch 2.
std::vector<Region> Changed(const std::string& before, const std::string& after) {
    std::vector<Region> regions;
    for (std::size_t at = 0; at < before.size();) {
        if (at < after.size() && before[at] == after[at]) {
            ++at;
            continue;
        }
        // A region ends where 16 bytes in a row are unchanged.
        std::size_t end = at;
        std::size_t same = 0;
        while (end < before.size() && same < 16) {
            same = end < after.size() && before[end] == after[end] ? same + 1 : 0;
            ++end;
        }
        end -= same;
        regions.push_back({at, end - at, 2});
        at = end;
    }
    std::reverse(regions.begin(), regions.end());
    regions.front().batch = 1;
    return regions;
}

std::string Header(const std::string& original, std::uint64_t nonce,
                   const std::string& name = "p.qob") {
    JF::Header header;
    header.original = original.size();
    header.nonce = nonce;
    const std::size_t tail = std::min<std::size_t>(original.size(), JF::kEndBytes);
    header.endCrc =
        JF::Crc(original.data() + original.size() - tail, static_cast<std::uint32_t>(tail));
    header.nameCrc = JF::NameCrc(name);
    const auto bytes = JF::EncodeHeader(header);
    return std::string(bytes.begin(), bytes.end());
}

std::string Record(const std::string& original, const Region& region, std::uint64_t nonce) {
    const auto head = JF::EncodeRecordHead({region.offset, region.length, region.batch});
    const std::string data = original.substr(region.offset, region.length);
    const std::uint32_t crc = JF::Continue(JF::RecordCrcBegin(nonce, head.data()), data.data(),
                                           static_cast<std::uint32_t>(data.size()));
    std::string bytes(head.begin(), head.end());
    bytes += data;
    PutLe(bytes, {{crc, 4}});
    return bytes;
}

std::string Records(const std::string& original, const std::vector<Region>& regions,
                    std::uint64_t nonce) {
    std::string bytes;
    for (const Region& region : regions) {
        bytes += Record(original, region, nonce);
    }
    return bytes;
}

std::string Closing(std::uint64_t length, std::uint64_t nonce = kNonce) {
    const auto bytes = JF::EncodeClosing(nonce, length, 3);
    return std::string(bytes.begin(), bytes.end());
}

std::string Flip(std::string bytes, std::size_t at) {
    bytes[at] = static_cast<char>(bytes[at] ^ 0x20);
    return bytes;
}

std::string Input(const std::string& package, const std::string& journal) {
    std::string bytes;
    PutLe(bytes, {{package.size(), 4}});
    return bytes + package + journal;
}

std::vector<std::pair<std::string, std::string>> Seeds() {
    std::vector<std::pair<std::string, std::string>> seeds;
    for (const auto& [suffix, method] : {std::pair<std::string, int>{"", 0}, {"_deflated", 8}}) {
        const std::string before = Package(Manifest("a.raw"), method, false);
        const std::string after = Package(Manifest("b.raw"), method, true);
        const auto regions = Changed(before, after);
        const std::string header = Header(before, kNonce);
        const std::string records = Records(before, regions, kNonce);
        const std::string first = Record(before, regions.front(), kNonce);
        const std::size_t lastAt =
            header.size() + records.size() - Record(before, regions.back(), kNonce).size();
        const auto add = [&](const std::string& name, const std::string& package,
                             const std::string& journal) {
            seeds.emplace_back(name + suffix, Input(package, journal));
        };
        add("rollback", after, header + records);
        add("header_only", before, header);
        add("committed", after, header + records + Closing(after.size()));
        add("committed_cut", after + std::string(300, 'z'),
            header + records + Closing(after.size()));
        add("closing_beyond", after, header + records + Closing(after.size() + 1));
        add("flipped_first_data", after,
            header + Flip(records, JF::kRecordHeaderSize + regions.front().length / 2));
        add("flipped_first_length", after, header + Flip(records, 12));
        add("flipped_first_crc", after, header + Flip(records, first.size() - 2));
        add("flipped_last_data", after, Flip(header + records, lastAt + JF::kRecordHeaderSize));
        add("torn_last", after, (header + records).substr(0, lastAt + JF::kRecordHeaderSize + 3));
        add("other_nonce", after, header + Records(before, regions, kNonce + 1));
        add("earlier_journal_behind", after,
            header + first + Records(before, regions, kNonce ^ 0xFFFF) +
                Closing(1, kNonce ^ 0xFFFF));
        add("another_package", after, Header(before, kNonce, "q.qob") + records);
        add("another_end", after, Header(before + "x", kNonce) + records);
        add("original_beyond", before.substr(0, before.size() - 1), header);
        add("overlap", after,
            header + records +
                Record(before, {regions.back().offset, regions.back().length + 1, 2}, kNonce));
        add("outside", after, header + Record(before + "tail", {before.size(), 4, 1}, kNonce));
        add("flipped_header", after, Flip(header, 20) + records);
        std::string older = header;
        older[8] = 1;
        add("version_1", after, older + records);
        add("not_a_journal", after, "PK\3\4 is a zip, not a journal");
        add("empty_journal", before, "");
    }
    return seeds;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: journal_seeds <directory>\n";
        return 2;
    }
    const std::filesystem::path directory(argv[1]);
    std::filesystem::create_directories(directory);
    for (const auto& [name, bytes] : Seeds()) {
        std::ofstream out(directory / name, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            std::cerr << "cannot write " << (directory / name).string() << "\n";
            return 1;
        }
    }
    return 0;
}
