#include "support/dos_time.hpp"

#include <gtest/gtest.h>

#include <array>

namespace {

// Packing and unpacking agree for every field at its limits, the year is taken in full or as
// years since 1900, and a field too large for its bits never spills into its neighbour.
TEST(DosTimeTest, PacksAndUnpacksEveryField) {
    struct Case {
        unsigned year, month0, day, hour, minute, second;
        std::uint32_t packed;
        QOB::DosFields back;
    };
    const Case cases[] = {
        {1981, 0, 1, 0, 0, 0, 0x02210000, {1981, 1, 1, 0, 0, 0}},
        {81, 0, 1, 0, 0, 0, 0x02210000, {1981, 1, 1, 0, 0, 0}},
        {2107, 11, 31, 23, 59, 58, 0xFF9FBF7D, {2107, 12, 31, 23, 59, 58}},
        {124, 4, 17, 12, 30, 15, 0x58B163C7, {2024, 5, 17, 12, 30, 14}}, // since 1900, odd second
        {2024, 4, 17, 12, 30, 14, 0x58B163C7, {2024, 5, 17, 12, 30, 14}},
        {2024, 4, 17, 24, 0, 0, 0x58B1C000, {2024, 5, 17, 24, 0, 0}}, // out of range, kept in bits
    };
    for (const Case& c : cases) {
        const std::uint32_t packed =
            QOB::PackDosTime(c.year, c.month0, c.day, c.hour, c.minute, c.second);
        EXPECT_EQ(packed, c.packed) << c.year << "-" << c.month0;
        const QOB::DosFields f = QOB::UnpackDosTime(packed);
        EXPECT_EQ((std::array{f.year, f.month, f.day, f.hour, f.minute, f.second}),
                  (std::array{c.back.year, c.back.month, c.back.day, c.back.hour, c.back.minute,
                              c.back.second}))
            << std::hex << packed;
    }
    EXPECT_EQ(QOB::UnpackDosTime(0).month, 0u); // no date at all
}

} // namespace
