#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

using qobtest::Bytes;
using qobtest::Failure;
using qobtest::Text;

TEST(ArchiveTest, InsertListGetReadAndContains) {
    qobtest::TempDir dir;
    const auto path = dir / "a.zip";
    const std::string big = qobtest::RandomBytes(200000, 3);
    qobtest::WriteFile(dir / "src.bin", big);
    qobtest::WriteFile(dir / "empty", "");
    qobtest::LogCapture log(&QOB::SetLogSink);
    QOB::Archive archive(path, false);
    const std::string name = path.string();
    EXPECT_EQ(log.lines.at(0).text, "[QOB][DEBUG] Archive::[\"" + name + "\"] creating");
    archive.Insert(QOB::Path("Settings/a.xml"), Bytes("<a/>"), 4, 16);
    archive.Insert(QOB::Path("raw/src.bin"), dir / "src.bin", 10);
    archive.Insert(QOB::Path("empty"), dir / "empty", 0);
    EXPECT_EQ(log.Count("[QOB][TRACE] Archive::[\"" + name + "\"]::Flush"), 3u);

    const auto entries = archive.List();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].path, "Settings/a.xml");
    EXPECT_EQ(entries[1].content_size, big.size());
    EXPECT_EQ(entries[1].allocated_size, big.size() + 10);
    EXPECT_EQ(entries[2].allocated_size, 0u);
    EXPECT_TRUE(Text(archive.Read(QOB::Path("raw/src.bin"))) == big);
    EXPECT_TRUE(archive.Read(QOB::Path("empty")).empty());

    EXPECT_TRUE(archive.Contains(QOB::Path("SETTINGS/A.XML")));
    EXPECT_FALSE(archive.Contains(QOB::Path("Settings/b.xml")));
    EXPECT_EQ(archive.Get(QOB::Path("settings/a.XML")).content_size, 4u);
    EXPECT_EQ(Failure([&] { archive.Get(QOB::Path("nope")); }),
              "[FILE_NOT_IN_PACKAGE] minizip returned UNZ_END_OF_LIST_OF_FILE");

    std::string buffer = "....#";
    auto* into = reinterpret_cast<std::byte*>(buffer.data());
    archive.Read(QOB::Path("Settings/a.xml"), into, 4);
    EXPECT_EQ(buffer, "<a/>#");
    EXPECT_EQ(Failure([&] { archive.Read(QOB::Path("Settings/a.xml"), into, 3); }),
              "[INTERNAL_INCONSISTENCY] buffer too small: src=4 dst=3");

    EXPECT_THROW(archive.Insert(QOB::Path("m"), dir / "missing", 0),
                 std::filesystem::filesystem_error);
#ifndef _WIN32
    // procfs reports size 0 for a file with content: it "grew" after the size query.
    EXPECT_EQ(Failure([&] { archive.Insert(QOB::Path("p"), "/proc/self/status", 0); }),
              "[INTERNAL_INCONSISTENCY] file larger than expected");
    // sysfs reports 4096 bytes for a few bytes of content: it "shrank".
    const char* shrinking = "/sys/kernel/mm/transparent_hugepage/enabled";
    if (std::filesystem::exists(shrinking) && std::filesystem::file_size(shrinking) == 4096) {
        EXPECT_EQ(Failure([&] { archive.Insert(QOB::Path("s"), shrinking, 0); }),
                  "[INTERNAL_INCONSISTENCY] read error");
    }
#endif
}

TEST(ArchiveTest, UpdateRewritesInPlace) {
    qobtest::TempDir dir;
    const auto path = dir / "u.zip";
    const std::string tail = qobtest::RandomBytes(5000, 4);
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("first"), Bytes("0123456789"), 10, 6);
        archive.Insert(QOB::Path("tail"), Bytes(tail), tail.size(), 0);
    }
    const std::string before = qobtest::ReadFile(path);
    const auto old = qobtest::InspectZip(before).records;
    auto update = [&](const std::string& name, const std::string& content) {
        QOB::Archive archive(path, true);
        archive.Update(QOB::Path(name), Bytes(content), content.size());
    };

    update("first", "abc");
    std::string after = qobtest::ReadFile(path);
    auto now = qobtest::InspectZip(after).records;
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(now[0].localOffset, old[0].localOffset);
    EXPECT_EQ(now[0].dosTime, old[0].dosTime);
    EXPECT_EQ(now[0].uncompressed, 16u);
    const std::string stored = "abc" + std::string(13, '\0');
    EXPECT_EQ(now[0].crc, crc32(0, reinterpret_cast<const Bytef*>(stored.data()), 16));
    EXPECT_EQ(after.substr(30 + 5, 4 + 16), std::string("\3\0\0\0", 4) + stored);
    const std::size_t tailRecord = 30 + 4 + 4 + tail.size();
    EXPECT_TRUE(
        after.compare(now[1].localOffset, tailRecord, before, old[1].localOffset, tailRecord) == 0);
    {
        QOB::Archive archive(path, true);
        const QOB::Entry entry = archive.Get(QOB::Path("first"));
        EXPECT_EQ(entry.content_size, 3u);
        EXPECT_EQ(entry.data_offset, 39u);
        EXPECT_EQ(Text(archive.Read(QOB::Path("first"))), "abc");
    }

    // Exactly the stored size: the field becomes 0 and all of it is content.
    update("first", "ABCDEFGHIJKLMNOP");
    after = qobtest::ReadFile(path);
    EXPECT_EQ(after.substr(30 + 5, 4), std::string(4, '\0'));
    {
        QOB::Archive archive(path, true);
        EXPECT_EQ(archive.Get(QOB::Path("first")).content_size, 16u);
    }

    // One byte more, a name in another case, a name not there: refused, file untouched.
    const std::string unchanged = qobtest::ReadFile(path);
    EXPECT_EQ(Failure([&] { update("first", std::string(17, 'x')); }),
              "[INVALID_PARAMETER] minizip returned ZIP_PARAMERROR");
    EXPECT_EQ(Failure([&] { update("FIRST", "x"); }),
              "[FILE_NOT_IN_PACKAGE] minizip returned ZIP_FILENOTINPACKAGE");
    EXPECT_EQ(Failure([&] {
                  QOB::Archive archive(path, true);
                  archive.Remove(QOB::Path("Tail"));
              }),
              "[FILE_NOT_IN_PACKAGE] minizip returned ZIP_FILENOTINPACKAGE");
    EXPECT_TRUE(qobtest::ReadFile(path) == unchanged);
}

