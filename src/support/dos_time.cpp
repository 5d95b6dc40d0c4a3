#include "support/dos_time.hpp"

#include <ctime>

namespace QOB {

std::int64_t DosTimeToUnix(std::uint32_t dos) noexcept {
    const DosFields fields = UnpackDosTime(dos);
    if (fields.month < 1 || fields.month > 12 || fields.day < 1 || fields.hour > 23 ||
        fields.minute > 59 || fields.second > 59) {
        return 0;
    }
    std::tm local{};
    local.tm_year = static_cast<int>(fields.year) - 1900;
    local.tm_mon = static_cast<int>(fields.month) - 1;
    local.tm_mday = static_cast<int>(fields.day);
    local.tm_hour = static_cast<int>(fields.hour);
    local.tm_min = static_cast<int>(fields.minute);
    local.tm_sec = static_cast<int>(fields.second);
    local.tm_isdst = -1; // the stored word does not say; let the zone's rules decide
    const std::time_t seconds = std::mktime(&local);
    return seconds == static_cast<std::time_t>(-1) ? 0 : static_cast<std::int64_t>(seconds);
}

} // namespace QOB
