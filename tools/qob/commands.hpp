// The subcommands. Each takes the options the command line gave and returns the exit status;
// failures are thrown as ToolError.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qobtool {

// Reserved space behind a settings file unless --reserve says otherwise: enough for the
// settings of a heavily edited image to grow without moving.
inline constexpr std::uint32_t kDefaultSettingsReserve = 16384;

// What the command line said; each command reads the fields it declared.
struct Options {
    bool quiet = false;
    int verbosity = 0;
    std::string package;
    std::string second; // ENTRY, ID or DIR
    bool json = false;
    bool force = false;
    std::optional<std::string> raw, settings, proxy, mask, hair;
    std::vector<std::string> lccs, iccs; // ID=FILE
    std::optional<std::uint32_t> reserve;
};

int RunCreate(const Options& options);
int RunUpdate(const Options& options);
int RunRemove(const Options& options);

int RunInfo(const Options& options);
int RunList(const Options& options);
int RunLcc(const Options& options);
int RunCheck(const Options& options);
int RunVerify(const Options& options);
int RunExtract(const Options& options);
int RunCat(const Options& options);

} // namespace qobtool