// Every central record points at a local header of the same name, the records follow
// each other without gaps, and every entry reads back (CRC-32 checked).
void ExpectCompact(const std::filesystem::path& path,
                   const std::vector<std::pair<std::string, std::string>>& expected) {
    const std::string bytes = qobtest::ReadFile(path);
    const auto image = qobtest::InspectZip(bytes);
    ASSERT_EQ(image.records.size(), expected.size());
    std::size_t at = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto& r = image.records[i];
        EXPECT_EQ(r.name, expected[i].first);
        EXPECT_EQ(r.localOffset, at);
        EXPECT_EQ(qobtest::Le(bytes, at, 4), 0x04034B50u);
        EXPECT_EQ(bytes.substr(at + 30, r.name.size()), r.name);
        at += 30 + r.name.size() + 4 + r.compressed;
    }
    EXPECT_EQ(image.directoryOffset, at);
    QOB::Archive archive(path, true);
    for (const auto& [name, content] : expected) {
        EXPECT_TRUE(Text(archive.Read(QOB::Path(name))) == content) << name;
    }
}

TEST(ArchiveTest, RemoveCompactsTheFile) {
    qobtest::TempDir dir;
    std::vector<std::pair<std::string, std::string>> all;
    for (int i = 0; i < 4; ++i) {
        // Larger than the 16 KiB move buffer, so entries move in several rounds.
        all.emplace_back("e" + std::to_string(i),
                         qobtest::RandomBytes(static_cast<std::size_t>(9000 * (i + 1)), 10u + i));
    }
    const auto original = dir / "all.zip";
    {
        QOB::Archive archive(original, false);
        for (const auto& [name, content] : all) {
            archive.Insert(QOB::Path(name), Bytes(content), content.size(), 100);
        }
    }
    for (const std::size_t index : {0u, 2u, 3u}) {
        SCOPED_TRACE(index);
        const auto path = dir / ("r" + std::to_string(index) + ".zip");
        std::filesystem::copy_file(original, path);
        {
            QOB::Archive archive(path, true);
            archive.Remove(QOB::Path(all[index].first));
            EXPECT_FALSE(archive.Contains(QOB::Path(all[index].first)));
        }
        auto rest = all;
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(index));
        ExpectCompact(path, rest);
    }
    // Removing the last entry only cuts the file: what stays keeps its bytes.
    const std::string whole = qobtest::ReadFile(original);
    const std::string cut = qobtest::ReadFile(dir / "r3.zip");
    const auto offset = qobtest::InspectZip(whole).records[3].localOffset;
    EXPECT_TRUE(cut.compare(0, offset, whole, 0, offset) == 0);
}

TEST(ArchiveTest, ExtractCreatesDirectoriesAndOverwrites) {
    qobtest::TempDir dir;
    const auto path = dir / "x.zip";
    const std::string content = qobtest::RandomBytes(150000, 5);
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("pic.raw"), Bytes(content), content.size(), 1000);
    }
    QOB::Archive archive(path, true);
    const auto target = dir / "out" / "deep" / "pic.raw";
    qobtest::LogCapture log(&QOB::SetLogSink);
    archive.Extract(QOB::Path("pic.raw"), target, true);
    EXPECT_TRUE(qobtest::ReadFile(target) == content);
    EXPECT_EQ(log.Count("[QOB][INFO ] Archive::Extract: created directory \"" +
                        (dir / "out" / "deep").string() + "\""),
              1u);
    qobtest::WriteFile(target, std::string(200000, 'z'));
    log.Clear();
    archive.Extract(QOB::Path("PIC.RAW"), target, true);
    EXPECT_TRUE(qobtest::ReadFile(target) == content);
    EXPECT_EQ(log.Count("[QOB][WARN ] Archive::Extract: overwriting \"" + target.string() + "\""),
              1u);
    EXPECT_EQ(log.Count("[QOB][INFO ]"), 0u);
}

TEST(ArchiveTest, RemovingTheLastEntryLeavesAnEmptyZip) {
    qobtest::TempDir dir;
    const auto path = dir / "one.zip";
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("only.txt"), Bytes("x"), 1, 8);
        archive.Remove(QOB::Path("only.txt"));
        EXPECT_TRUE(archive.List().empty());
        EXPECT_FALSE(archive.Contains(QOB::Path("only.txt")));
    }
    EXPECT_EQ(std::filesystem::file_size(path), 22u); // the end record alone
    QOB::Archive reopened(path, true);
    EXPECT_TRUE(reopened.List().empty());
    EXPECT_EQ(QOB_IsQob(path.string().c_str()), FILE_NOT_IN_PACKAGE);
}

} // namespace
