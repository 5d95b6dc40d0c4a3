// Editing an existing archive through the writer's entry table: in-place replacement and
// removal with compaction. An edited archive must be byte for byte the archive that
// writing the resulting entries afresh gives.
#include "archive/minizip_support.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

namespace {

using namespace minizip_test;

const std::vector<Padded> kEntries = {
    {"first.xml", "<one/>", 40},
    {"Middle/data.bin", qobtest::RandomBytes(20000, 3), 500},
    {"last", "the last entry", 0},
};

// Opens the archive in `file` for editing, applies `edit`, closes; the edit's result.
template <typename Edit> int EditArchive(MemoryFile& file, Edit edit) {
    const zlib_filefunc_def table = file.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, nullptr, &table);
    if (zip == nullptr) {
        return -9999;
    }
    const int result = edit(zip);
    const int closed = zipClose(zip, nullptr);
    return result != ZIP_OK ? result : closed;
}

TEST(MiniZipReplace, RewritesInPlace) {
    const auto replace = [](const std::string& content) {
        return [content](zipFile zip) {
            return zipReplaceFileInZip(zip, "Middle/data.bin", content.data(),
                                       static_cast<std::uint32_t>(content.size()));
        };
    };
    const std::uint32_t allocated = 20500;

    // Shorter content: same place and sizes, new CRC over content and zero tail.
    MemoryFile file;
    file.data = Build(kEntries);
    ASSERT_EQ(EditArchive(file, replace("short")), ZIP_OK);
    std::vector<Padded> expected = kEntries;
    expected[1] = {"Middle/data.bin", "short", allocated - 5};
    EXPECT_EQ(file.data, Build(expected));
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(file.data, read), UNZ_OK); // verifies every CRC

    // Content filling the space exactly: the size field becomes 0.
    const std::string full = qobtest::RandomBytes(allocated, 9);
    ASSERT_EQ(EditArchive(file, replace(full)), ZIP_OK);
    expected[1] = {"Middle/data.bin", full, 0};
    EXPECT_EQ(file.data, Build(expected));

    // Empty content in an entry without padding of its own.
    ASSERT_EQ(
        EditArchive(file, [](zipFile zip) { return zipReplaceFileInZip(zip, "last", nullptr, 0); }),
        ZIP_OK);
    expected[2] = {"last", "", 14};
    EXPECT_EQ(file.data, Build(expected));
}

TEST(MiniZipReplace, RefusalsLeaveTheFileUntouched) {
    MemoryFile file;
    file.data = Build(kEntries);
    const std::string before = file.data;
    const std::string big(20501, 'b');
    EXPECT_EQ(EditArchive(file,
                          [&](zipFile zip) {
                              return zipReplaceFileInZip(zip, "Middle/data.bin", big.data(),
                                                         static_cast<std::uint32_t>(big.size()));
                          }),
              ZIP_PARAMERROR);
    // Names are compared exactly, case included.
    EXPECT_EQ(EditArchive(
                  file, [](zipFile zip) { return zipReplaceFileInZip(zip, "FIRST.xml", "x", 1); }),
              ZIP_FILENOTINPACKAGE);
    EXPECT_EQ(
        EditArchive(file, [](zipFile zip) { return zipReplaceFileInZip(zip, "missing", "x", 1); }),
        ZIP_FILENOTINPACKAGE);
    EXPECT_EQ(
        EditArchive(file, [](zipFile zip) { return zipReplaceFileInZip(zip, nullptr, "x", 1); }),
        ZIP_PARAMERROR);
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

TEST(MiniZipRemove, CompactsTheFile) {
    for (std::size_t removed = 0; removed < kEntries.size(); ++removed) {
        SCOPED_TRACE(kEntries[removed].name);
        MemoryFile file;
        file.data = Build(kEntries);
        ASSERT_EQ(EditArchive(file,
                              [&](zipFile zip) {
                                  return zipRemoveFileInZip(zip, kEntries[removed].name.c_str());
                              }),
                  ZIP_OK);
        std::vector<Padded> expected = kEntries;
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(removed));
        EXPECT_EQ(file.data, Build(expected)); // offsets, directory and size as if fresh
    }

    // Entries added in the same session move too; unknown names change nothing.
    MemoryFile file;
    file.data = Build(kEntries);
    ASSERT_EQ(EditArchive(file,
                          [](zipFile zip) {
                              int result = AddPadded(zip, {"added", "new", 5});
                              if (result == ZIP_OK) {
                                  result = zipRemoveFileInZip(zip, "first.xml");
                              }
                              return result;
                          }),
              ZIP_OK);
    const std::vector<Padded> expected = {kEntries[1], kEntries[2], {"added", "new", 5}};
    EXPECT_EQ(file.data, Build(expected));
    EXPECT_EQ(EditArchive(file, [](zipFile zip) { return zipRemoveFileInZip(zip, "LAST"); }),
              ZIP_FILENOTINPACKAGE);
    EXPECT_EQ(file.data, Build(expected));
}

// When the file cannot be cut, the directory is placed so that the archive still ends
// exactly at the end of the file.
TEST(MiniZipRemove, FailedCutStillLeavesAValidArchive) {
    MemoryFile file;
    file.data = Build(kEntries);
    const std::size_t size = file.data.size();
    file.truncateResult = -5;
    EXPECT_EQ(EditArchive(file, [](zipFile zip) { return zipRemoveFileInZip(zip, "first.xml"); }),
              -5);
    EXPECT_EQ(file.data.size(), size);
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(file.data, read), UNZ_OK);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].name, kEntries[1].name);
    EXPECT_EQ(read[1].data, kEntries[2].content);
}

} // namespace
