#include "archive/entry_framing.hpp"

#include "archive/defer.hpp"
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/central_directory.hpp"
#include "archive/minizip/unzip.hpp"
#include "archive/minizip/zip.hpp"
#include "archive/zip_results.hpp"
#include "platform/platform.hpp"
#include "support/dos_time.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace QOB {
namespace {

using namespace MiniZip;

// The breadcrumb of a read, which runs for every entry: formatted only when the scope fails,
// and never throwing there (an empty line at worst).
template <class... Args> std::string LazyTrail(const char* format, Args... args) noexcept {
    try {
        return Format(format, args...);
    } catch (...) {
        return {};
    }
}

constexpr std::size_t kFieldSize = 4;
constexpr std::uint64_t kMaxEntryCount = 0xFFFF;
constexpr int kStored = 0;
constexpr int kNoCompressionLevel = 0;
constexpr int kRawDeflateWindowBits = -15;
constexpr int kDefaultMemLevel = 8;
constexpr int kDefaultStrategy = 0;
// The most one zip-layer read call is asked for.
constexpr std::uint64_t kReadRound = std::uint64_t{1} << 30;

std::uint32_t DosDateTime(const std::tm& time) {
    return PackDosTime(static_cast<unsigned>(time.tm_year), static_cast<unsigned>(time.tm_mon),
                       static_cast<unsigned>(time.tm_mday), static_cast<unsigned>(time.tm_hour),
                       static_cast<unsigned>(time.tm_min), static_cast<unsigned>(time.tm_sec));
}

std::tm FromDosDateTime(std::uint32_t dos) {
    const DosFields fields = UnpackDosTime(dos);
    std::tm time{};
    time.tm_sec = static_cast<int>(fields.second);
    time.tm_min = static_cast<int>(fields.minute);
    time.tm_hour = static_cast<int>(fields.hour);
    time.tm_mday = static_cast<int>(fields.day);
    time.tm_mon = static_cast<int>(fields.month) - 1;
    time.tm_year = static_cast<int>(fields.year);
    return time;
}

} // namespace

void WriteBegin(void* zip, const Path& path, const std::tm& time, std::uint64_t length,
                std::uint64_t padding_size) {
    const std::string trail =
        Format("in WriteBegin path=\"%s\" length=%zu padding_size=%zu", path.CStr(),
               static_cast<std::size_t>(length), static_cast<std::size_t>(padding_size));
    QOB_FAILURE_TRAIL(trail);

    if (length > kMaxEntrySize) {
        throw Exception(INTERNAL_INCONSISTENCY, "entry too large");
    }
    const std::uint32_t value = padding_size > 0 ? static_cast<std::uint32_t>(length) : 0;
    const std::array<unsigned char, kFieldSize> field = {
        static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
        static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};

    zip_fileinfo info{};
    info.tmz_date.tm_sec = static_cast<unsigned>(time.tm_sec);
    info.tmz_date.tm_min = static_cast<unsigned>(time.tm_min);
    info.tmz_date.tm_hour = static_cast<unsigned>(time.tm_hour);
    info.tmz_date.tm_mday = static_cast<unsigned>(time.tm_mday);
    info.tmz_date.tm_mon = static_cast<unsigned>(time.tm_mon);
    info.tmz_date.tm_year = static_cast<unsigned>(time.tm_year);
    info.dosDate = DosDateTime(time);

    // Refused before anything is written: the format's counts and offsets cannot describe
    // more, and a package that went past them would lose the entry.
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;
    if (!zipSizeAfterAppend(zip, std::strlen(path.CStr()), kFieldSize, length + padding_size,
                            entries, bytes)) {
        CheckZipResult(ZIP_ERRNO);
    }
    if (entries > kMaxEntryCount) {
        throw Exception(INVALID_PARAMETER, "package cannot hold more than 65535 entries");
    }
    if (bytes > kMaxEntrySize) {
        throw Exception(INVALID_PARAMETER, Format("package would grow past 4 GiB: %llu bytes",
                                                  static_cast<unsigned long long>(bytes)));
    }

    CheckZipCall([&] {
        return zipOpenNewFileInZip3(zip, path.CStr(), &info, field.data(), kFieldSize, field.data(),
                                    kFieldSize, nullptr, kStored, kNoCompressionLevel, 0,
                                    kRawDeflateWindowBits, kDefaultMemLevel, kDefaultStrategy,
                                    nullptr, 0);
    });
}

