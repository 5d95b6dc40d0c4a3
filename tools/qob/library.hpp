// The tool's side of the library: which log lines reach standard error, failures read from
// the last-error record, exit statuses, the entry listing and streamed entry reads.
#pragma once

#include <qob/qob.h>
#include <qob/qob_ext.h>

#include <array>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qobtool {

// Exit statuses, documented in 'qob --help', qob(1) and the README.
enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailure = 1,    // anything else that went wrong, or a damaged package (verify)
    kExitUsage = 2,      // a mistake on the command line
    kExitNotPackage = 3, // the file is not an image package (or not one we can read)
    kExitNotFound = 4,   // the package, a named file, an entry or an identifier is missing
    kExitDiskFull = 5,   // the disk (or the user's quota) is full
};

// A failure the user should read about: one line on standard error, then exit with status.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& message, int status = kExitFailure)
        : std::runtime_error(message), status_(status) {}
    int status() const noexcept { return status_; }

private:
    int status_;
};

// A failed library call: the ToolError line, and the last-error record it was made from.
class LibraryError : public ToolError {
public:
    LibraryError(const std::string& message, int status, const QOBX_Error& record)
        : ToolError(message, status), record_(record) {}
    const QOBX_Error& record() const noexcept { return record_; }

private:
    QOBX_Error record_;
};

// The names of the package's manifests, primary first, in the order of
// QOB_PackageInfo::szManifests.
inline constexpr std::array<std::string_view, QOB_MANIFEST_COUNT> kManifestNames = {
    "manifest.xml",     "manifest50.xml",   "manifest70.xml",   "manifest80.xml",
    "manifest81.xml",   "manifest82.xml",   "manifest90.xml",   "manifest91.xml",
    "manifest100.xml",  "manifest110.xml",  "manifest120.xml",  "manifest130.xml",
    "manifest131.xml",  "manifest140.xml",  "manifest141.xml",  "manifest152.xml",
    "manifest165.xml",  "manifest166.xml",  "manifest1664.xml", "manifest1665.xml",
    "manifest1670.xml", "manifest1674.xml", "manifest1680.xml"};

// Whether two names are equal when ASCII letters are compared without regard to case, as the
// library looks entries up.
bool SameIgnoringCase(std::string_view a, std::string_view b);
bool IsManifestName(std::string_view name);

// Installs the tool's log sink: nothing is shown without -v; verbosity 1 shows FATAL to INFO,
// 2 adds DEBUG, 3 TRACE. Lines go to standard error (standard output may carry an entry).
void InstallLogSink(int verbosity);

// The last-error record of the calling thread, as the library left it.
QOBX_Error LastError();

// "<CODE_NAME>: <message>" and, where the system gave one, "(<its text>)".
std::string Describe(const QOBX_Error& error);

// The exit status for a library failure on package: not found, not a package, disk full, or
// failure. May call QOB_IsQob, so read the record first.
int StatusFor(const QOBX_Error& error, const std::string& package);

// Throws LibraryError "<package>: <what happened>" with StatusFor's status unless SUCCESS
// (a full disk: the system's words, and kExitDiskFull).
void Check(QobErrorCode_e result, const std::string& package);

// The system's reason why file cannot be opened for reading (or, with write, for changing);
// throws ToolError "<file>: <reason>" (status 4 when it does not exist). A directory fails.
void RequireFile(const std::string& file, bool write);

// Every zip entry of the package, in central-directory order.
std::vector<QOBX_EntryStat> ListEntries(const std::string& package);

// Reads one entry (named exactly) from start to end in pieces, handing each to sink; the
// CRC-32 is checked when the read reaches the end. Memory stays constant whatever the size.
void StreamEntry(const std::string& package, const std::string& name,
                 const std::function<void(const char*, std::size_t)>& sink);

} // namespace qobtool
