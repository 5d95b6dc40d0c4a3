// The package as a journal describes it, for a reader who may not apply the journal: reads
// are split between the journal's saved regions and the package's own bytes, seeks from the
// end count from the length the journal gives, and nothing can be written.
#include "archive/recovery.hpp"

#include <algorithm>
#include <cerrno>
#include <new>

namespace QOB {
namespace {

struct Stream {
    void* package;
    std::uint64_t position;
    int error;
};

Stream* AsStream(void* stream) noexcept {
    return static_cast<Stream*>(stream);
}

Journal* AsJournal(void* opaque) noexcept {
    return static_cast<Journal*>(opaque);
}

std::uint32_t Read(void* opaque, void* stream, void* buffer, std::uint32_t size) {
    Stream* s = AsStream(stream);
    Journal* journal = AsJournal(opaque);
    if (s->position >= journal->Length()) {
        return 0;
    }
    const auto count =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(size, journal->Length() - s->position));
    if (!journal->ReadAt(MiniZip::FileFunctions(), s->package, s->position, buffer, count)) {
        s->error = EIO;
        return 0;
    }
    s->position += count;
    return count;
}

std::uint32_t Write(void*, void* stream, const void*, std::uint32_t) {
    AsStream(stream)->error = EROFS;
    return 0;
}

long Tell(void*, void* stream) {
    const std::uint64_t position = AsStream(stream)->position;
    return position > 0xFFFFFFFFu ? -1 : static_cast<long>(position);
}

long Seek(void* opaque, void* stream, std::uint32_t offset, int origin) {
    Stream* s = AsStream(stream);
    std::int64_t target = 0;
    if (origin == MiniZip::kSeekSet) {
        target = offset;
    } else if (origin == MiniZip::kSeekCur) {
        target = static_cast<std::int64_t>(s->position) + static_cast<std::int32_t>(offset);
    } else if (origin == MiniZip::kSeekEnd) {
        target = static_cast<std::int64_t>(AsJournal(opaque)->Length()) +
                 static_cast<std::int32_t>(offset);
    } else {
        return -1;
    }
    if (target < 0 || target > 0xFFFFFFFF) {
        s->error = EINVAL;
        return -1;
    }
    s->position = static_cast<std::uint64_t>(target);
    return 0;
}

int Close(void*, void* stream) {
    Stream* s = AsStream(stream);
    const MiniZip::zlib_filefunc_def io = MiniZip::FileFunctions();
    const int result = io.zclose_file(io.opaque, s->package);
    delete s;
    return result;
}

int TestError(void*, void* stream) {
    return AsStream(stream)->error;
}

int Truncate(void*, void* stream, std::uint32_t) {
    AsStream(stream)->error = EROFS;
    return -5;
}

void* Open(void*, const char*, int) {
    return nullptr;
}

} // namespace

MiniZip::zlib_filefunc_def OverlayFunctions(Journal& journal) noexcept {
    MiniZip::zlib_filefunc_def table;
    table.zopen_file = &Open;
    table.zread_file = &Read;
    table.zwrite_file = &Write;
    table.ztell_file = &Tell;
    table.zseek_file = &Seek;
    table.zclose_file = &Close;
    table.zerror_file = &TestError;
    table.ztruncate_file = &Truncate;
    table.opaque = &journal;
    return table;
}

void* OverlayStream(void* packageStream) {
    auto* stream = new (std::nothrow) Stream{packageStream, 0, 0};
    if (stream == nullptr) {
        const MiniZip::zlib_filefunc_def io = MiniZip::FileFunctions();
        io.zclose_file(io.opaque, packageStream);
        throw std::bad_alloc();
    }
    return stream;
}

} // namespace QOB
