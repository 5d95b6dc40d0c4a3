// The operating-system services the library needs, behind one small interface.
// win32.cpp implements it with Win32, posix.cpp with POSIX; nothing else includes OS headers.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace QOB::Platform {

// Cross-process lock of the calls: one per user session on Windows, one per user on POSIX
// systems. Recursive for the holding thread; released by the system when its holder dies.
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

// Durability. SyncFile flushes the file's data to the device (any open handle of the file
// may have written it); SyncDirectory makes the creation, renaming or removal of entries in
// a directory durable (nothing to do where the system does it by itself).
bool SyncFile(const std::filesystem::path& path) noexcept;
bool SyncDirectory(const std::filesystem::path& directory) noexcept;
// Tests of atomicity alone (thousands of calls) turn the device flushes off; on by default.
void SetSyncEnabled(bool enabled) noexcept;

// An advisory lock on one package file. The cross-process lock is per user, so calls of
// different users may run at once: this lock keeps a change of one package (exclusive) from
// meeting a read or another change of it (shared or exclusive). It waits as long as needed.
// Null when there is nothing to lock (no such regular file) or the system has no such
// locks; the call then goes on without it.
struct FileLock;
FileLock* FileLockAcquire(const std::filesystem::path& path, bool exclusive) noexcept;
// Changes a held lock between shared and exclusive (not atomically: others may go first).
// False when the system refused: the lock is then not held at all. True for a null lock.
bool FileLockConvert(FileLock* lock, bool exclusive) noexcept;
void FileLockRelease(FileLock* lock) noexcept;

enum class MoveResult { Moved, TargetExists, Failed };
// Gives the file `from` the name `to` in one step, never replacing an existing `to`.
MoveResult MoveNoReplace(const std::filesystem::path& from,
                         const std::filesystem::path& to) noexcept;

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
bool OutputWrite(OutputFile* file, const void* data, std::size_t size) noexcept;
// Closes the temporary file and renames it to the final name; 0, or the system's error number
// (the temporary file is then removed). Frees the record either way.
int OutputCommit(OutputFile* file) noexcept;
// Closes and removes the temporary file, and frees the record.
void OutputDiscard(OutputFile* file) noexcept;
// Two output names with the same key are the same file on this system (letter case is
// ignored on Windows). UTF-8 in and out.
std::string OutputNameKey(const std::string& utf8);

} // namespace QOB::Platform