void WriteEnd(void* zip, std::uint64_t padding_size) {
    const std::string trail =
        Format("in WriteEnd padding_size=%zu", static_cast<std::size_t>(padding_size));
    QOB_FAILURE_TRAIL(trail);

    if (padding_size > 0) {
        const std::vector<std::byte> zeros(
            static_cast<std::size_t>(std::min<std::uint64_t>(padding_size, kCopyBufferSize)));
        for (std::uint64_t remaining = padding_size; remaining > 0;) {
            const auto round =
                static_cast<unsigned>(std::min<std::uint64_t>(remaining, zeros.size()));
            CheckZipCall([&] { return zipWriteInFileInZip(zip, zeros.data(), round); });
            remaining -= round;
        }
    }
    CheckZipCall([&] { return zipCloseFileInZip(zip); });
}

void ReadBegin(void* unzip, const Path& path) {
    QOB_FAILURE_TRAIL(LazyTrail("in ReadBegin path=\"%s\"", path.CStr()));
    CheckUnzipResult(unzLocateFile(unzip, path.CStr()));
    CheckUnzipCall([&] { return unzOpenCurrentFile(unzip); });
}

void ReadBegin(void* unzip, const Entry& entry) {
    QOB_FAILURE_TRAIL(LazyTrail("in ReadBegin path=\"%s\" index=%u", entry.path.c_str(),
                                static_cast<unsigned>(entry.index)));
    CheckUnzipResult(unzGoToFilePosition(unzip, entry.index, entry.record_position));
    CheckUnzipCall([&] { return unzOpenCurrentFile(unzip); });
}

void TryRead(void* unzip, std::byte* buffer, std::uint64_t length) {
    QOB_FAILURE_TRAIL(LazyTrail("in TryRead length=%zu", static_cast<std::size_t>(length)));

    // The zip layer hands its count back in an int: larger entries come in rounds.
    for (std::uint64_t done = 0; done < length;) {
        const auto round = static_cast<std::uint32_t>(std::min(length - done, kReadRound));
        Platform::ClearSystemError();
        const int count = unzReadCurrentFile(unzip, buffer + done, round);
        if (count < 0) {
            const std::error_code cause = Platform::LastSystemError();
            CheckUnzipResult(count, cause.value() != 0 ? cause : std::error_code());
            throw Exception(INTERNAL_INCONSISTENCY, "unreachable");
        }
        if (count == 0 && done == 0) {
            throw Exception(INTERNAL_INCONSISTENCY, "end of entry reached");
        }
        if (static_cast<std::uint32_t>(count) < round) { // some bytes came, not all
            throw Exception(INTERNAL_INCONSISTENCY, "partial read");
        }
        done += round;
    }
}

void ReadEnd(void* unzip, const Entry& entry) {
    const std::uint64_t padding =
        entry.allocated_size > entry.content_size ? entry.allocated_size - entry.content_size : 0;
    QOB_FAILURE_TRAIL(LazyTrail("in ReadEnd padding_size=%zu", static_cast<std::size_t>(padding)));

    if (padding > 0) {
        // Every byte is read before it is looked at, so the buffer needs no zeroing first.
        const auto size =
            static_cast<std::size_t>(std::min<std::uint64_t>(padding, kCopyBufferSize));
        const auto buffer = std::make_unique_for_overwrite<std::byte[]>(size);
        for (std::uint64_t remaining = padding; remaining > 0;) {
            const auto round = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, size));
            TryRead(unzip, buffer.get(), round);
            if (!MiniZip::Bytes::AllZero(buffer.get(), round)) {
                throw Exception(INTERNAL_INCONSISTENCY, "non-zero padding");
            }
            remaining -= round;
        }
    }
    CheckUnzipCall([&] { return unzCloseCurrentFile(unzip); });
}

