// What differs between the systems the tool runs on: how the command line arrives, how
// standard streams carry bytes, how UTF-8 text names a file, terminals, local time, and how
// the system says that a disk is full.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace qobtool {

// The command line as UTF-8 strings, program name first.
std::vector<std::string> Utf8Arguments(int argc, char** argv);

// Standard output passes bytes through unchanged, and the console shows UTF-8.
void PrepareStandardStreams();

// The file a UTF-8 name stands for.
std::filesystem::path PathOf(const std::string& utf8Name);

// fopen for a UTF-8 file name; errno says why on failure.
std::FILE* OpenFile(const std::string& utf8Name, const char* mode);

bool IsDirectory(const std::string& utf8Name);

// Whether stream is an interactive terminal (a console on Windows).
bool IsTerminal(std::FILE* stream);

// The local calendar time of a moment given as UTC seconds; false when the system has none.
bool LocalTime(std::int64_t utcSeconds, std::tm& local);

// Whether the library's system error number means that the disk or quota is full.
bool IsDiskFull(int systemError);

} // namespace qobtool
