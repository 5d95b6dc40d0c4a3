// The operating-system services the library needs, behind one small interface.
// win32.cpp implements it with Win32, posix.cpp with POSIX; nothing else includes OS headers.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace QOB::Platform {

enum class MoveResult { Moved, TargetExists, Failed };
struct FileLock;

// Cross-process lock of the calls: one per user session on Windows, exclusive; one per user on
// POSIX systems, shared by calls (package locks keep packages apart there). Nested calls of a
// thread only count deeper; released by the system when its holder dies.
// Acquire returns true when held, or when no lock can exist at all (calls then run without
// cross-process serialisation). It returns false, holding nothing, when the lock exists but
// cannot be trusted or taken; problem then says why. Release only after a true Acquire.
bool ProcessLockAcquire(std::string& problem) noexcept;
void ProcessLockRelease() noexcept;

// Raw file streams for the zip layer's I/O table. Positions are 32-bit, as in the format.
struct FileStream;

// mode uses the zip layer's bits: 1 read, 2 write (3 = read/write filter), 4 existing, 8 create.
FileStream* FileOpen(const char* utf8Name, int mode) noexcept;
// Read-only, shared for reading; the fallback when a read-write open fails.
FileStream* FileOpenReadOnly(const char* utf8Name) noexcept;
std::uint32_t FileRead(FileStream* stream, void* buffer, std::uint32_t size) noexcept;
std::uint32_t FileWrite(FileStream* stream, const void* buffer, std::uint32_t size) noexcept;
long FileTell(FileStream* stream) noexcept;                                   // -1 on failure
long FileSeek(FileStream* stream, std::uint32_t offset, int origin) noexcept; // 0 or -1
int FileClose(FileStream* stream) noexcept;                                   // 0 or -1
int FileError(FileStream* stream) noexcept; // last stored error, -1 for a null stream
// 0, or -7 null stream, -2 no file, -3 tell failed, -4 seek failed, -5 cut failed,
// -6 cut done but the position could not be restored.
int FileTruncate(FileStream* stream, std::uint32_t newSize) noexcept;

// What portable code needs to tell apart among the system's error numbers.
enum class ErrorKind { NotFound, Exists, Denied, Other };
ErrorKind KindOf(int error) noexcept;

// A second stream on the same open file, with a position of its own; closing it leaves the
// file open (the first stream must outlive it).
FileStream* FileShare(FileStream* stream) noexcept;

// Files beside a package, reached through their folder, opened once. A name below a folder
// is never followed if it is a link, and opening never waits on a FIFO or a device. The error
// out-parameters are the system's error numbers (errno; GetLastError on Windows).
struct Folder;
Folder* FolderOpen(const std::filesystem::path& folder, int& error) noexcept;
void FolderClose(Folder* folder) noexcept;
// Makes creations, renames and removals in the folder durable.
bool FolderSync(Folder* folder, int& error) noexcept;

// What the library checks of a file before it trusts it. Owner, group and mode are the POSIX
// ones (zero on Windows, which has none of them).
struct FileFacts {
    bool regular = false;
    std::uint64_t links = 0;
    std::uint64_t size = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t owner = 0;
    std::uint32_t group = 0;
    std::uint32_t mode = 0; // permission bits
};

enum class OpenAs { Read, ReadWrite, CreateNew };
// CreateNew creates the file, failing when the name exists in any form, readable and writable
// by the caller alone until FileSetPermissions.
FileStream* FileOpenIn(Folder* folder, const std::string& name, OpenAs how, int& error) noexcept;
// Facts of an open file, or of a name in the folder without following it (ENOENT: none).
bool FileFactsOf(FileStream* stream, FileFacts& facts, int& error) noexcept;
bool FileFactsIn(Folder* folder, const std::string& name, FileFacts& facts, int& error) noexcept;
// Gives the file the permission bits of like, and its owner and group where the system lets
// the caller; false only when the permission bits could not be set.
bool FileSetPermissions(FileStream* stream, const FileFacts& like, int& error) noexcept;
// Removes name from the folder only while it still is the file described by expected.
bool FileRemoveIn(Folder* folder, const std::string& name, const FileFacts& expected,
                  int& error) noexcept;
// Flushes the file's data (and length) to the device; true when flushes are turned off.
bool FileSyncData(FileStream* stream, int& error) noexcept;

// A new file in the folder without a name where the system has such files (staging is then
// empty), else under a fresh random name (staging). It stays invisible as a package until
// FileGiveName, which never replaces an existing name.
FileStream* FileCreateStaged(Folder* folder, const std::string& name, std::string& staging,
                             int& error) noexcept;
