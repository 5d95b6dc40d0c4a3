// The DOS date and time word of zip headers: date in the high 16 bits (years since 1980,
// month 1 to 12, day), time in the low 16 (hours, minutes, seconds / 2). Local time, no zone.
#pragma once

#include <cstdint>

namespace QOB {

struct DosFields {
    unsigned year = 0;  // full year, e.g. 2024
    unsigned month = 0; // 1 to 12 as stored (0 in a damaged or empty word)
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0; // always even
};

// year may be given in full (from 1980) or as years since 1900 (from 80), the rule the zip
// layer has always had; month is 0-based, as in std::tm. Fields that overflow their bits are
// cut, never carried into the next field.
constexpr std::uint32_t PackDosTime(unsigned year, unsigned month0, unsigned day, unsigned hour,
                                    unsigned minute, unsigned second) noexcept {
    if (year >= 1980) {
        year -= 1980;
    } else if (year >= 80) {
        year -= 80;
    }
    const std::uint32_t date = ((year * 16 + month0 + 1) * 32 + day) & 0xFFFF;
    const std::uint32_t clock = ((hour * 64 + minute) * 32 + second / 2) & 0xFFFF;
    return (date << 16) | clock;
}

constexpr DosFields UnpackDosTime(std::uint32_t dos) noexcept {
    DosFields fields;
    fields.year = ((dos >> 25) & 0x7F) + 1980;
    fields.month = (dos >> 21) & 0x0F;
    fields.day = (dos >> 16) & 0x1F;
    fields.hour = (dos >> 11) & 0x1F;
    fields.minute = (dos >> 5) & 0x3F;
    fields.second = (dos & 0x1F) * 2;
    return fields;
}

// Seconds since 1970 (UTC) of a DOS word, read as local time in the machine's time zone; 0
// for a word that names no valid date.
std::int64_t DosTimeToUnix(std::uint32_t dos) noexcept;

} // namespace QOB
