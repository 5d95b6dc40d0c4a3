#include "cli.hpp"

#include "library_log.hpp"

#include "core/package_audit.hpp"

#include <charconv>
#include <cstdio>

namespace qobtool {

bool ParsedArgs::Has(std::string_view name) const {
    return Get(name).has_value();
}

std::optional<std::string> ParsedArgs::Get(std::string_view name) const {
    std::optional<std::string> value;
    for (const auto& [key, text] : options) {
        if (key == name) {
            value = text;
        }
    }
    return value;
}

std::vector<std::string> ParsedArgs::All(std::string_view name) const {
    std::vector<std::string> values;
    for (const auto& [key, text] : options) {
        if (key == name) {
            values.push_back(text);
        }
    }
    return values;
}

ParsedArgs ParseArgs(const std::vector<std::string>& args, const std::vector<OptionDef>& known) {
    ParsedArgs parsed;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            parsed.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        const std::size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        const OptionDef* found = nullptr;
        for (const OptionDef& option : known) {
            if (option.name == name) {
                found = &option;
            }
        }
        if (found == nullptr) {
            throw UsageError("unknown option " + name);
        }
        if (!found->takesValue) {
            if (equals != std::string::npos) {
                throw UsageError("option " + name + " takes no value");
            }
            parsed.options.emplace_back(name, "");
        } else if (equals != std::string::npos) {
            parsed.options.emplace_back(name, arg.substr(equals + 1));
        } else if (i + 1 < args.size()) {
            parsed.options.emplace_back(name, args[++i]);
        } else {
            throw UsageError("option " + name + " needs a value");
        }
    }
    return parsed;
}

void RequirePositional(const ParsedArgs& parsed, const std::vector<std::string_view>& names) {
    if (parsed.positional.size() < names.size()) {
        throw UsageError("missing " + std::string(names[parsed.positional.size()]));
    }
    if (parsed.positional.size() > names.size()) {
        throw UsageError("unexpected argument " + parsed.positional[names.size()]);
    }
}

std::uint32_t ParseByteCount(std::string_view text, std::string_view option) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        throw UsageError(std::string(option) + " needs a byte count from 0 to 4294967295, not '" +
                         std::string(text) + "'");
    }
    return value;
}

std::pair<std::string, std::string> SplitIdAndFile(std::string_view text, std::string_view option) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == text.size()) {
        throw UsageError(std::string(option) + " needs ID=FILE, not '" + std::string(text) + "'");
    }
    return {std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))};
}

void CopyField(char (&field)[QOB_MAX_PATH], std::string_view text, std::string_view what) {
    if (text.size() >= QOB_MAX_PATH) {
        throw ToolError(std::string(what) + " is too long (at most " +
                        std::to_string(QOB_MAX_PATH - 1) + " bytes): " + std::string(text));
    }
    text.copy(field, text.size());
    field[text.size()] = '\0';
}

std::string TimeText(std::uint32_t dosTime) {
    const std::string text = QOB::Inspect::IsoTime(dosTime);
    return text.empty() ? "-" : text;
}

std::string TimeJson(std::uint32_t dosTime) {
    const std::string text = QOB::Inspect::IsoTime(dosTime);
    return text.empty() ? "null" : JsonString(text);
}

namespace {

// Length of the well-formed UTF-8 sequence at the start of text, or 0.
std::size_t Utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    unsigned lowest = 0, min = 0x80, max = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        min = lead == 0xE0 ? 0xA0 : 0x80; // no overlong forms
        max = lead == 0xED ? 0x9F : 0xBF; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        min = lead == 0xF0 ? 0x90 : 0x80;
        max = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < min || byte(1) > max) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        lowest = byte(i);
        if (lowest < 0x80 || lowest > 0xBF) {
            return 0;
        }
    }
    return length;
}

} // namespace

std::string JsonString(std::string_view text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            const std::size_t length = Utf8Length(text.substr(i));
            if (length == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text.substr(i, length));
                i += length;
            }
            continue;
        }
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20 || c == 0x7F) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                out += static_cast<char>(c);
            }
        }
        ++i;
    }
    return out + "\"";
}

} // namespace qobtool
