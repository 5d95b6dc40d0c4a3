// What the POSIX files of the platform layer share about streams: their descriptor.
#pragma once

#include "platform/platform.hpp"

namespace QOB::Platform {

// The stream's descriptor, -1 for none; the stream keeps it.
int StreamDescriptor(FileStream* stream) noexcept;
// A stream that owns fd (closed with it); null, with fd closed, when out of memory.
FileStream* StreamFromDescriptor(int fd) noexcept;

} // namespace QOB::Platform
