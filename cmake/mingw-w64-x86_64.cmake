# Cross-compiling qob.dll for Windows x64 with Debian's MinGW-w64 (posix threads).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QOB_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QOB_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QOB_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${QOB_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${QOB_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# zlib goes into the DLL, so that it imports system DLLs only.
set(ZLIB_USE_STATIC_LIBS ON)

# Tests run under Wine, one process per test executable.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run.sh)
