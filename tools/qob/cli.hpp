// Command-line plumbing shared by the subcommands: options, sizes, record fields, and the
// text forms of times and JSON strings.
#pragma once

#include <qob/qob.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qobtool {

// A mistake on the command line: one line, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct OptionDef {
    std::string_view name; // with its dashes, e.g. "--raw"
    bool takesValue;
};

struct ParsedArgs {
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> options; // in command-line order

    bool Has(std::string_view name) const;
    // The last value given for name.
    std::optional<std::string> Get(std::string_view name) const;
    std::vector<std::string> All(std::string_view name) const;
};

// Accepts "--name value" and "--name=value"; "--" ends the options. Unknown options and
// missing values are UsageErrors.
ParsedArgs ParseArgs(const std::vector<std::string>& args, const std::vector<OptionDef>& known);

// Requires exactly the named positional arguments.
void RequirePositional(const ParsedArgs& parsed, const std::vector<std::string_view>& names);

// A decimal byte count that fits 32 bits.
std::uint32_t ParseByteCount(std::string_view text, std::string_view option);

// "ID=FILE", split at the first "="; both parts non-empty.
std::pair<std::string, std::string> SplitIdAndFile(std::string_view text, std::string_view option);

// Copies text into a record's path field, or throws ToolError when it does not fit.
void CopyField(char (&field)[QOB_MAX_PATH], std::string_view text, std::string_view what);

// ISO 8601 text with the local offset of an entry's time word; "-" when it has none.
std::string TimeText(std::uint32_t dosTime);
// The same as a JSON value: a string, or null when there is no time.
std::string TimeJson(std::uint32_t dosTime);

// A JSON string literal, quotes included. Bytes that are not UTF-8 become U+FFFD.
std::string JsonString(std::string_view text);

} // namespace qobtool
