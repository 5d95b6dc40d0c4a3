#include "archive/read_cache.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace QOB::MiniZip {
namespace {

ReadCache* AsCache(void* opaque) noexcept {
    return static_cast<ReadCache*>(opaque);
}

// Forgets the position: the file's own is the truth again.
void Forget(ReadCache& cache) noexcept {
    cache.position.reset();
    cache.physical.reset();
}

void Drop(ReadCache& cache) noexcept {
    cache.valid = 0;
    cache.start = 0;
}

// The position the zip layer sees, asking the file when it is not known.
std::optional<std::uint32_t> Position(ReadCache& cache) noexcept {
    if (!cache.position) {
        cache.position = PositionFromTell(cache.raw.ztell_file(cache.raw.opaque, cache.stream));
        cache.physical = cache.position;
    }
    return cache.position;
}

// Moves the file to the position the zip layer sees, before anything reaches the file.
bool Settle(ReadCache& cache) noexcept {
    const auto position = Position(cache);
    if (!position) {
        return false;
    }
    if (cache.physical == position) {
        return true;
    }
    if (cache.raw.zseek_file(cache.raw.opaque, cache.stream, *position, kSeekSet) != 0) {
        Forget(cache);
        return false;
    }
    cache.physical = position;
    return true;
}

bool Holds(const ReadCache& cache, std::uint32_t position) noexcept {
    return cache.valid > 0 && position >= cache.start && position - cache.start <= cache.valid;
}

// Reads straight from the file at the position into buffer.
std::uint32_t ReadThrough(ReadCache& cache, void* buffer, std::uint32_t size) noexcept {
    if (!Settle(cache)) {
        return 0;
    }
    const std::uint32_t count = cache.raw.zread_file(cache.raw.opaque, cache.stream, buffer, size);
    if (count > size) {
        Forget(cache);
        return 0;
    }
    *cache.position += count;
    cache.physical = cache.position;
    return count;
}

bool Refill(ReadCache& cache) noexcept {
    Drop(cache);
    if (!cache.block) {
        try {
            // Not zeroed: only the bytes read into it are ever handed out.
            cache.block = std::make_unique_for_overwrite<std::byte[]>(kReadCacheBlock);
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    const std::uint32_t at = *cache.position;
    const std::uint32_t count = ReadThrough(cache, cache.block.get(), kReadCacheBlock);
    cache.valid = count;
    cache.start = at;
    cache.position = at; // handed out by the caller from the block
    return true;
}

void* Open(void* opaque, const char* name, int /*mode*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || name != nullptr) {
        return nullptr;
    }
    // Opening follows a seek of the stream itself, and maybe a change by another writer.
    Drop(*cache);
    Forget(*cache);
    return cache->stream;
}

std::uint32_t Read(void* opaque, void* /*stream*/, void* buffer, std::uint32_t size) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || !Position(*cache)) {
        return 0;
    }
    auto* out = static_cast<std::byte*>(buffer);
    std::uint32_t done = 0;
    auto copy = [&] {
        const std::uint32_t offset = *cache->position - cache->start;
        const auto count =
            static_cast<std::uint32_t>(std::min<std::uint32_t>(size - done, cache->valid - offset));
        if (count > 0) {
            std::memcpy(out + done, cache->block.get() + offset, count);
        }
        done += count;
        *cache->position += count;
    };
    if (Holds(*cache, *cache->position)) {
        copy();
    }
    if (done == size) {
        return done;
    }
    if (size >= kReadCacheBypass) {
        return done + ReadThrough(*cache, out + done, size - done);
    }
    if (!Refill(*cache)) {
        return done;
    }
    copy();
    return done;
}

std::uint32_t Write(void* opaque, void* /*stream*/, const void* buffer, std::uint32_t size) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return 0;
    }
    if (!Settle(*cache)) {
        Drop(*cache);
        return 0;
    }
    const std::uint32_t at = *cache->position;
    const std::uint32_t count =
        cache->raw.zwrite_file(cache->raw.opaque, cache->stream, buffer, size);
    if (count != size) {
        Drop(*cache);
        Forget(*cache); // where a failed write left the file is the file's to say
        return count;
    }
    // The block follows the file: a copy loop that writes behind what it reads keeps it.
    const std::uint64_t from = std::max<std::uint64_t>(at, cache->start);
    const std::uint64_t to = std::min<std::uint64_t>(std::uint64_t{at} + count,
                                                     std::uint64_t{cache->start} + cache->valid);
    if (cache->valid > 0 && from < to) {
        std::memcpy(cache->block.get() + (from - cache->start),
                    static_cast<const std::byte*>(buffer) + (from - at), to - from);
    }
    *cache->position += count;
    cache->physical = cache->position;
    return count;
}

long Tell(void* opaque, void* /*stream*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return -1;
    }
    const auto position = Position(*cache);
    // Computed unsigned: a 32-bit long takes positions from 2 GiB up as negative values.
    return position ? static_cast<long>(*position) : -1;
}

long Seek(void* opaque, void* /*stream*/, std::uint32_t offset, int origin) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr) {
        return -1;
    }
    if (origin == kSeekSet && Holds(*cache, offset)) {
        cache->position = offset; // the file follows when it is next needed
        return 0;
    }
    if (origin == kSeekCur && !Settle(*cache)) {
        return -1; // a relative seek starts from where the zip layer stands
    }
    const long result = cache->raw.zseek_file(cache->raw.opaque, cache->stream, offset, origin);
    if (result == 0 && origin == kSeekSet) {
        cache->position = offset;
        cache->physical = offset;
    } else {
        Forget(*cache);
    }
    return result;
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
    Drop(*cache);
    if (!Settle(*cache)) {
        return -4; // the position could not be set, as for a failed seek of the cut
    }
    const int result = cache->raw.ztruncate_file(cache->raw.opaque, cache->stream, newSize);
    if (result != 0) {
        Forget(*cache);
    }
    return result;
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
