// What the Win32 files of the platform layer share about streams: their handle.
#pragma once

#include "platform/platform.hpp"

#include <windows.h>

namespace QOB::Platform {

// The stream's handle; the stream keeps it.
HANDLE StreamHandle(FileStream* stream) noexcept;
// A stream that owns handle (closed with it); null, with the handle closed, when out of memory.
FileStream* StreamFromHandle(HANDLE handle) noexcept;

} // namespace QOB::Platform
