// One open package file and the zip layer's state for it: either a writer or a reader,
// never both. Switching closes the other side first, so reads after writes always see a
// finished central directory. The file is opened once; writer and reader share the stream.
#pragma once

#include "archive/minizip/io.hpp"
#include "archive/read_cache.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <variant>

namespace QOB {
class PackageFile;
}

namespace QOB::MiniZip {

class Handle {
public:
    // should_exist true: the archive must exist and is opened for reading at once, so a
    // malformed zip fails here. false: it must not exist and is created empty.
    Handle(const std::filesystem::path& path, bool should_exist);
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    // The writer, opened if needed (closing the reader first).
    void* Zip();
    // The reader, opened if needed (closing the writer first, which writes the directory).
    void* Unzip();
    // Closes an open writer, then opens the reader to verify the result.
    void Flush();

    // The archive's path as UTF-8, for messages.
    const std::string& Path() const noexcept { return path_; }

private:
    struct ZipOpenState {
        void* file;
    };
    struct UnzipOpenState {
        void* file;
    };

    void Construct(void* stream, zlib_filefunc_def raw, bool exists);
    void ZipOpen();
    void ZipClose();
    void UnzipOpen();
    void UnzipClose();
    void ResetSeek();

    // Outside a change: the package opened for reading, under a shared lock for the handle's
    // life, so that another user's change never runs under a read.
    std::unique_ptr<PackageFile> package_;
    void* stream_ = nullptr;
    std::variant<std::monostate, ZipOpenState, UnzipOpenState> state_;
    zlib_filefunc_def raw_{};
    zlib_filefunc_def buffered_{};
    std::unique_ptr<ReadCache> cache_;
    bool exists_ = false;
    std::string path_;
};

} // namespace QOB::MiniZip
