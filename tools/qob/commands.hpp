// The subcommands. Each takes the arguments after its name and whether -q was given, and
// returns the exit status; failures are thrown as ToolError or UsageError.
#pragma once

#include <string>
#include <vector>

namespace qobtool {

using Args = std::vector<std::string>;

// Reserved space behind a settings file unless --reserve says otherwise: enough for the
// settings of a heavily edited image to grow without moving.
inline constexpr unsigned kDefaultSettingsReserve = 16384;

int RunCreate(const Args& args, bool quiet);
int RunUpdate(const Args& args, bool quiet);
int RunRemove(const Args& args, bool quiet);

int RunInfo(const Args& args, bool quiet);
int RunList(const Args& args, bool quiet);
int RunLcc(const Args& args, bool quiet);
int RunCheck(const Args& args, bool quiet);
int RunVerify(const Args& args, bool quiet);
int RunExtract(const Args& args, bool quiet);
int RunCat(const Args& args, bool quiet);

} // namespace qobtool
