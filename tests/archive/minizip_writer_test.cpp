// The zip writer: stored entries with padding and the raw content-size field, the exact
// header bytes, appending to an existing archive, deflated entries.
#include "archive/minizip_support.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

using namespace minizip_test;
using qobtest::RandomBytes;

std::uint32_t Crc(const std::string& bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

const std::vector<Padded> kEntries = {
    {"manifest.xml", "<Manifest/>", 100},
    {"Images/raw.bin", RandomBytes(70000, 1), 0},
    {"empty", "", 16},
};

// Through the platform's files: the same bytes as in memory, and everything reads back.
TEST(MiniZipWriter, PaddedEntriesReadBackThroughFiles) {
    qobtest::TempDir dir;
    const std::string path = (dir / "a.zip").string();
    const zlib_filefunc_def table = PlatformFileFunctions();
    zipFile zip = zipOpen2(path.c_str(), APPEND_STATUS_CREATE, nullptr, &table);
    ASSERT_NE(zip, nullptr);
    for (const Padded& entry : kEntries) {
        ASSERT_EQ(AddPadded(zip, entry), ZIP_OK);
    }
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
    EXPECT_EQ(qobtest::ReadFile(path), Build(kEntries));

    unzFile unz = unzOpen2(path.c_str(), &table);
    ASSERT_NE(unz, nullptr);
    unz_global_info global{};
    ASSERT_EQ(unzGetGlobalInfo(unz, &global), UNZ_OK);
    EXPECT_EQ(global.number_entry, 3u);
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadAll(unz, read, 1000), UNZ_OK); // every CRC checked at close
    ASSERT_EQ(unzClose(unz), UNZ_OK);
    ASSERT_EQ(read.size(), kEntries.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        const Padded& entry = kEntries[i];
        EXPECT_EQ(read[i].name, entry.name);
        EXPECT_EQ(read[i].data, entry.content + std::string(entry.padding, '\0'));
        EXPECT_EQ(read[i].info.tmu_date.tm_year, 2024u);
        EXPECT_EQ(read[i].info.tmu_date.tm_mon, 4u);
        EXPECT_EQ(read[i].info.tmu_date.tm_sec, 24u);
        ASSERT_EQ(read[i].extra.size(), 4u);
        EXPECT_EQ(Le(read[i].extra, 0), entry.padding > 0 ? entry.content.size() : 0u);
    }
}

TEST(MiniZipWriter, HeaderBytesAreExact) {
    const std::string zip = Build(kEntries);
    ASSERT_FALSE(zip.empty());
    std::size_t local = 0;
    std::vector<std::size_t> locals;
    for (const Padded& entry : kEntries) {
        const std::string stored = entry.content + std::string(entry.padding, '\0');
        const std::uint32_t n = static_cast<std::uint32_t>(entry.name.size());
        locals.push_back(local);
        EXPECT_EQ(Le(zip, local), 0x04034b50u);
        EXPECT_EQ(Le(zip, local + 4, 2), 20u);       // version needed
        EXPECT_EQ(Le(zip, local + 6, 2), 0u);        // flags: no descriptor
        EXPECT_EQ(Le(zip, local + 8, 2), 0u);        // stored
        EXPECT_EQ(Le(zip, local + 10), kDosDate);    // time, then date
        EXPECT_EQ(Le(zip, local + 14), Crc(stored)); // patched at close
        EXPECT_EQ(Le(zip, local + 18), stored.size());
        EXPECT_EQ(Le(zip, local + 22), stored.size());
        EXPECT_EQ(Le(zip, local + 26, 2), n);
        EXPECT_EQ(Le(zip, local + 28, 2), 4u);
        EXPECT_EQ(zip.substr(local + 30, n), entry.name);
        EXPECT_EQ(Le(zip, local + 30 + n), entry.padding > 0 ? entry.content.size() : 0u);
        EXPECT_EQ(zip.substr(local + 34 + n, stored.size()), stored);
        local += 34 + n + stored.size();
    }

    const std::size_t end = zip.size() - 22;
    EXPECT_EQ(Le(zip, end), 0x06054b50u);
    EXPECT_EQ(Le(zip, end + 4), 0u); // both disk numbers
    EXPECT_EQ(Le(zip, end + 8, 2), 3u);
    EXPECT_EQ(Le(zip, end + 10, 2), 3u);
    EXPECT_EQ(Le(zip, end + 16), local); // the directory follows the data
    EXPECT_EQ(Le(zip, end + 12), end - local);
    EXPECT_EQ(Le(zip, end + 20, 2), 0u);

    std::size_t central = local;
    for (std::size_t i = 0; i < kEntries.size(); ++i) {
        const Padded& entry = kEntries[i];
        const std::uint32_t n = static_cast<std::uint32_t>(entry.name.size());
        EXPECT_EQ(Le(zip, central), 0x02014b50u);
        EXPECT_EQ(Le(zip, central + 4, 2), 0u);  // made by
        EXPECT_EQ(Le(zip, central + 6, 2), 20u); // needed
        // flags, method, time, CRC and sizes repeat the local header
        EXPECT_EQ(zip.substr(central + 8, 20), zip.substr(locals[i] + 6, 20));
        EXPECT_EQ(Le(zip, central + 28, 2), n);
        EXPECT_EQ(Le(zip, central + 30, 2), 4u);
        EXPECT_EQ(zip.substr(central + 32, 10), std::string(10, '\0')); // comment..attributes
        EXPECT_EQ(Le(zip, central + 42), locals[i]);
        EXPECT_EQ(zip.substr(central + 46, n + 4), zip.substr(locals[i] + 30, n + 4));
        central += 46 + n + 4;
    }
    EXPECT_EQ(central, end);
}

