#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

namespace {

using namespace qobtest;

TEST(ArchiveTest, UpdateRewritesInPlace) {
    TempDir dir;
    const auto path = dir / "u.zip";
    const std::string tail = RandomBytes(5000, 4);
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("first"), Bytes("0123456789"), 10, 6);
        archive.Insert(QOB::Path("tail"), Bytes(tail), tail.size(), 0);
    }
    auto update = [&](const std::string& name, const std::string& content) {
        QOB::Archive archive(path, true);
        archive.Update(QOB::Path(name), Bytes(content), content.size());
    };

    // Exactly the stored size: the field becomes 0 and all of it is content.
    update("first", "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(ReadFile(path).substr(30 + 5, 4), std::string(4, '\0'));
    EXPECT_EQ(QOB::Archive(path, true).Get(QOB::Path("first")).content_size, 16u);

    // One archive that read an entry, changed it and writes the old content back, or reads
    // one that a removal then moves: what it read earlier must not pass for the file.
    {
        QOB::Archive archive(path, true);
        const std::string read = Text(archive.Read(QOB::Path("first")));
        archive.Update(QOB::Path("first"), Bytes("xyz"), 3);
        archive.Update(QOB::Path("first"), Bytes(read), read.size());
        EXPECT_EQ(Text(archive.Read(QOB::Path("first"))), read);
        EXPECT_EQ(Text(archive.Read(QOB::Path("tail"))), tail);
        archive.Remove(QOB::Path("first"));
        archive.Update(QOB::Path("tail"), Bytes(tail), tail.size());
        EXPECT_EQ(Text(archive.Read(QOB::Path("tail"))), tail);
        archive.Update(QOB::Path("tail"), Bytes("t"), 1);
    }
    QOB::Archive archive(path, true);
    EXPECT_FALSE(archive.Contains(QOB::Path("first")));
    EXPECT_EQ(Text(archive.Read(QOB::Path("tail"))), "t");
}

// Removing the first, a middle or the last entry leaves every central record pointing at a
// local header of its name, without gaps, and every entry readable (CRC-32 checked).
TEST(ArchiveTest, RemoveCompactsTheFile) {
    TempDir dir;
    std::vector<std::pair<std::string, std::string>> all;
    for (int i = 0; i < 4; ++i) {
        all.emplace_back("e" + std::to_string(i), RandomBytes(9000 * (i + 1u), 10u + i));
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
        QOB::Archive(path, true).Remove(QOB::Path(all[index].first));
        auto rest = all;
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(index));
        const std::string bytes = ReadFile(path);
        const auto image = InspectZip(bytes);
        ASSERT_EQ(image.records.size(), rest.size());
        std::size_t at = 0;
        QOB::Archive archive(path, true);
        for (std::size_t i = 0; i < rest.size(); ++i) {
            const auto& r = image.records[i];
            EXPECT_EQ(r.name, rest[i].first);
            EXPECT_EQ(r.localOffset, at);
            EXPECT_EQ(bytes.substr(at, 4), "PK\3\4");
            EXPECT_EQ(bytes.substr(at + 30, r.name.size()), r.name);
            EXPECT_TRUE(Text(archive.Read(QOB::Path(r.name))) == rest[i].second) << r.name;
            at += 30 + r.name.size() + 4 + r.compressed;
        }
        EXPECT_EQ(image.directoryOffset, at);
    }
}

} // namespace
