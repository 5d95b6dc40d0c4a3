// Broken and malicious packages: every operation ends in a QOB::Exception with a negative
// code, without crashing, hanging, writing, or allocating what the file does not hold.
#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace qobtest;

enum class Call { Open, List, ReadA, ReadB, ExtractB, UpdateB, RemoveA };

struct Case {
    const char* what;
    std::vector<Patch> patches;
    Call call;
    int code;
    std::string replacement = "-"; // the whole file instead, unless "-"
};

TEST(ArchiveHostileTest, BrokenPackagesFailWithNegativeCodes) {
    TempDir dir;
    const auto path = dir / "bad.zip";
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("aaaa"), Bytes("first entry"), 11, 5);
        archive.Insert(QOB::Path("bbbb"), Bytes("second"), 6, 0);
    }
    const std::string good = ReadFile(path);
    const auto records = InspectZip(good).records;
    const std::size_t end = good.size() - 22, a = records[0].at, b = records[1].at;
    const std::size_t aLocal = records[0].localOffset, bLocal = records[1].localOffset;

    // -9: the reader or writer cannot be opened on the file at all. -10: the reader finds an
    // entry inconsistent with the file (UNZ_BADZIPFILE, or UNZ_CRCERROR after reading).
    // clang-format off
    const Case cases[] = {
        {"empty file", {}, Call::Open, -9, ""},
        {"garbage", {}, Call::Open, -9, RandomBytes(5000, 9)},
        {"truncated in the central directory", {}, Call::Open, -9, good.substr(0, b + 10)},
        {"end record: directory offset past the end", {{end + 16, 0x7FFFFFF0}}, Call::Open, -9},
        {"end record: directory too small for the count", {{end + 12, 30}}, Call::Open, -9},
        {"end record: one entry too many", {{end + 8, 3, 2}, {end + 10, 3, 2}}, Call::Open, -9},
        {"end record: counts disagree", {{end + 8, 1, 2}}, Call::Open, -9},
        {"name length running into the end record", {{b + 28, 0xFFFF, 2}}, Call::List, -10},
        {"local header past the end", {{b + 42, 0x7FFFFFF0}}, Call::ReadB, -10},
        {"bad local signature", {{bLocal, 0}}, Call::ReadB, -10},
        {"local sizes differ", {{bLocal + 22, 2}}, Call::ReadB, -10},
        {"local name length differs", {{bLocal + 26, 5, 2}}, Call::ReadB, -10},
        {"local extra past the end", {{bLocal + 28, 0xFFFF, 2}}, Call::ReadB, -10},
        {"encrypted", {{b + 8, 1, 2}, {bLocal + 6, 1, 2}}, Call::ReadB, -10},
        {"unknown method", {{b + 10, 12, 2}, {bLocal + 8, 12, 2}}, Call::ReadB, -10},
        {"deflated entry claiming nearly 4 GiB", {{b + 10, 8, 2}, {b + 24, 0xFFFFFF00}},
         Call::ReadB, -10},
        // Both records name the first local header, whose sizes and CRC-32 do not match the
        // second record: refused.
        {"two entries overlapping at one local header", {{b + 42, 0}}, Call::ReadB, -10},
        // Sizes, CRC-32, content size and offset of the first record copied into the second:
        // the local header names "aaaa", so "bbbb" is refused rather than shown its bytes.
        {"two identical records overlapping at one local header",
         {{b + 16, records[0].crc}, {b + 20, 16}, {b + 24, 16}, {b + 42, 0}, {b + 46 + 4, 11}},
         Call::ReadB, -10},
        // The first entry's stored size, in both headers, runs into the second local header:
        // its 5 padding bytes are followed by that header's signature.
        {"entry data overlapping the next entry",
         {{a + 20, 40}, {a + 24, 40}, {aLocal + 18, 40}, {aLocal + 22, 40}}, Call::ReadA, -15},
        {"content byte flipped, extract", {{bLocal + 30 + 4 + 4, 0xFF, 1}}, Call::ExtractB, -10},
        // The writer checks the entry table when it opens.
        {"local header past the end, update", {{b + 42, 0x7FFFFFF0}}, Call::UpdateB, -9},
        {"local header past the end, remove", {{a + 42, 0x7FFFFFF0}}, Call::RemoveA, -9},
    };
    // clang-format on
    QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    for (const auto& c : cases) {
        const std::string bytes = Patched(c.replacement == "-" ? good : c.replacement, c.patches);
        WriteFile(path, bytes);
        const int code = CodeOf([&] {
            QOB::Archive archive(path, true);
            switch (c.call) {
            case Call::Open:
                break;
            case Call::List:
                archive.List();
                break;
            case Call::ReadA:
            case Call::ReadB:
                archive.Read(QOB::Path(c.call == Call::ReadA ? "aaaa" : "bbbb"));
                break;
            case Call::ExtractB:
                archive.Extract(QOB::Path("bbbb"), dir / "out", true);
                break;
            case Call::UpdateB:
                archive.Update(QOB::Path("bbbb"), Bytes("x"), 1);
                break;
            case Call::RemoveA:
                archive.Remove(QOB::Path("aaaa"));
                break;
            }
        });
        EXPECT_EQ(code, c.code) << c.what;
        EXPECT_TRUE(ReadFile(path) == bytes) << c.what;
    }
    QOB::SetLogSink(nullptr, nullptr);
}

// A deflated entry whose sizes do not match what its stream produces or holds.
TEST(ArchiveHostileTest, DeflateStreamLyingAboutSizes) {
    const std::string good = Build({{"first", std::string(100000, 'z'), 0}}, Z_DEFLATED_METHOD);
    const std::size_t directory = Le(good, good.size() - 22 + 16);
    const std::uint32_t compressed = Le(good, 18);
    const auto claiming = [&](std::size_t field, std::uint32_t size) {
        return Patched(good, {{field, size}, {directory + 2 + field, size}});
    };
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(good, read), UNZ_OK);
    EXPECT_EQ(read.at(0).data, std::string(100000, 'z'));
    for (const std::string& bytes : {
             claiming(22, 0xFFFFFFF0u),      // refused at open
             claiming(22, 100000 + 1000),    // the stream ends early
             claiming(22, 100000 - 1000),    // the stream goes on
             claiming(18, compressed / 2)}) { // the stream runs out of input
        EXPECT_EQ(ReadMemory(bytes, read), UNZ_BADZIPFILE);
    }
}

TEST(ArchiveHostileTest, RandomDamageNeverCrashes) {
    const std::string seeds[] = {
        Build({{"first", "1111", 10}, {"second", "22", 3}, {"third", "", 0}}),
        Build({{"first", std::string(3000, 'a'), 0}, {"second", "bb", 0}}, Z_DEFLATED_METHOD),
    };
    std::mt19937 random(12345);
    for (int round = 0; round < 600; ++round) {
        std::string bytes = seeds[round % 2];
        for (int flips = 1 + static_cast<int>(random() % 4); flips > 0; --flips) {
            bytes[random() % bytes.size()] = static_cast<char>(random() & 0xFF);
        }
        if (round % 50 == 0) {
            bytes.resize(random() % bytes.size());
        }
        // Read everything, then edit; every step may fail, none may crash or hang.
        std::vector<ReadBack> read;
        ReadMemory(bytes, read, 500);
        MemoryFile file;
        file.data = bytes;
        EditArchive(file, [](zipFile zip) {
            zipRemoveFileInZip(zip, "first");
            return zipReplaceFileInZip(zip, "second", "x", 1);
        });
    }
}

} // namespace
