#include "archive/archive.hpp"
#include "archive/minizip/unzip.hpp"
#include "archive/read_cache.hpp"
#include "archive/zip_handle.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <optional>

namespace {

using namespace qobtest;

// The platform's table, counting what reaches the file.
struct CountingFile {
    zlib_filefunc_def platform = PlatformFileFunctions();
    int reads = 0;
    int seeks = 0;
    zlib_filefunc_def Table() {
        zlib_filefunc_def table = platform;
        table.opaque = this;
        table.zread_file = [](void* self, void* s, void* buffer, std::uint32_t size) {
            auto& file = *static_cast<CountingFile*>(self);
            ++file.reads;
            return file.platform.zread_file(file.platform.opaque, s, buffer, size);
        };
        table.zseek_file = [](void* self, void* s, std::uint32_t offset, int origin) {
            auto& file = *static_cast<CountingFile*>(self);
            ++file.seeks;
            return file.platform.zseek_file(file.platform.opaque, s, offset, origin);
        };
        return table;
    }
};

TEST(ZipHandleTest, ReadCacheServesSeeksInsideTheBlockAndKeepsThePosition) {
    TempDir dir;
    const std::string data = RandomBytes(200000, 1);
    WriteFile(dir / "f", data);
    CountingFile counting;
    ReadCache cache;
    cache.raw = counting.Table();
    void* stream = cache.raw.zopen_file(cache.raw.opaque, (dir / "f").string().c_str(), 7);
    ASSERT_NE(stream, nullptr);
    cache.stream = stream;
    const zlib_filefunc_def table = BufferedFileFunctions(&cache);
    ASSERT_EQ(table.zopen_file(table.opaque, nullptr, 7), stream);

    std::vector<char> out(100000);
    auto read = [&](std::uint32_t size) {
        return table.zread_file(table.opaque, stream, out.data(), size);
    };
    auto seek = [&](std::uint32_t at) {
        return table.zseek_file(table.opaque, stream, at, kSeekSet);
    };
    auto tell = [&] { return table.ztell_file(table.opaque, stream); };
    auto same = [&](std::size_t at, std::size_t size) {
        return std::string(out.data(), size) == data.substr(at, size);
    };

    // Small reads and seeks back and forth inside one block cost one read of the file.
    ASSERT_EQ(seek(1000), 0);
    ASSERT_EQ(read(10), 10u);
    const int seeksBefore = counting.seeks;
    for (const std::uint32_t at : {1000u, 60000u, 1500u, 66000u - 10}) {
        ASSERT_EQ(seek(at), 0);
        ASSERT_EQ(read(10), 10u);
        EXPECT_TRUE(same(at, 10)) << at;
        EXPECT_EQ(tell(), static_cast<long>(at + 10));
    }
    EXPECT_EQ(counting.reads, 1);
    EXPECT_EQ(counting.seeks, seeksBefore);
    // A second region takes the other block: going back and forth reads neither again, not
    // even after the stream is opened again (as when switching between reading and writing).
    ASSERT_EQ(seek(150000), 0);
    ASSERT_EQ(read(10), 10u);
    ASSERT_EQ(table.zopen_file(table.opaque, nullptr, 7), stream);
    for (const std::uint32_t at : {1000u, 150000u, 2000u, 150100u}) {
        ASSERT_EQ(seek(at), 0);
        ASSERT_EQ(read(10), 10u);
        EXPECT_TRUE(same(at, 10)) << at;
    }
    EXPECT_EQ(counting.reads, 2);

    // A read across the end of the block continues exactly where the block ended.
    ASSERT_EQ(seek(kReadCacheBlock + 1000 - 20), 0);
    ASSERT_EQ(read(50), 50u);
    EXPECT_TRUE(same(kReadCacheBlock + 1000 - 20, 50));
    // A large read takes what the block holds, then the rest straight from the file.
    ASSERT_EQ(seek(70000), 0);
    ASSERT_EQ(read(90000), 90000u);
    EXPECT_TRUE(same(70000, 90000));
    EXPECT_EQ(tell(), 160000);

    // A write lands at the position the reader sees, and reading it back sees it.
    ASSERT_EQ(seek(5000), 0);
    ASSERT_EQ(read(4), 4u);
    ASSERT_EQ(table.zwrite_file(table.opaque, stream, "WXYZ", 4), 4u);
    EXPECT_EQ(tell(), 5008);
    ASSERT_EQ(seek(5000), 0);
    ASSERT_EQ(read(8), 8u);
    EXPECT_EQ(std::string(out.data(), 8), data.substr(5000, 4) + "WXYZ");

    // A short block at the end of the file, then nothing.
    ASSERT_EQ(seek(199990), 0);
    ASSERT_EQ(read(20), 10u);
    EXPECT_TRUE(same(199990, 10));
    ASSERT_EQ(read(5), 0u);

    EXPECT_EQ(cache.raw.zclose_file(cache.raw.opaque, stream), 0);
    EXPECT_EQ(ReadFile(dir / "f").substr(5004, 4), "WXYZ");
}

// A 32-bit long (Windows) reports positions from 2 GiB up as negative values: the cache
// and the zip layer read them back as unsigned.
TEST(ZipHandleTest, ReadCacheTakesPositionsPastTwoGiBFromA32BitTell) {
    const struct {
        long tell;
        std::optional<std::uint32_t> position;
    } kTells[] = {{0, 0u},
                  {0x7FFFFFFF, 0x7FFFFFFFu},
                  {INT32_MIN, 0x80000000u},
                  {-2, 0xFFFFFFFEu},
                  {-1, std::nullopt}};
    for (const auto& row : kTells) {
        EXPECT_EQ(PositionFromTell(row.tell), row.position) << row.tell;
    }

    // A 3 GiB file of computed bytes whose tell wraps as a 32-bit long would.
    struct Virtual {
        std::uint64_t position = 0;
        static std::uint8_t At(std::uint64_t p) { return static_cast<std::uint8_t>(p * 7 + 1); }
    } file;
    ReadCache cache;
    cache.stream = &file;
    cache.raw.zread_file = [](void*, void* s, void* buffer, std::uint32_t size) {
        auto& f = *static_cast<Virtual*>(s);
        const auto n = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(size, (std::uint64_t{3} << 30) - f.position));
        for (std::uint32_t i = 0; i < n; ++i) {
            static_cast<std::uint8_t*>(buffer)[i] = Virtual::At(f.position + i);
        }
        f.position += n;
        return n;
    };
    cache.raw.ztell_file = [](void*, void* s) {
        return static_cast<long>(static_cast<std::int32_t>(static_cast<Virtual*>(s)->position));
    };
    cache.raw.zseek_file = [](void*, void* s, std::uint32_t offset, int origin) -> long {
        static_cast<Virtual*>(s)->position = offset;
        return origin == kSeekSet ? 0 : -1;
    };
    const zlib_filefunc_def table = BufferedFileFunctions(&cache);
    for (const std::uint32_t at : {0x7FFFFFF0u, 0x80000000u, 0xBFFFF000u}) {
        ASSERT_EQ(table.zseek_file(table.opaque, &file, at, kSeekSet), 0);
        for (std::uint32_t done = 0; done < 64; done += 16) { // across the 2 GiB mark, cached
            std::uint8_t bytes[16];
            ASSERT_EQ(table.zread_file(table.opaque, &file, bytes, 16), 16u) << at;
            for (std::uint32_t i = 0; i < 16; ++i) {
                ASSERT_EQ(bytes[i], Virtual::At(std::uint64_t{at} + done + i)) << at;
            }
            EXPECT_EQ(PositionFromTell(table.ztell_file(table.opaque, &file)), at + done + 16);
        }
    }
}

TEST(ZipHandleTest, OpenCreateAndSwitch) {
    TempDir dir;
    const auto path = dir / "a.zip";
    EXPECT_EQ(CodeOf([&] { Handle h(path, true); }), PACKAGE_NOT_FOUND);
    EXPECT_FALSE(std::filesystem::exists(path));
    WriteFile(path, "keep me");
    EXPECT_EQ(CodeOf([&] { Handle h(path, false); }), CANNOT_REMOVE_FILE);
    EXPECT_EQ(ReadFile(path), "keep me");
    // Not a zip: the reader opened at construction fails it, and the file is released.
    EXPECT_EQ(CodeOf([&] { Handle h(path, true); }), CANNOT_OPEN_FILE_PCK);
    std::filesystem::remove(path);

    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("one"), Bytes("1"), 1, 0);
    }
    Handle handle(path, true);
    const std::string before = ReadFile(path);
    void* zip = handle.Zip();
    EXPECT_EQ(handle.Zip(), zip);
    // The reader after the writer sees a finished directory.
    EXPECT_EQ(unzLocateFile(handle.Unzip(), "ONE"), UNZ_OK);
    handle.Flush(); // with the reader open: nothing written
    EXPECT_TRUE(ReadFile(path) == before);
}

} // namespace
