// What differs between the systems the tool runs on: how the command line arrives, how
// standard output carries bytes, and how UTF-8 text names a file.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace qobtool {

// The command line as UTF-8 strings, program name first.
std::vector<std::string> Utf8Arguments(int argc, char** argv);

// Standard output passes bytes through unchanged, and the console shows UTF-8.
void PrepareStandardStreams();

// fopen for a UTF-8 file name; errno says why on failure.
std::FILE* OpenFile(const std::string& utf8Name, const char* mode);

bool IsDirectory(const std::string& utf8Name);

} // namespace qobtool
