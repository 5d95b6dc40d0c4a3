// The zip layer where the archive does not show it: locating, editing results, appending,
// a failed cut, archives behind a prefix.
#include "archive/archive_test_util.hpp"
#include "archive/minizip/crc32.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>

namespace {

using namespace qobtest;

const std::vector<Padded> kEntries = {
    {"first.xml", "<one/>", 40},
    {"Middle/data.bin", RandomBytes(20000, 3), 500},
    {"last", "the last entry", 0},
};

std::string CurrentName(unzFile unz) {
    char name[512] = {};
    unzGetCurrentFileInfo(unz, nullptr, name, sizeof name, nullptr, 0, nullptr, 0);
    return name;
}

TEST(MiniZipTest, LocatesIgnoringCaseBelow256Bytes) {
    MemoryFile file;
    const zlib_filefunc_def table = file.Table();
    const std::string name255(255, 'n'), name256(256, 'm');
    file.data = Build({{"Manifest.xml", "a", 0}, {name255, "b", 0}, {name256, "c", 0}});
    unzFile unz = unzOpen2(nullptr, &table);
    ASSERT_NE(unz, nullptr);
    EXPECT_EQ(unzLocateFile(unz, "MANIFEST.XML"), UNZ_OK);
    EXPECT_EQ(CurrentName(unz), "Manifest.xml");
    EXPECT_EQ(unzLocateFile(unz, std::string(255, 'N').c_str()), UNZ_OK);
    EXPECT_EQ(unzLocateFile(unz, name256.c_str()), UNZ_PARAMERROR);
    // Not found: the current entry stays where it was.
    EXPECT_EQ(unzLocateFile(unz, "manifest.xm"), UNZ_END_OF_LIST_OF_FILE);
    EXPECT_EQ(CurrentName(unz), name255);
    // The long name is there for a walk, and comes back truncated into a small buffer.
    ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK);
    char small[8];
    unz_file_info info{};
    ASSERT_EQ(unzGetCurrentFileInfo(unz, &info, small, sizeof small, nullptr, 0, nullptr, 0),
              UNZ_OK);
    EXPECT_EQ(info.size_filename, 256u);
    EXPECT_EQ(std::string(small, sizeof small), "mmmmmmmm");
    EXPECT_EQ(unzClose(unz), UNZ_OK);
}

TEST(MiniZipTest, RefusedEditsReturnCodesAndLeaveTheFileUntouched) {
    const std::string big(20501, 'b'); // one byte more than the entry's space
    struct Case {
        const char* name;
        const std::string* content; // null: remove
        int code;
    };
    const std::string x = "x";
    const Case cases[] = {
        {"Middle/data.bin", &big, ZIP_PARAMERROR}, {"FIRST.xml", &x, ZIP_FILENOTINPACKAGE},
        {"missing", &x, ZIP_FILENOTINPACKAGE},     {nullptr, &x, ZIP_PARAMERROR},
        {"LAST", nullptr, ZIP_FILENOTINPACKAGE},
    };
    MemoryFile file;
    file.data = Build(kEntries);
    const std::string before = file.data;
    for (const Case& c : cases) {
        EXPECT_EQ(EditArchive(file,
                              [&](zipFile zip) {
                                  return c.content == nullptr
                                             ? zipRemoveFileInZip(zip, c.name)
                                             : zipReplaceFileInZip(
                                                   zip, c.name, c.content->data(),
                                                   static_cast<std::uint32_t>(c.content->size()));
                              }),
                  c.code)
            << (c.name ? c.name : "null");
    }
    EXPECT_EQ(file.data, before);

    // An entry whose local header has no 4-byte field (another tool's) is not rewritten:
    // the new header would shift the content into the next entry.
    MemoryFile foreign;
    const zlib_filefunc_def table = foreign.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_CREATE, nullptr, &table);
    ASSERT_EQ(zipOpenNewFileInZip3(zip, "plain", nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 0, 0,
                                   -15, 8, 0, nullptr, 0),
              ZIP_OK);
    ASSERT_EQ(zipWriteInFileInZip(zip, "0123456789", 10), ZIP_OK);
    ASSERT_EQ(AddPadded(zip, kEntries[0]), ZIP_OK);
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
    const std::string foreignBefore = foreign.data;
    EXPECT_EQ(
        EditArchive(foreign, [](zipFile z) { return zipReplaceFileInZip(z, "plain", "abc", 3); }),
        ZIP_PARAMERROR);
    EXPECT_EQ(foreign.data, foreignBefore);
}

