#include "archive/read_cache.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace QOB::MiniZip {
namespace {

ReadCache* AsCache(void* opaque) noexcept {
    return static_cast<ReadCache*>(opaque);
}

// Empties the cache. If unread bytes remain, the file is put at the end of the cached
// block, so those bytes are skipped, not re-read: the zip layer seeks to an absolute
// position before every structure it reads, so nothing depends on them.
bool Discard(ReadCache& cache) noexcept {
    if (cache.used < cache.bytes.size()) {
        const auto end = static_cast<std::uint32_t>(cache.start + cache.bytes.size());
        if (cache.raw.zseek_file(cache.raw.opaque, cache.stream, end, kSeekSet) != 0) {
            return false;
        }
    }
    cache.bytes.clear();
    cache.start = 0;
    cache.used = 0;
    return true;
}

bool Refill(ReadCache& cache) noexcept {
    if (!Discard(cache)) {
        return false;
    }
    const auto position = PositionFromTell(cache.raw.ztell_file(cache.raw.opaque, cache.stream));
    if (!position) {
        return false;
    }
    cache.start = *position;
    try {
        cache.bytes.resize(kReadCacheBlock);
    } catch (const std::bad_alloc&) {
        return false;
    }
    const std::uint32_t count =
        cache.raw.zread_file(cache.raw.opaque, cache.stream, cache.bytes.data(), kReadCacheBlock);
    cache.bytes.resize(std::min(count, kReadCacheBlock));
    return true;
}

void* Open(void* opaque, const char* name, int /*mode*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || !Discard(*cache) || name != nullptr) {
        return nullptr;
    }
    return cache->stream;
}

std::uint32_t Read(void* opaque, void* /*stream*/, void* buffer, std::uint32_t size) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return 0;
    }
    if (size >= kReadCacheBypass) {
        if (!Discard(*cache)) {
            return 0;
        }
        return cache->raw.zread_file(cache->raw.opaque, cache->stream, buffer, size);
    }
    if (cache->bytes.size() - cache->used < size && !Refill(*cache)) {
        return 0;
    }
    const auto count =
        static_cast<std::uint32_t>(std::min<std::size_t>(size, cache->bytes.size() - cache->used));
    if (count > 0) {
        std::memcpy(buffer, cache->bytes.data() + cache->used, count);
    }
    cache->used += count;
    return count;
}

std::uint32_t Write(void* opaque, void* /*stream*/, const void* buffer, std::uint32_t size) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || !Discard(*cache)) {
        return 0;
    }
    return cache->raw.zwrite_file(cache->raw.opaque, cache->stream, buffer, size);
}

long Tell(void* opaque, void* /*stream*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return -1;
    }
    if (cache->used >= cache->bytes.size()) {
        return cache->raw.ztell_file(cache->raw.opaque, cache->stream);
    }
    // Computed unsigned: a 32-bit long takes positions from 2 GiB up as negative values.
    return static_cast<long>(cache->start + cache->used);
}

long Seek(void* opaque, void* /*stream*/, std::uint32_t offset, int origin) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || !Discard(*cache)) {
        return -1;
    }
    return cache->raw.zseek_file(cache->raw.opaque, cache->stream, offset, origin);
}

int Close(void* opaque, void* /*stream*/) {
    return opaque == nullptr ? -1 : 0;
}

int TestError(void* opaque, void* /*stream*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return 1;
    }
    return cache->raw.zerror_file(cache->raw.opaque, cache->stream);
}

int Truncate(void* opaque, void* /*stream*/, std::uint32_t newSize) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return -7;
    }
    if (!Discard(*cache)) {
        return -4; // the position could not be set, as for a failed seek of the cut
    }
    return cache->raw.ztruncate_file(cache->raw.opaque, cache->stream, newSize);
}

} // namespace

zlib_filefunc_def BufferedFileFunctions(ReadCache* cache) noexcept {
    zlib_filefunc_def table;
    table.zopen_file = &Open;
    table.zread_file = &Read;
    table.zwrite_file = &Write;
    table.ztell_file = &Tell;
    table.zseek_file = &Seek;
    table.zclose_file = &Close;
    table.zerror_file = &TestError;
    table.ztruncate_file = &Truncate;
    table.opaque = cache;
    return table;
}

} // namespace QOB::MiniZip
