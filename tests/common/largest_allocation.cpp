#include "common/largest_allocation.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_watching{false};
std::atomic<std::size_t> g_largest{0};

} // namespace

namespace qobtest {

void WatchAllocations(bool on) noexcept {
    if (on) {
        g_largest = 0;
    }
    g_watching = on;
}

std::size_t LargestAllocation() noexcept {
    return g_largest;
}

} // namespace qobtest

void* operator new(std::size_t size) {
    if (g_watching.load(std::memory_order_relaxed)) {
        std::size_t seen = g_largest.load(std::memory_order_relaxed);
        while (size > seen && !g_largest.compare_exchange_weak(seen, size)) {
        }
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

// The non-throwing forms too: every form of new must pair with the deletes above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
