#include "text.hpp"

#include "host_platform.hpp"
#include "library.hpp"

#include <CLI/Error.hpp>

#include <cstdio>

namespace qobtool {
namespace {

// Days from 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

} // namespace

void CopyField(char (&field)[QOB_MAX_PATH], std::string_view text, std::string_view what) {
    if (text.size() >= QOB_MAX_PATH) {
        throw ToolError(std::string(what) + " is too long (at most " +
                        std::to_string(QOB_MAX_PATH - 1) + " bytes): " + std::string(text));
    }
    text.copy(field, text.size());
    field[text.size()] = '\0';
}

std::pair<std::string, std::string> SplitIdAndFile(std::string_view text, std::string_view option) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == text.size()) {
        throw CLI::ValidationError(std::string(option) + " needs ID=FILE, not '" +
                                   std::string(text) + "'");
    }
    return {std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))};
}

std::string TimeText(std::uint32_t dosTime, std::int64_t utcSeconds) {
    std::tm local{};
    if (dosTime == 0 || utcSeconds == 0 || !LocalTime(utcSeconds, local)) {
        return {};
    }
    // The offset the local zone had at that moment: local calendar time less UTC.
    const std::int64_t localSeconds =
        DaysFromCivil(local.tm_year + 1900, static_cast<unsigned>(local.tm_mon + 1),
                      static_cast<unsigned>(local.tm_mday)) *
            86400 +
        local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
    const auto offsetMinutes = static_cast<long>((localSeconds - utcSeconds) / 60);
    const long magnitude = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d%c%02ld:%02ld",
                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, offsetMinutes < 0 ? '-' : '+', magnitude / 60,
                  magnitude % 60);
    return text;
}

Json TimeJson(std::uint32_t dosTime, std::int64_t utcSeconds) {
    const std::string text = TimeText(dosTime, utcSeconds);
    return text.empty() ? Json() : Json(text);
}

void PrintJson(const Json& document) {
    const std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace);
    std::printf("%s\n", text.c_str());
}

} // namespace qobtool