MoveResult FileGiveName(FileStream* stream, Folder* folder, const std::string& staging,
                        const std::string& name, int& error) noexcept;
// Tests take the named fallback of FileCreateStaged on systems with unnamed files.
void SetUnnamedFilesEnabled(bool enabled) noexcept;

// Who the caller is, for deciding which files it may trust: the effective user, and whether
// it belongs to a group. UserInGroup asks the user database for another user; false when it
// does not know. Windows has none of these: 0, true, false.
std::uint32_t CallerUser() noexcept;
bool CallerInGroup(std::uint32_t group) noexcept;
bool UserInGroup(std::uint32_t user, std::uint32_t group) noexcept;

// An advisory lock on an open file, shared or exclusive, tried once and never waited for:
// null with error set when refused, and FileLockBusy(error) tells a holder's refusal from any
// other. On POSIX systems an exclusive lock needs a file opened for writing, so that a user who
// may only read a package can hold its writers off but never take it. Released with
// FileLockRelease; the file must stay open while the lock is held.
FileLock* FileLockOn(FileStream* stream, bool exclusive, int& error) noexcept;
// Changes a held lock between shared and exclusive, tried once. False when refused: the lock
// may then be lost (Windows drops it first), so the caller releases it.
bool FileLockConvert(FileLock* lock, bool exclusive, int& error) noexcept;
bool FileLockBusy(int error) noexcept;
void FileLockRelease(FileLock* lock) noexcept;

// Durability. SyncFile flushes the file's data to the device (any open handle of the file
// may have written it); SyncDirectory makes the creation, renaming or removal of entries in
// a directory durable (nothing to do where the system does it by itself).
bool SyncFile(const std::filesystem::path& path) noexcept;
bool SyncDirectory(const std::filesystem::path& directory) noexcept;
// Tests of atomicity alone (thousands of calls) turn the device flushes off; on by default.
void SetSyncEnabled(bool enabled) noexcept;
bool SyncEnabled() noexcept;

// Seconds since 1970 of the file's last modification; false when the status cannot be read.
bool FileModificationTime(const std::filesystem::path& path, std::int64_t& seconds) noexcept;
std::int64_t CurrentTime() noexcept;
// Local broken-down time (years since 1900, month 0-based).
std::tm LocalTime(std::int64_t seconds) noexcept;

// Files written by extraction, created below a destination directory without following a
// link anywhere below it (the destination itself may be reached through links).
struct OutputFile;

struct CreateBelowResult {
    enum class Status { Created, ThroughLink, Failed };
    Status status = Status::Failed;
    OutputFile* file = nullptr;    // when Created; OutputCommit or OutputDiscard frees it
    bool replaced = false;         // an existing file of that name will be replaced
    bool createdDirectory = false; // at least one directory was created on the way
    std::filesystem::path at;      // the part of the relative path reached (the culprit on failure)
    int error = 0;                 // the system's error number when not Created
};

// components: the relative path's elements; none may be empty, "." or "..". Missing
// directories are created. The content goes into a new temporary file beside the final name
// (created exclusively, never through a link), which takes the final name only at
// OutputCommit: a failed extraction never leaves a file with wrong content under it. An
// existing file of the final name is replaced then, never written through; a link there is
// refused (ThroughLink) and a directory fails.
CreateBelowResult CreateFileBelow(const std::filesystem::path& root,
                                  const std::vector<std::filesystem::path>& components);
// All of data, or the system's reason why not.
std::error_code OutputWrite(OutputFile* file, const void* data, std::size_t size) noexcept;
// Closes the temporary file and renames it to the final name; 0, or the system's error number
// (the temporary file is then removed). Frees the record either way.
int OutputCommit(OutputFile* file) noexcept;
// Closes and removes the temporary file, and frees the record.
void OutputDiscard(OutputFile* file) noexcept;
// Two output names with the same key are the same file on this system (letter case is
// ignored on Windows). UTF-8 in and out.
std::string OutputNameKey(const std::string& utf8);

// The cause of the last failed system call on this thread: errno on POSIX systems, GetLastError
// on Windows, as an error code whose message() is the system's own text (UTF-8, one line).
// Read it right after the failure, before anything else runs.
std::error_code LastSystemError() noexcept;
// The same for a number the system gave earlier (a stream's stored error, say).
std::error_code SystemError(int value) noexcept;
// Forgets the last failure, so that what LastSystemError reads next is new.
void ClearSystemError() noexcept;
// Why this user may not create files in folder, asked after a create there failed; none when
// the system does not say (or would allow it).
std::error_code CreateRefusedIn(const std::filesystem::path& folder) noexcept;

} // namespace QOB::Platform
