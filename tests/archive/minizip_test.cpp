// The zip layer where the archive does not show it: a foreign header, a failed cut, the CRC-32.
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

// Edits that cannot be made safely, or whose cut fails, still leave a whole archive.
TEST(MiniZipTest, EditsKeepTheArchiveWhole) {
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

    MemoryFile file;
    std::vector<ReadBack> read;
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
}

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
