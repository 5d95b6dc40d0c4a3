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
    for (ReadCache::Block& block : cache.blocks) {
        block.valid = 0;
        block.start = 0;
    }
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

bool Covers(const ReadCache::Block& block, std::uint32_t position) noexcept {
    return block.valid > 0 && position >= block.start && position - block.start <= block.valid;
}

// Whether a seek to position can be served from the blocks.
bool Holds(const ReadCache& cache, std::uint32_t position) noexcept {
    return Covers(cache.blocks[0], position) || Covers(cache.blocks[1], position);
}

// The block with bytes at position, if any.
ReadCache::Block* Serving(ReadCache& cache, std::uint32_t position) noexcept {
    for (ReadCache::Block& block : cache.blocks) {
        if (Covers(block, position) && position - block.start < block.valid) {
            return &block;
        }
    }
    return nullptr;
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

// Reads the block at the position into the least recently used block; null when it cannot.
ReadCache::Block* Refill(ReadCache& cache) noexcept {
    ReadCache::Block& block =
        cache.blocks[0].lastUse <= cache.blocks[1].lastUse ? cache.blocks[0] : cache.blocks[1];
    block.valid = 0;
    if (!block.bytes) {
        try {
            // Not zeroed: only the bytes read into it are ever handed out.
            block.bytes = std::make_unique_for_overwrite<std::byte[]>(kReadCacheBlock);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    const std::uint32_t at = *cache.position;
    const std::uint32_t count = ReadThrough(cache, block.bytes.get(), kReadCacheBlock);
    block.valid = count;
    block.start = at;
    cache.position = at; // handed out by the caller from the block
    return &block;
}

void* Open(void* opaque, const char* name, int /*mode*/) {
    ReadCache* cache = AsCache(opaque);
    if (cache == nullptr || name != nullptr) {
        return nullptr;
    }
    // Opening follows a seek of the stream itself; the blocks still mirror the file.
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
    auto copy = [&](ReadCache::Block& block) {
        const std::uint32_t offset = *cache->position - block.start;
        const std::uint32_t count = std::min<std::uint32_t>(size - done, block.valid - offset);
        std::memcpy(out + done, block.bytes.get() + offset, count);
        done += count;
        *cache->position += count;
        block.lastUse = ++cache->uses;
    };
    while (done < size) {
        ReadCache::Block* block = Serving(*cache, *cache->position);
        if (block == nullptr) {
            break;
        }
        copy(*block);
    }
    if (done == size) {
        return done;
    }
    if (size >= kReadCacheBypass) {
        return done + ReadThrough(*cache, out + done, size - done);
    }
    ReadCache::Block* block = Refill(*cache);
    if (block != nullptr && block->valid > 0) {
        copy(*block);
    }
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
    // The blocks follow the file: a copy loop that writes behind what it reads keeps them.
    for (ReadCache::Block& block : cache->blocks) {
        const std::uint64_t from = std::max<std::uint64_t>(at, block.start);
        const std::uint64_t to = std::min<std::uint64_t>(std::uint64_t{at} + count,
                                                         std::uint64_t{block.start} + block.valid);
        if (block.valid > 0 && from < to) {
            std::memcpy(block.bytes.get() + (from - block.start),
                        static_cast<const std::byte*>(buffer) + (from - at), to - from);
        }
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