Entry GetCurrent(void* unzip) {
    QOB_FAILURE_TRAIL("in GetCurrent");
    if (unzip == nullptr) {
        CheckUnzipResult(UNZ_PARAMERROR);
    }
    std::uint32_t offset = 0;
    CheckUnzipResult(unzGetCurrentFileLocalHeaderOffset(unzip, &offset));
    unz_file_info info{};
    CheckUnzipResult(unzGetCurrentFileInfo(unzip, &info, nullptr, 0, nullptr, 0, nullptr, 0));

    unz_global_info global{};
    CheckUnzipResult(unzGetGlobalInfo(unzip, &global));

    Entry entry;
    CheckUnzipResult(unzGetCurrentFilePosition(unzip, &entry.index, &entry.record_position));
    // Counted from the file's start: a stub in front of the archive shifts every entry.
    entry.data_offset = std::uint64_t{global.bytes_before} + offset + kLocalHeaderSize +
                        info.size_filename + info.size_file_extra + info.size_file_comment;
    entry.allocated_size = info.uncompressed_size;
    entry.time = FromDosDateTime(info.dosDate);
    entry.dos_time = info.dosDate;
    entry.crc = info.crc;
    entry.method = info.compression_method;
    CheckUnzipResult(unzGetCurrentFileDecodedName(unzip, &entry.path));

    // Only a stored entry can carry our content size field; on any other the extra field is
    // the format's tagged blocks, and another tool's 4-byte block is no size of ours.
    if (info.compression_method != kStored) {
        entry.content_size = entry.allocated_size;
        return entry;
    }
    // The length comes from a 2-byte field, so the buffer never exceeds 64 KiB.
    std::vector<std::byte> extra(info.size_file_extra);
    CheckUnzipResult(unzGetCurrentFileInfo(unzip, &info, nullptr, 0, extra.data(),
                                           static_cast<std::uint32_t>(extra.size()), nullptr, 0));
    entry.content_size = IntoContentSize(extra, entry.allocated_size);
    return entry;
}

std::uint64_t IntoContentSize(const std::vector<std::byte>& extra, std::uint64_t allocated) {
    QOB_FAILURE_TRAIL("in IntoContentSize");
    if (extra.size() != kFieldSize) {
        LogWarn(
            Format("IntoContentSize: field len expected=%zu actual=%zu", kFieldSize, extra.size()));
        return allocated;
    }
    const std::uint32_t content = std::to_integer<std::uint32_t>(extra[0]) |
                                  std::to_integer<std::uint32_t>(extra[1]) << 8 |
                                  std::to_integer<std::uint32_t>(extra[2]) << 16 |
                                  std::to_integer<std::uint32_t>(extra[3]) << 24;
    if (content == 0) {
        LogTrace("IntoContentSize: content size is zero");
        return allocated;
    }
    if (content > allocated) {
        LogWarn(Format("IntoContentSize: content=%u exceeds allocated=%zu", content,
                       static_cast<std::size_t>(allocated)));
        return allocated;
    }
    LogTrace(Format("IntoContentSize: content=%u allocated=%zu padding=%zu", content,
                    static_cast<std::size_t>(allocated),
                    static_cast<std::size_t>(allocated - content)));
    return content;
}

std::tm GetFileModificationTime(const std::filesystem::path& path) {
    const std::string narrow = PathToUtf8(path);
    const std::string trail = Format("in GetFileModificationTime path=\"%s\"", narrow.c_str());
    QOB_FAILURE_TRAIL(trail);

    std::int64_t seconds = Platform::CurrentTime();
    std::int64_t modified = -1;
    const bool known = Platform::FileModificationTime(path, modified);
    if (!known) {
        modified = -1; // a failed query leaves the record as preset
        LogWarn(Format("GetFileModificationTime: failed to stat \"%s\"", narrow.c_str()));
    }
    if (modified == -1) {
        LogWarn("GetFileModificationTime: invalid st_mtime");
    }
    if (known && modified != -1) {
        seconds = modified;
    } else {
        LogWarn("GetFileModificationTime: falling back to current time");
    }
    return Platform::LocalTime(seconds);
}

} // namespace QOB