TEST(MiniZipWriter, AppendingKeepsEntriesAndComment) {
    MemoryFile file;
    const zlib_filefunc_def table = file.Table();
    file.data = Build({kEntries[0], kEntries[2]}, 0, "archive comment");

    const char* comment = nullptr;
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, &comment, &table);
    ASSERT_NE(zip, nullptr);
    ASSERT_NE(comment, nullptr);
    EXPECT_STREQ(comment, "archive comment");
    ASSERT_EQ(AddPadded(zip, {"added.txt", "more", 8}), ZIP_OK);
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);

    // The new entry took the place of the old directory; the comment survived.
    EXPECT_EQ(file.data,
              Build({kEntries[0], kEntries[2], {"added.txt", "more", 8}}, 0, "archive comment"));
}

TEST(MiniZipWriter, DeflatedEntriesRoundTrip) {
    const std::vector<Padded> entries = {
        {"noise", RandomBytes(50000, 7), 0},
        {"text", std::string(200000, 'q') + "tail", 0},
        {"nothing", "", 0},
    };
    const std::string zip = Build(entries, Z_DEFLATED_METHOD);
    ASSERT_FALSE(zip.empty());
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(zip, read, true, 777), UNZ_OK);
    ASSERT_EQ(read.size(), entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(read[i].data, entries[i].content);
        EXPECT_EQ(read[i].info.compression_method, 8u);
        EXPECT_EQ(read[i].info.flag, 2u); // level 9
    }
    EXPECT_LT(read[1].info.compressed_size, 1000u);
}

// Small reads are served from a read-ahead block whose unread part any repositioning
// skips; the reader and the writer must position before everything they read.
TEST(MiniZipWriter, WorksOverSkippingReadAhead) {
    std::vector<Padded> entries;
    for (int i = 0; i < 40; ++i) {
        entries.push_back(
            {"dir/entry-" + std::to_string(i) + std::string(static_cast<std::size_t>(i * 7), 'x'),
             RandomBytes(static_cast<std::size_t>(i * 131), static_cast<std::uint32_t>(i)),
             static_cast<std::uint32_t>(i % 3) * 50});
    }
    MemoryFile file;
    file.readAhead = true;
    const zlib_filefunc_def table = file.Table();
    file.data = Build(entries);
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, nullptr, &table);
    ASSERT_NE(zip, nullptr);
    ASSERT_EQ(zipRemoveFileInZip(zip, entries[3].name.c_str()), ZIP_OK);
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
    entries.erase(entries.begin() + 3);
    EXPECT_EQ(file.data, Build(entries));

    for (unsigned chunk : {1u, 100u, 1023u, 5000u}) {
        std::vector<ReadBack> read;
        ASSERT_EQ(ReadMemory(file.data, read, true, chunk), UNZ_OK);
        ASSERT_EQ(read.size(), entries.size());
        for (std::size_t i = 0; i < read.size(); ++i) {
            EXPECT_EQ(read[i].name, entries[i].name);
            EXPECT_EQ(read[i].data, entries[i].content + std::string(entries[i].padding, '\0'));
        }
    }
}

TEST(MiniZipWriter, PythonReadsOurArchives) {
#if defined(_WIN32)
    GTEST_SKIP() << "no host Python under Wine";
#endif
    if (qobtest::Python().empty()) {
        GTEST_SKIP() << "Python not found";
    }
    qobtest::TempDir dir;
    qobtest::WriteFile(dir / "ours.zip", Build(kEntries));
    qobtest::WriteFile(dir / "check.py",
                       "import sys, zipfile\n"
                       "z = zipfile.ZipFile(sys.argv[1])\n"
                       "assert z.testzip() is None\n"
                       "assert z.namelist() == ['manifest.xml', 'Images/raw.bin', 'empty']\n"
                       "assert z.read('manifest.xml') == b'<Manifest/>' + bytes(100)\n");
    EXPECT_EQ(qobtest::Run(qobtest::Python() + " " + (dir / "check.py").string() + " " +
                           (dir / "ours.zip").string()),
              0);
}

} // namespace
