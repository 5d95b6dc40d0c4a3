// A package and a journal beside it, both arbitrary, read by a caller who may not apply the
// journal: the journal is checked and, when it belongs, laid over the package. Input: a u32
// (little-endian) length of the package, the package's bytes, then the journal's bytes.
// Every failure must be a QOB::Exception (or, for an entry name that is no UTF-8, the
// system error the archive's paths give); the view's length, reads and seeks must agree with
// each other; writes through it are refused; and neither file changes by a single byte.
#include "api/operations.hpp"
#include "archive/archive.hpp"
#include "archive/minizip/io.hpp"
#include "archive/package_file.hpp"
#include "archive/path.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <qob/qob.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;
namespace MZ = QOB::MiniZip;
using Bytes = std::vector<std::uint8_t>;

// Entries are read whole only up to this size: the view is never longer than the input, but a
// deflated entry may claim more.
constexpr std::uint64_t kEntryLimit = 1 << 20;

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void Quiet(int /*level*/, const char* /*text*/, void* /*user*/) {}

// One scratch folder per process (named by the start time, so that parallel fuzzing jobs do
// not meet), removed when the process ends normally.
class Scratch {
public:
    Scratch() {
        QOB::SetLogSink(&Quiet, nullptr);
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        dir_ = fs::temp_directory_path() / ("qob_journal_fuzz_" + std::to_string(stamp));
        fs::create_directories(dir_);
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    fs::path Package() const { return dir_ / "p.qob"; }
    fs::path Journal() const { return dir_ / "p.qob-journal"; }

private:
    fs::path dir_;
};

void Write(const fs::path& path, const std::uint8_t* data, std::size_t size) {
    std::error_code ignored;
    // The previous input left it read-only, which Windows will not delete.
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, ignored);
    fs::remove(path, ignored);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    Check(static_cast<bool>(out));
}

