// The largest single allocation made through operator new while watched, in the program that
// links largest_allocation.cpp (it replaces the global operator new and delete).
#pragma once

#include <cstddef>

namespace qobtest {

// Starts watching (and forgets what was seen), or stops.
void WatchAllocations(bool on) noexcept;
std::size_t LargestAllocation() noexcept;

} // namespace qobtest
