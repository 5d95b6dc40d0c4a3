// The operating-system services the library needs, behind one small interface.
// win32.cpp implements it with Win32, posix.cpp with POSIX; nothing else includes OS headers.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>

namespace QOB::Platform {

// Machine-wide lock shared by every process that loads the library. Recursive for the
// holding thread; released by the system when its holder dies. If it cannot be set up,
// acquiring and releasing do nothing.
void ProcessLockAcquire() noexcept;
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

enum class MoveResult { Moved, TargetExists, Failed };
// Gives the file `from` the name `to` in one step, never replacing an existing `to`.
MoveResult MoveNoReplace(const std::filesystem::path& from,
                         const std::filesystem::path& to) noexcept;

// Seconds since 1970 of the file's last modification; false when the status cannot be read.
bool FileModificationTime(const std::filesystem::path& path, std::int64_t& seconds) noexcept;
std::int64_t CurrentTime() noexcept;
// Local broken-down time (years since 1900, month 0-based).
std::tm LocalTime(std::int64_t seconds) noexcept;

} // namespace QOB::Platform