Bytes Load(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Makes the caller one who reads but may not repair: the package is read-only, and for root,
// who writes it regardless, it belongs to someone else (root's own journals stay trusted).
void OnlyReadable(const fs::path& package, const fs::path& journal) {
    using fs::perms;
    fs::permissions(package, perms::owner_read | perms::group_read | perms::others_read);
    fs::permissions(journal, perms::owner_read | perms::owner_write | perms::group_read |
                                 perms::others_read);
#ifndef _WIN32
    if (::geteuid() == 0) {
        Check(::chown(package.c_str(), 65534, 65534) == 0);
    }
#endif
}

// Reads the view from position to its end in chunks of odd sizes.
Bytes ReadToEnd(const MZ::zlib_filefunc_def& io, void* stream, std::uint64_t position,
                std::uint64_t length) {
    static constexpr std::uint32_t kChunks[] = {1, 7, 22, 4093, 65537};
    Bytes bytes(length - position);
    std::size_t done = 0;
    for (std::size_t round = 0; done < bytes.size(); ++round) {
        const std::uint32_t want = kChunks[round % std::size(kChunks)];
        const std::uint32_t got = io.zread_file(io.opaque, stream, bytes.data() + done, want);
        if (got == 0) {
            break;
        }
        Check(got <= want);
        done += got;
    }
    bytes.resize(done);
    return bytes;
}

// The package as this caller sees it, read several ways that must agree.
void ReadView(QOB::PackageFile& file, std::uint64_t onDisk, const std::uint8_t* data,
              std::size_t size) {
    const MZ::zlib_filefunc_def io = file.Functions();
    void* stream = file.NewStream();
    struct Closer {
        const MZ::zlib_filefunc_def& io;
        void* stream;
        ~Closer() { io.zclose_file(io.opaque, stream); }
    } closer{io, stream};

    Check(io.zseek_file(io.opaque, stream, 0, MZ::kSeekEnd) == 0);
    const long end = io.ztell_file(io.opaque, stream);
    Check(end >= 0);
    const auto length = static_cast<std::uint64_t>(end);
    // Nothing is cut before a change's closing record, and nothing grows: the view is never
    // longer than the package.
    Check(length <= onDisk);
    Check(io.zseek_file(io.opaque, stream, 0, MZ::kSeekSet) == 0);
    const Bytes whole = ReadToEnd(io, stream, 0, length);
    if (whole.size() != length) {
        return; // a read failed; the stream says so
    }
    std::uint8_t past = 0;
    Check(io.zread_file(io.opaque, stream, &past, 1) == 0);

    // Back and forth, at places the input picks: every read repeats the first one.
    for (std::size_t i = 0; i + 2 <= std::min<std::size_t>(size, 16) && length > 0; i += 2) {
        const std::uint64_t at = (data[i] | data[i + 1] << 8) % length;
        const int origin = i % 4 == 0 ? MZ::kSeekSet : MZ::kSeekEnd;
        const std::uint32_t offset = origin == MZ::kSeekSet
                                         ? static_cast<std::uint32_t>(at)
                                         : static_cast<std::uint32_t>(-(length - at));
        Check(io.zseek_file(io.opaque, stream, offset, origin) == 0);
        Check(io.ztell_file(io.opaque, stream) == static_cast<long>(at));
        const Bytes tail = ReadToEnd(io, stream, at, length);
        Check(tail.size() == length - at);
        Check(std::memcmp(tail.data(), whole.data() + at, tail.size()) == 0);
    }

    // A view over a journal refuses every change.
    if (io.zwrite_file != MZ::FileFunctions().zwrite_file) {
        Check(io.zseek_file(io.opaque, stream, 0, MZ::kSeekSet) == 0);
        Check(io.zwrite_file(io.opaque, stream, "x", 1) == 0);
        Check(io.ztruncate_file(io.opaque, stream, 0) != 0);
        Check(io.zerror_file(io.opaque, stream) != 0);
    }
}

// What the read-only exports do with the package, through the archive.
void ReadArchive(const fs::path& path) {
    QOB::Archive archive(path, true);
    for (const QOB::Entry& entry : archive.List()) {
        try {
            const QOB::Path name(entry.path);
            archive.Read(name, kEntryLimit);
            std::byte head[64];
            archive.ReadRange(entry, 0, head, sizeof head);
        } catch (const QOB::Exception&) {
        } catch (const std::system_error&) {
            // An entry name that is no UTF-8, as the archive fuzz target allows.
        }
    }
}

// The read-only exports' work, without their call frame: the frame's per-user lock is shared
// with every other qob call of this user on the machine, which would make the fuzzer's time
// depend on theirs.
void ReadExports(const std::string& path) {
    try {
        QOB::QOB_IsQob_Unlocked(path.c_str());
    } catch (const QOB::Exception&) {
    }
    const auto info = std::make_unique<QOB_PackageInfo>();
    QOB::QOB_Constructor_Unlocked(info.get(), QOB_OBJECT_PACKAGE_INFO);
    Check(path.size() < sizeof info->szPackagePath);
    std::memcpy(info->szPackagePath, path.c_str(), path.size() + 1);
    try {
        QOB::QOB_GetPackageInfo_Unlocked(info.get());
    } catch (const QOB::Exception&) {
    }
    QOB::QOB_Destructor_Unlocked(info.get(), QOB_OBJECT_PACKAGE_INFO);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Scratch scratch;
    std::uint32_t split = 0;
    if (size >= 4) {
        split = data[0] | data[1] << 8 | data[2] << 16 | static_cast<std::uint32_t>(data[3]) << 24;
        data += 4;
        size -= 4;
    }
    const std::size_t packageSize = std::min<std::size_t>(split, size);
    const fs::path package = scratch.Package();
    const fs::path journal = scratch.Journal();
    Write(package, data, packageSize);
    Write(journal, data + packageSize, size - packageSize);
    OnlyReadable(package, journal);

    try {
        QOB::PackageFile file(package, QOB::PackageFile::Purpose::Read);
        ReadView(file, packageSize, data + packageSize, size - packageSize);
    } catch (const QOB::Exception&) {
    }
    try {
        ReadArchive(package);
    } catch (const QOB::Exception&) {
    }
    ReadExports(package.string());

    // A reader who may not repair writes nothing: both files are as they were given. Windows
    // has no owners: whoever can write the package repairs it (Wine run as root always can).
#ifdef _WIN32
    return 0;
#endif
    const Bytes packageAfter = Load(package);
    const Bytes journalAfter = Load(journal);
    Check(packageAfter.size() == packageSize &&
          std::equal(packageAfter.begin(), packageAfter.end(), data));
    Check(journalAfter.size() == size - packageSize &&
          std::equal(journalAfter.begin(), journalAfter.end(), data + packageSize));
    return 0;
}
