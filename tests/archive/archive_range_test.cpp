// Ranged reads, as hosts stream an entry: the bytes of any range, the entry checked whole when
// a read reaches its end (and only then), and sizes the file cannot hold refused up front.
#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/raw_zip.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace qobtest;

const QOB::Entry& Named(const std::vector<QOB::Entry>& entries, const std::string& name) {
    for (const QOB::Entry& entry : entries) {
        if (entry.path == name) {
            return entry;
        }
    }
    throw std::runtime_error("no entry " + name);
}

std::string Range(QOB::Archive& archive, const std::string& name, std::uint64_t offset,
                  std::size_t size) {
    const std::vector<QOB::Entry> entries = archive.List();
    std::string out(size, '\0');
    const std::size_t got = archive.ReadRange(Named(entries, name), offset,
                                              reinterpret_cast<std::byte*>(out.data()), size);
    out.resize(got);
    return out;
}

// The same ranges of a stored entry with reserved padding and of a deflated one from another
// writer: both give the content's bytes, never the padding's.
TEST(ArchiveRangeTest, RangesOfStoredAndDeflatedEntries) {
    TempDir dir;
    const std::string content = RandomBytes(300000, 5);
    const auto ours = dir / "ours.zip";
    {
        QOB::Archive archive(ours, false);
        archive.Insert(QOB::Path("padded.bin"), Bytes(content), content.size(), 4096);
    }
    RawZip raw;
    raw.Add("deflated.bin", content, 8);
    const auto foreign = dir / "foreign.zip";
    WriteFile(foreign, raw.Finish());

    const struct {
        std::uint64_t offset;
        std::size_t size;
        std::size_t expected;
    } ranges[] = {{0, 1, 1},       {123457, 70000, 70000}, {299990, 4096, 10},
                  {300000, 10, 0}, {400000, 10, 0},        {0, 300000, 300000}};
    for (const auto& [path, name] : {std::pair{ours, "padded.bin"}, {foreign, "deflated.bin"}}) {
        QOB::Archive archive(path, true);
        for (const auto& r : ranges) {
            EXPECT_EQ(Range(archive, name, r.offset, r.size),
                      content.substr(std::min<std::size_t>(r.offset, content.size()), r.expected))
                << name << " at " << r.offset;
        }
    }
}

// Damage is found by the read that reaches the end: a read before it returns what is stored.
TEST(ArchiveRangeTest, TheReadThatReachesTheEndChecksTheWholeEntry) {
    TempDir dir;
    const std::string content = RandomBytes(100000, 6);
    const auto path = dir / "p.zip";
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("a.bin"), Bytes(content), content.size(), 100);
    }
    const std::string good = ReadFile(path);
    const std::size_t data = InspectZip(good).records[0].localOffset + 30 + 5 + 4;
    const struct {
        const char* what;
        std::size_t at;
        const char* failure;
    } damages[] = {
        {"a content byte", data + 500, "[CANNOT_READ_FILE_PCK] minizip returned UNZ_CRCERROR"},
        {"a padding byte", data + content.size() + 7, "[INTERNAL_INCONSISTENCY] non-zero padding"},
    };
    for (const auto& damage : damages) {
        std::string bytes = good;
        bytes[damage.at] = static_cast<char>(bytes[damage.at] ^ 0x5A);
        WriteFile(path, bytes);
        QOB::Archive archive(path, true);
        EXPECT_EQ(Range(archive, "a.bin", 1000, 10), content.substr(1000, 10)) << damage.what;
        EXPECT_EQ(Failure([&] { Range(archive, "a.bin", content.size() - 10, 10); }),
                  damage.failure)
            << damage.what;
    }
}

// A directory that claims far more than the file holds is refused before any of it is read.
TEST(ArchiveRangeTest, AClaimBeyondTheFileIsRefused) {
    TempDir dir;
    RawZip raw;
    raw.Claim(raw.Add("big.bin", "tiny"), 0xFFFFFFF0u, 0xFFFFFFF0u);
    const auto path = dir / "lying.zip";
    WriteFile(path, raw.Finish());
    QOB::Archive archive(path, true);
    EXPECT_EQ(CodeOf([&] { Range(archive, "big.bin", 0, 16); }), CANNOT_READ_FILE_PCK);
    EXPECT_EQ(CodeOf([&] { Range(archive, "big.bin", 1u << 20, 16); }), CANNOT_READ_FILE_PCK);
}

} // namespace
