// Text forms shared by the subcommands: record fields, times, and JSON documents.
#pragma once

#include <qob/qob.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace qobtool {

using Json = nlohmann::ordered_json;

// Copies text into a record's path field, or throws ToolError when it does not fit.
void CopyField(char (&field)[QOB_MAX_PATH], std::string_view text, std::string_view what);

// "ID=FILE", split at the first "="; both parts non-empty, else a usage error.
std::pair<std::string, std::string> SplitIdAndFile(std::string_view text, std::string_view option);

// ISO 8601 text with the local offset of a moment in UTC seconds; "" for an entry without a
// time (its DOS word is 0) or with one the library could not read (UTC seconds 0).
std::string TimeText(std::uint32_t dosTime, std::int64_t utcSeconds);
// The same as a JSON value: a string, or null.
Json TimeJson(std::uint32_t dosTime, std::int64_t utcSeconds);

// A JSON document on standard output; bytes that are not UTF-8 become U+FFFD.
void PrintJson(const Json& document);

} // namespace qobtool
