// What hosts read through the extension interface and that no export test pins down alone:
// DOS words as UTC seconds, and progress reports across nested operations.
#include "platform/platform.hpp"
#include "support/dos_time.hpp"
#include "support/progress.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace QOB {
namespace {

struct DosCase {
    unsigned year, month, day, hour, minute, second;
};

// Read back in local time, the seconds give the very fields the word holds: whatever the
// zone and its daylight saving rules, the conversion is the inverse of the one that wrote it.
TEST(DosTime, UnixSecondsAreTheLocalFieldsOfTheWord) {
    const DosCase cases[] = {
        {1980, 1, 1, 0, 0, 0},     {2024, 1, 15, 10, 20, 30},  {2024, 7, 1, 12, 0, 0},
        {2024, 2, 29, 23, 59, 58}, {2099, 12, 31, 23, 59, 58},
    };
    for (const DosCase& c : cases) {
        const std::uint32_t word =
            PackDosTime(c.year, c.month - 1, c.day, c.hour, c.minute, c.second);
        const std::tm local = Platform::LocalTime(DosTimeToUnix(word));
        EXPECT_EQ(local.tm_year + 1900, static_cast<int>(c.year)) << word;
        EXPECT_EQ(local.tm_mon + 1, static_cast<int>(c.month)) << word;
        EXPECT_EQ(local.tm_mday, static_cast<int>(c.day)) << word;
        EXPECT_EQ(local.tm_hour, static_cast<int>(c.hour)) << word;
        EXPECT_EQ(local.tm_min, static_cast<int>(c.minute)) << word;
        EXPECT_EQ(local.tm_sec, static_cast<int>(c.second)) << word;
    }
}

// A word that names no date is 0, not a date the C library makes up by carrying fields over.
TEST(DosTime, InvalidWordsAreZero) {
    const std::uint32_t valid = PackDosTime(2024, 5, 10, 8, 30, 0);
    const std::uint32_t words[] = {
        0,                                      // empty: month and day 0
        (valid & ~(0xFu << 21)),                // month 0
        (valid & ~(0xFu << 21)) | (13u << 21),  // month 13
        (valid & ~(0x1Fu << 16)),               // day 0
        (valid & ~(0x1Fu << 11)) | (24u << 11), // hour 24
        (valid & ~(0x3Fu << 5)) | (60u << 5),   // minute 60
        (valid & ~0x1Fu) | 30u,                 // second 60
    };
    for (const std::uint32_t word : words) {
        EXPECT_EQ(DosTimeToUnix(word), 0) << std::hex << word;
    }
    EXPECT_NE(DosTimeToUnix(valid), 0);
}

struct Reports {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
};

void Record(std::uint64_t done, std::uint64_t total, void* user) {
    static_cast<Reports*>(user)->calls.emplace_back(done, total);
}

// An operation reused inside another (a removal's manifests rewritten, say) neither restarts
// the outer report nor ends it early; only the outer one's end is reported.
TEST(Progress, OnlyTheOutermostScopeReports) {
    Reports reports;
    SetProgressFunction(&Record, &reports);
    {
        ProgressScope outer(1000);
        ProgressAdvance(400);
        {
            ProgressScope inner(50);
            ProgressAdvance(50);
            inner.Finish();
        }
        ProgressAdvance(550);
        outer.Finish();
    }
    SetProgressFunction(nullptr, nullptr);
    ASSERT_FALSE(reports.calls.empty());
    for (const auto& [done, total] : reports.calls) {
        EXPECT_EQ(total, 1000u);
        EXPECT_LE(done, total);
    }
    EXPECT_EQ(reports.calls.back(), std::make_pair(std::uint64_t{1000}, std::uint64_t{1000}));
}

// A scope left by a failure reports nothing more, and the next one starts from zero.
TEST(Progress, AFailedOperationLeavesNoScopeBehind) {
    Reports reports;
    SetProgressFunction(&Record, &reports);
    {
        ProgressScope failed(100);
        ProgressAdvance(60);
    }
    reports.calls.clear();
    {
        ProgressScope next(10);
        next.Finish();
    }
    SetProgressFunction(nullptr, nullptr);
    ASSERT_EQ(reports.calls.size(), 1u);
    EXPECT_EQ(reports.calls[0], std::make_pair(std::uint64_t{10}, std::uint64_t{10}));
}

} // namespace
} // namespace QOB
