// The subcommands. Each takes the arguments after its name and returns the exit status;
// failures are thrown as ToolError (status 1) or UsageError (status 2).
#pragma once

#include <string>
#include <vector>

namespace qobtool {

using Args = std::vector<std::string>;

// Reserved space behind a settings file unless --reserve says otherwise: enough for the
// settings of a heavily edited image to grow without moving.
inline constexpr unsigned kDefaultSettingsReserve = 16384;

int RunCreate(const Args& args);
int RunUpdate(const Args& args);
int RunRemove(const Args& args);

int RunInfo(const Args& args);
int RunList(const Args& args);
int RunLcc(const Args& args);
int RunCheck(const Args& args);
int RunExtract(const Args& args);
int RunCat(const Args& args);

} // namespace qobtool
