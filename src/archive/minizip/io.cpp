// The I/O table over the platform's files. The opaque pointer is not used.
#include "archive/minizip/io.hpp"

#include "platform/platform.hpp"

namespace QOB::MiniZip {
namespace {

Platform::FileStream* AsStream(void* stream) noexcept {
    return static_cast<Platform::FileStream*>(stream);
}

void* Open(void*, const char* utf8Name, int mode) {
    return utf8Name != nullptr ? Platform::FileOpen(utf8Name, mode) : nullptr;
}

std::uint32_t Read(void*, void* stream, void* buffer, std::uint32_t size) {
    return Platform::FileRead(AsStream(stream), buffer, size);
}

std::uint32_t Write(void*, void* stream, const void* buffer, std::uint32_t size) {
    return Platform::FileWrite(AsStream(stream), buffer, size);
}

long Tell(void*, void* stream) {
    return Platform::FileTell(AsStream(stream));
}

long Seek(void*, void* stream, std::uint32_t offset, int origin) {
    return Platform::FileSeek(AsStream(stream), offset, origin);
}

int Close(void*, void* stream) {
    return Platform::FileClose(AsStream(stream));
}

int TestError(void*, void* stream) {
    return Platform::FileError(AsStream(stream));
}

int Truncate(void*, void* stream, std::uint32_t newSize) {
    return Platform::FileTruncate(AsStream(stream), newSize);
}

zlib_filefunc_def* g_substitute = nullptr;

} // namespace

zlib_filefunc_def FileFunctions() noexcept {
    return g_substitute != nullptr ? *g_substitute : PlatformFileFunctions();
}

void SetFileFunctions(const zlib_filefunc_def* substitute) noexcept {
    static zlib_filefunc_def stored;
    if (substitute != nullptr) {
        stored = *substitute;
        g_substitute = &stored;
    } else {
        g_substitute = nullptr;
    }
}

zlib_filefunc_def PlatformFileFunctions() noexcept {
    zlib_filefunc_def table;
    table.zopen_file = &Open;
    table.zread_file = &Read;
    table.zwrite_file = &Write;
    table.ztell_file = &Tell;
    table.zseek_file = &Seek;
    table.zclose_file = &Close;
    table.zerror_file = &TestError;
    table.ztruncate_file = &Truncate;
    table.opaque = nullptr;
    return table;
}

} // namespace QOB::MiniZip
