#include "archive/read_cache.hpp"

#include "archive/archive_test_util.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <optional>

namespace {

using namespace qobtest;

// A 32-bit long (Windows) reports positions from 2 GiB up as negative values: the cache
// and the zip layer read them back as unsigned.
TEST(ReadCacheTest, TakesPositionsPastTwoGiBFromA32BitTell) {
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

} // namespace
