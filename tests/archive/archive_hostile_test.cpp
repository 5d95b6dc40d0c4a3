// Broken and malicious packages: every operation ends in a QOB::Exception with a negative
// code, without crashing, hanging, writing, or allocating what the file does not hold.
#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

namespace {

enum class Call { Open, List, ReadA, ReadB, ExtractB, UpdateB, RemoveA };

// A little-endian value written over the good package's bytes.
struct Patch {
    std::size_t at;
    std::uint32_t value;
    int width;
};

struct Case {
    const char* what;
    std::vector<Patch> patches;
    Call call;
    int code;
    std::string replacement = "-"; // the whole file instead, unless "-"
};

TEST(ArchiveHostileTest, BrokenPackagesFailWithNegativeCodes) {
    qobtest::TempDir dir;
    const auto path = dir / "bad.zip";
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("aaaa"), qobtest::Bytes("first entry"), 11, 5);
        archive.Insert(QOB::Path("bbbb"), qobtest::Bytes("second"), 6, 0);
    }
    const std::string good = qobtest::ReadFile(path);
    const auto records = qobtest::InspectZip(good).records;
    const std::size_t end = good.size() - 22, a = records[0].at, b = records[1].at;
    const std::size_t aLocal = records[0].localOffset, bLocal = records[1].localOffset;

    // -9: the reader or writer cannot be opened on the file at all. -10: the reader finds an
    // entry inconsistent with the file (UNZ_BADZIPFILE, or UNZ_CRCERROR after reading).
    // clang-format off
    const Case cases[] = {
        {"empty file", {}, Call::Open, -9, ""},
        {"garbage", {}, Call::Open, -9, qobtest::RandomBytes(5000, 9)},
        {"truncated in the central directory", {}, Call::Open, -9, good.substr(0, b + 10)},
        {"end record: directory offset past the end", {{end + 16, 0x7FFFFFF0, 4}}, Call::Open, -9},
        {"end record: directory size past the end", {{end + 12, 0x7FFFFFF0, 4}}, Call::Open, -9},
        {"end record: more entries than the directory holds",
         {{end + 8, 50, 2}, {end + 10, 50, 2}}, Call::Open, -9},
        {"name length running into the end record", {{b + 28, 0xFFFF, 2}}, Call::List, -10},
        {"local header past the end", {{b + 42, 0x7FFFFFF0, 4}}, Call::ReadB, -10},
        {"stored size of nearly 4 GiB", {{b + 20, 0xFFFFFF00, 4}, {b + 24, 0xFFFFFF00, 4}},
         Call::ReadB, -10},
        {"deflated entry claiming nearly 4 GiB", {{b + 10, 8, 2}, {b + 24, 0xFFFFFF00, 4}},
         Call::ReadB, -10},
        // Both records name the first local header, whose sizes and CRC-32 do not match the
        // second record: refused.
        {"two entries overlapping at one local header", {{b + 42, 0, 4}}, Call::ReadB, -10},
        // Sizes, CRC-32, content size and offset of the first record copied into the second:
        // names are not compared, so "bbbb" reads the first entry's sound bytes.
        {"two identical records overlapping at one local header",
         {{b + 16, records[0].crc, 4}, {b + 20, 16, 4}, {b + 24, 16, 4}, {b + 42, 0, 4},
          {b + 46 + 4, 11, 4}}, Call::ReadB, 0},
        // The first entry's stored size, in both headers, runs into the second local header:
        // its 5 padding bytes are followed by that header's signature.
        {"entry data overlapping the next entry",
         {{a + 20, 40, 4}, {a + 24, 40, 4}, {aLocal + 18, 40, 4}, {aLocal + 22, 40, 4}},
         Call::ReadA, -15},
        {"content byte flipped, extract", {{bLocal + 30 + 4 + 4, 0xFF, 1}}, Call::ExtractB, -10},
        // The writer checks the entry table when it opens.
        {"local header past the end, update", {{b + 42, 0x7FFFFFF0, 4}}, Call::UpdateB, -9},
        {"local header past the end, remove", {{a + 42, 0x7FFFFFF0, 4}}, Call::RemoveA, -9},
    };
    // clang-format on
    QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    for (const auto& c : cases) {
        std::string bytes = c.replacement == "-" ? good : c.replacement;
        for (const auto& patch : c.patches) {
            for (int i = 0; i < patch.width; ++i) {
                bytes.at(patch.at + static_cast<std::size_t>(i)) =
                    static_cast<char>(patch.value >> (8 * i));
            }
        }
        qobtest::WriteFile(path, bytes);
        int code = 0;
        try {
            QOB::Archive archive(path, true);
            switch (c.call) {
            case Call::Open:
                break;
            case Call::List:
                archive.List();
                break;
            case Call::ReadA:
                archive.Read(QOB::Path("aaaa"));
                break;
            case Call::ReadB:
                archive.Read(QOB::Path("bbbb"));
                break;
            case Call::ExtractB:
                archive.Extract(QOB::Path("bbbb"), dir / "out", true);
                break;
            case Call::UpdateB:
                archive.Update(QOB::Path("bbbb"), qobtest::Bytes("x"), 1);
                break;
            case Call::RemoveA:
                archive.Remove(QOB::Path("aaaa"));
                break;
            }
        } catch (const QOB::Exception& e) {
            code = e.code();
        }
        EXPECT_EQ(code, c.code) << c.what;
        EXPECT_TRUE(qobtest::ReadFile(path) == bytes) << c.what;
    }
    QOB::SetLogSink(nullptr, nullptr);
}

} // namespace