// Appending takes the old directory's place and keeps the comment; entries added in the
// session move on removal too. The result is byte for byte a fresh archive of the rest.
TEST(MiniZipTest, EditsGiveTheFreshArchive) {
    MemoryFile file;
    file.data = Build(kEntries, 0, "archive comment");
    ASSERT_EQ(EditArchive(file,
                          [](zipFile zip) {
                              int result = AddPadded(zip, {"added", "new", 5});
                              return result == ZIP_OK ? zipRemoveFileInZip(zip, "first.xml")
                                                      : result;
                          }),
              ZIP_OK);
    EXPECT_EQ(file.data,
              Build({kEntries[1], kEntries[2], {"added", "new", 5}}, 0, "archive comment"));

    // Many entries of varied sizes, read in chunks below, at and above the cache's limits.
    std::vector<Padded> entries;
    for (int i = 0; i < 40; ++i) {
        entries.push_back({"dir/entry-" + std::to_string(i) + std::string(i * 7u, 'x'),
                           RandomBytes(i * 131u, static_cast<std::uint32_t>(i)),
                           static_cast<std::uint32_t>(i % 3) * 50});
    }
    file.data = Build(entries);
    const std::string gone = entries[3].name;
    ASSERT_EQ(EditArchive(file, [&](zipFile z) { return zipRemoveFileInZip(z, gone.c_str()); }),
              ZIP_OK);
    entries.erase(entries.begin() + 3);
    EXPECT_EQ(file.data, Build(entries));
    std::vector<ReadBack> read;
    for (unsigned chunk : {1u, 1023u, 5000u}) {
        ASSERT_EQ(ReadMemory(file.data, read, chunk), UNZ_OK);
        ASSERT_EQ(read.size(), entries.size());
        EXPECT_EQ(read[20].data, entries[20].content + std::string(entries[20].padding, '\0'));
    }

    // When the file cannot be cut, the directory is placed so that the archive still ends
    // exactly at the end of the file.
    file.data = Build(kEntries);
    const std::size_t size = file.data.size();
    file.truncateResult = -5;
    EXPECT_EQ(EditArchive(file, [](zipFile zip) { return zipRemoveFileInZip(zip, "first.xml"); }),
              -5);
    EXPECT_EQ(file.data.size(), size);
    ASSERT_EQ(ReadMemory(file.data, read), UNZ_OK);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[1].data, kEntries[2].content);
    file.truncateResult = 0;

    // An archive behind other bytes (a self-extractor stub, say): stored offsets count from
    // the archive's start, and the writer keeps them that way.
    file.data = std::string(1000, '#') + Build({{"a", "alpha", 3}});
    ASSERT_EQ(EditArchive(file,
                          [](zipFile zip) {
                              const int added = AddPadded(zip, {"b", "beta", 0});
                              return added == ZIP_OK ? zipReplaceFileInZip(zip, "a", "al", 2)
                                                     : added;
                          }),
              ZIP_OK);
    EXPECT_EQ(file.data, std::string(1000, '#') + Build({{"a", "al", 6}, {"b", "beta", 0}}));
    ASSERT_EQ(ReadMemory(file.data, read), UNZ_OK);
    EXPECT_EQ(read.at(1).data, "beta");
}

} // namespace

namespace {

// The fast CRC-32 and zlib's agree, in one call or in pieces at any alignment.
TEST(MiniZipTest, Crc32AgreesWithZlib) {
    const std::string bytes = qobtest::RandomBytes(300000, 11);
    const auto* data = reinterpret_cast<const Bytef*>(bytes.data());
    for (const std::size_t length : {0u, 1u, 15u, 16u, 63u, 4096u, 65537u, 299999u}) {
        for (const std::size_t offset : {0u, 1u, 7u}) {
            const std::size_t n = std::min(length, bytes.size() - offset);
            const auto expected =
                static_cast<std::uint32_t>(crc32(0, data + offset, static_cast<uInt>(n)));
            EXPECT_EQ(QOB::MiniZip::Crc32(0, data + offset, n), expected)
                << length << "@" << offset;
            const std::size_t half = n / 3;
            EXPECT_EQ(QOB::MiniZip::Crc32(QOB::MiniZip::Crc32(0, data + offset, half),
                                          data + offset + half, n - half),
                      expected);
        }
    }
}

} // namespace
