#include "archive/archive.hpp"

#include "archive/defer.hpp"
#include "archive/failure_cause.hpp"
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/unzip.hpp"
#include "archive/minizip/unzip_state.hpp"
#include "archive/minizip/zip.hpp"
#include "archive/zip_handle.hpp"
#include "archive/zip_results.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/progress.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <system_error>

namespace QOB {
namespace {

using namespace MiniZip;

// Logs an operation's description at TRACE now, and "in " plus it at ERROR if the
// operation is left by an exception.
class OperationTrail {
public:
    explicit OperationTrail(const std::string& text)
        : trail_("in " + text), guard_(DeferCondition::OnFailure, [this] { LogError(trail_); }) {
        LogTrace(text);
    }

private:
    std::string trail_;
    Deferred guard_;
};

// Rewrites of entries up to this size are compared with what is stored first (manifests,
// settings); larger ones are written without reading them back into memory.
constexpr std::uint64_t kMaxComparedSize = 4 * 1024 * 1024;

// What an archive keeps of the entries it read, at most (a package's manifests take about
// 15 KB).
constexpr std::size_t kMaxCheckedBytes = 1024 * 1024;

// The CRC-32 the central record of the entry the reader stands on gives.
std::optional<std::uint32_t> CurrentCrc(void* unzip) noexcept {
    unz_file_info info{};
    if (unzGetCurrentFileInfo(unzip, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK) {
        return std::nullopt;
    }
    return info.crc;
}

// Deflate expands at most about 1032 times; a claimed size beyond that cannot be real.
constexpr std::uint64_t kMaxInflateRatio = 1032;

// Before allocating or writing content_size bytes of the entry open for reading, makes sure
// that the file can hold them: the stored data must lie inside the file and explain the size.
// The file is measured as the reader found it: nothing has changed it since, as writing
// closes the reader.
void CheckEntryFitsFile(void* unzip, std::uint64_t content_size) {
    unz_global_info global{};
    CheckUnzipResult(unzGetGlobalInfo(unzip, &global));
    const std::uint64_t file_size = global.file_size;
    unz_file_info info{};
    CheckUnzipResult(unzGetCurrentFileInfo(unzip, &info, nullptr, 0, nullptr, 0, nullptr, 0));
    std::uint32_t offset = 0;
    CheckUnzipResult(unzGetCurrentFileLocalHeaderOffset(unzip, &offset));
    const std::uint64_t stored = info.compressed_size;
    const std::uint64_t limit =
        info.compression_method == 0 ? stored : stored * kMaxInflateRatio + 1024;
    if (std::uint64_t{global.bytes_before} + offset + 30 + stored > file_size ||
        content_size > limit) {
        CheckUnzipResult(UNZ_BADZIPFILE);
    }
}

// Refuses, from the central record alone, an entry too large for what the caller reads.
void CheckEntryWithin(void* unzip, const Entry& entry, std::uint64_t limit) {
    unz_file_info info{};
    CheckUnzipResult(unzGetCurrentFileInfo(unzip, &info, nullptr, 0, nullptr, 0, nullptr, 0));
    if (entry.allocated_size > limit || info.compressed_size > limit) {
        throw Exception(CANNOT_READ_FILE_PCK,
                        Format("entry too large: \"%s\" stored=%zu full=%zu limit=%zu",
                               entry.path.c_str(), static_cast<std::size_t>(info.compressed_size),
                               static_cast<std::size_t>(entry.allocated_size),
                               static_cast<std::size_t>(limit)));
    }
}

// The elements of a lexically normal relative path.
std::vector<std::filesystem::path> Components(const std::filesystem::path& relative) {
    std::vector<std::filesystem::path> parts;
    for (const auto& part : relative) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

// Where the stored data of the entry open for reading starts. The local header's name and
// extra field may differ in length from the central ones, so the central record alone cannot
// tell; the zip layer checked that header and its bounds when it opened the entry.
std::uint64_t OpenEntryDataStart(void* unzip) {
    const UnzReader& reader = *AsReader(unzip);
    const std::uint64_t header =
        std::uint64_t{reader.current.localHeaderOffset} + reader.end.bytesBefore;
    std::uint8_t lengths[4];
    CheckUnzipCall([&] {
        return AsReader(unzip)->file.ReadAt(header + 26, lengths, sizeof lengths) ? UNZ_OK
                                                                                  : UNZ_ERRNO;
    });
    return header + 30 + Bytes::Get16(lengths) + Bytes::Get16(lengths + 2);
}

// About how many bytes a removal moves: the entries stored behind the one named exactly so.
// Walks the directory without the listing's log lines; progress needs no more precision.
std::uint64_t BytesBehind(void* unzip, const std::string& name) {
    struct Stored {
        std::uint64_t start;
        std::uint64_t size;
    };
    std::vector<Stored> stored;
    std::optional<std::uint64_t> removed;
    std::string current;
    for (int result = unzGoToFirstFile(unzip); result == UNZ_OK; result = unzGoToNextFile(unzip)) {
        unz_file_info info{};
        std::uint32_t offset = 0;
        if (unzGetCurrentFileInfo(unzip, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK ||
            unzGetCurrentFileLocalHeaderOffset(unzip, &offset) != UNZ_OK) {
            return 0;
        }
        current.assign(info.size_filename, '\0');
        unzGetCurrentFileInfo(unzip, &info, current.data(), info.size_filename, nullptr, 0, nullptr,
                              0);
        if (!removed && current == name) {
            removed = offset;
        }
        stored.push_back({offset, std::uint64_t{30} + info.size_filename + info.size_file_extra +
                                      info.compressed_size});
    }
    std::uint64_t total = 0;
    for (const Stored& entry : stored) {
        total += removed && entry.start > *removed ? entry.size : 0;
    }
    return total;
}

// The handle; a failure to open it says why, as far as the system can tell.
std::unique_ptr<MiniZip::Handle> OpenHandle(const std::filesystem::path& path, bool should_exist) {
    Platform::ClearSystemError();
    try {
        return std::make_unique<MiniZip::Handle>(path, should_exist);
    } catch (Exception& e) {
        ExplainOpenFailure(e, path, should_exist);
        throw;
    }
}

// An output file not committed is removed: only checked content gets the final name.
struct OutputDiscarder {
    void operator()(Platform::OutputFile* file) const noexcept { Platform::OutputDiscard(file); }
};

} // namespace

Archive::Archive(const std::filesystem::path& path, bool should_exist)
    : handle_(OpenHandle(path, should_exist)) {
    LogDebug(Format("Archive::[\"%s\"] %s", Name(), should_exist ? "opening" : "creating"));
}

Archive::~Archive() {
    if (!handle_) {
        return;
    }
    try {
        LogTrace(Format("Archive::[\"%s\"] closing", Name()));
        Flush();
    } catch (...) {
    }
}

void* Archive::Zip() {
    return WithSystemCause([this] { return handle_->Zip(); });
}

void* Archive::Unzip() {
    return WithSystemCause([this] { return handle_->Unzip(); });
}

const char* Archive::Name() const noexcept {
    return handle_->Path().c_str();
}

void Archive::Flush() {
    const OperationTrail trail(Format("Archive::[\"%s\"]::Flush", Name()));
    WithSystemCause([this] { handle_->Flush(); });
}

void Archive::Close() {
    Flush();
    handle_.reset();
}

std::vector<Entry> Archive::List() {
    const OperationTrail trail(Format("Archive::[\"%s\"]::List", Name()));
    void* unzip = Unzip();
    std::vector<Entry> entries;
    int result = unzGoToFirstFile(unzip);
    while (result == UNZ_OK) {
        entries.push_back(GetCurrent(unzip));
        result = unzGoToNextFile(unzip);
    }
    if (result == UNZ_END_OF_LIST_OF_FILE) {
        return entries;
    }
    CheckUnzipResult(result);
    throw Exception(INTERNAL_INCONSISTENCY, "unreachable");
}

bool Archive::Contains(const Path& path) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Contains path=\"%s\"", Name(), path.CStr()));
    const int result = unzLocateFile(Unzip(), path.CStr());
    if (result == UNZ_END_OF_LIST_OF_FILE) {
        return false;
    }
    if (result == UNZ_OK) {
        return true;
    }
    CheckUnzipResult(result);
    throw Exception(INTERNAL_INCONSISTENCY, "unreachable");
}

Entry Archive::Get(const Path& path) {
    const OperationTrail trail(Format("Archive::[\"%s\"]::Get path=\"%s\"", Name(), path.CStr()));
    void* unzip = Unzip();
    CheckUnzipResult(unzLocateFile(unzip, path.CStr()));
    return GetCurrent(unzip);
}

std::vector<std::byte> Archive::Read(const Path& path, std::uint64_t limit) {
    const OperationTrail trail(Format("Archive::[\"%s\"]::Read path=\"%s\"", Name(), path.CStr()));
    const Entry entry = Get(path);
    void* unzip = Unzip();
    CheckEntryWithin(unzip, entry, limit);
    ReadBegin(unzip, entry);
    CheckEntryFitsFile(unzip, entry.content_size);
    std::vector<std::byte> content(static_cast<std::size_t>(entry.content_size));
    TryRead(unzip, content.data(), content.size());
    ReadEnd(unzip, entry);
    KeepChecked(unzip, entry, content);
    return content;
}

void Archive::KeepChecked(void* unzip, const Entry& entry,
                          const std::vector<std::byte>& content) noexcept {
    const std::optional<std::uint32_t> crc = CurrentCrc(unzip);
    if (!crc || entry.allocated_size > kMaxComparedSize ||
        checkedBytes_ + content.size() > kMaxCheckedBytes || checked_.count(entry.path) > 0) {
        return;
    }
    try {
        checked_[entry.path] = {entry.data_offset, entry.allocated_size, *crc, content};
        checkedBytes_ += content.size();
    } catch (const std::bad_alloc&) {
        checked_.erase(entry.path); // kept or not, the read itself succeeded
    }
}

void Archive::Read(const Path& path, std::byte* buffer, std::size_t length) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Read path=\"%s\" length=%zu", Name(), path.CStr(), length));
    if (buffer == nullptr) {
        throw Exception(INTERNAL_INCONSISTENCY, "missing pointer to buffer", {}, path.Sanitized());
    }
    const Entry entry = Get(path);
    if (length < entry.content_size) {
        throw Exception(INTERNAL_INCONSISTENCY,
                        Format("buffer too small: src=%zu dst=%zu",
                               static_cast<std::size_t>(entry.content_size), length),
                        {}, entry.path);
    }
    void* unzip = Unzip();
    ReadBegin(unzip, entry);
    TryRead(unzip, buffer, entry.content_size);
    ReadEnd(unzip, entry);
}

void Archive::Extract(const Path& internal, const std::filesystem::path& external, bool overwrite) {
    const std::string target = PathToUtf8(external);
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Extract int=\"%s\" ext=\"%s\" overwrite=%s", Name(),
               internal.CStr(), target.c_str(), overwrite ? "yes" : "no"));
    std::error_code ignored;
    if (!overwrite && std::filesystem::exists(std::filesystem::symlink_status(external, ignored))) {
        throw Exception(INTERNAL_INCONSISTENCY, "target exists");
    }
    WriteOut(Get(internal), external.parent_path(), external.filename());
}

void Archive::Extract(const Entry& entry, const std::filesystem::path& destination,
                      const std::filesystem::path& relative) {
    const std::string target = PathToUtf8(destination / relative);
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Extract int=\"%s\" ext=\"%s\" overwrite=%s", Name(),
               entry.path.c_str(), target.c_str(), "yes"));
    WriteOut(entry, destination, relative);
}

void Archive::WriteOut(const Entry& entry, const std::filesystem::path& root,
                       const std::filesystem::path& relative) {
    const std::filesystem::path base = root.empty() ? std::filesystem::path(".") : root;
    if (std::filesystem::create_directories(base)) {
        LogInfo(Format("Archive::Extract: created directory \"%s\"", PathToUtf8(base).c_str()));
    }
    void* unzip = Unzip();
    ReadBegin(unzip, entry);
    CheckEntryFitsFile(unzip, entry.content_size);

    Platform::CreateBelowResult created = Platform::CreateFileBelow(base, Components(relative));
    const std::string reached = PathToUtf8(base / created.at);
    if (created.status == Platform::CreateBelowResult::Status::ThroughLink) {
        throw Exception(INVALID_PARAMETER,
                        Format("entry \"%s\" would be written through a link: \"%s\"",
                               entry.path.c_str(), reached.c_str()));
    }
    if (created.status != Platform::CreateBelowResult::Status::Created) {
        throw std::filesystem::filesystem_error(
            "create_directories", base / created.at,
            std::error_code(created.error, std::system_category()));
    }
    std::unique_ptr<Platform::OutputFile, OutputDiscarder> out(created.file);
    if (created.replaced) {
        LogWarn(Format("Archive::Extract: overwriting \"%s\"", reached.c_str()));
    }
    if (created.createdDirectory) {
        LogInfo(Format("Archive::Extract: created directory \"%s\"",
                       PathToUtf8((base / relative).parent_path()).c_str()));
    }
    ReadInRounds(unzip, entry.content_size, [&](const std::byte* bytes, std::size_t length) {
        if (const std::error_code cause = Platform::OutputWrite(out.get(), bytes, length)) {
            CopyFailed("write error", cause, base / relative);
        }
        ProgressAdvance(length);
    });
    // Padding, size and CRC-32 are checked before the content takes the final name.
    ReadEnd(unzip, entry);
    if (const int error = Platform::OutputCommit(out.release()); error != 0) {
        CopyFailed("write error", Platform::SystemError(error), base / relative);
    }
}

std::size_t Archive::ReadRange(const Entry& entry, std::uint64_t offset, std::byte* buffer,
                               std::size_t size) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::ReadRange path=\"%s\" offset=%llu size=%zu", Name(),
               entry.path.c_str(), static_cast<unsigned long long>(offset), size));
    if (offset >= entry.content_size) {
        return 0;
    }
    const auto length =
        static_cast<std::size_t>(std::min<std::uint64_t>(size, entry.content_size - offset));
    void* unzip = Unzip();
    ReadBegin(unzip, entry);
    CheckEntryFitsFile(unzip, entry.content_size);
    const Deferred close(DeferCondition::Always, [unzip] { unzCloseCurrentFile(unzip); });
    const bool reachesEnd = offset + length == entry.content_size;
    if (!reachesEnd && entry.method == 0) {
        const std::uint64_t start = OpenEntryDataStart(unzip) + offset;
        CheckUnzipCall([&] {
            return AsReader(unzip)->file.ReadAt(start, buffer, static_cast<std::uint32_t>(length))
                       ? UNZ_OK
                       : UNZ_ERRNO;
        });
        return length;
    }
    ReadInRounds(unzip, offset, [](const std::byte*, std::size_t) {});
    TryRead(unzip, buffer, length);
    if (reachesEnd) {
        ReadEnd(unzip, entry);
    }
    return length;
}

void Archive::Check(const Path& path) {
    const OperationTrail trail(Format("Archive::[\"%s\"]::Check path=\"%s\"", Name(), path.CStr()));
    const Entry entry = Get(path);
    void* unzip = Unzip();
    ReadBegin(unzip, entry);
    CheckEntryFitsFile(unzip, entry.content_size);
    ReadInRounds(unzip, entry.content_size, [](const std::byte*, std::size_t) {});
    ReadEnd(unzip, entry);
}

void Archive::ReadInRounds(void* unzip, std::uint64_t size,
                           const std::function<void(const std::byte*, std::size_t)>& sink) {
    std::vector<std::byte> buffer(
        static_cast<std::size_t>(std::min<std::uint64_t>(size, kCopyBufferSize)));
    for (std::uint64_t remaining = size; remaining > 0;) {
        const auto round =
            static_cast<std::size_t>(std::min<std::uint64_t>(remaining, buffer.size()));
        TryRead(unzip, buffer.data(), round);
        sink(buffer.data(), round);
        remaining -= round;
    }
}

void Archive::Insert(const Path& internal, const std::filesystem::path& external,
                     std::size_t padding) {
    const std::string source = PathToUtf8(external);
    const OperationTrail trail(Format("Archive::[\"%s\"]::Insert int=\"%s\" ext=\"%s\" padding=%zu",
                                      Name(), internal.CStr(), source.c_str(), padding));
    void* zip = Zip();
    const std::uint64_t length = std::filesystem::file_size(external);
    const std::tm time = GetFileModificationTime(external);
    WriteBegin(zip, internal, time, length, padding);
    {
        std::ifstream in(external, std::ios::binary);
        std::vector<std::byte> buffer(kCopyBufferSize);
        for (std::uint64_t remaining = length; remaining > 0;) {
            const auto round =
                static_cast<std::size_t>(std::min<std::uint64_t>(remaining, buffer.size()));
            Platform::ClearSystemError();
            in.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(round));
            if (in.fail()) {
                CopyFailed("read error", Platform::LastSystemError(), external);
            }
            if (in.eof()) {
                CopyFailed("file smaller than expected", {}, external);
            }
            if (static_cast<std::size_t>(in.gcount()) < round) {
                CopyFailed("didn't read enough", {}, external);
            }
            CheckZipCall([&] {
                return zipWriteInFileInZip(zip, buffer.data(), static_cast<unsigned>(round));
            });
            ProgressAdvance(round);
            remaining -= round;
        }
        in.get();
        if (!in.eof()) {
            CopyFailed("file larger than expected", {}, external);
        }
    }
    WriteEnd(zip, padding);
    Flush();
}

void Archive::Insert(const Path& path, const std::byte* content, std::size_t length,
                     std::size_t padding) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Insert path=\"%s\" length=%zu padding=%zu", Name(), path.CStr(),
               length, padding));
    if (content == nullptr) {
        throw Exception(INTERNAL_INCONSISTENCY, "missing pointer to content");
    }
    void* zip = Zip();
    const std::tm time = Platform::LocalTime(Platform::CurrentTime());
    WriteBegin(zip, path, time, length, padding);
    CheckZipCall([&] { return zipWriteInFileInZip(zip, content, static_cast<unsigned>(length)); });
    ProgressAdvance(length);
    WriteEnd(zip, padding);
    Flush();
}

void Archive::Update(const Path& path, const std::byte* content, std::size_t length) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Update path=\"%s\" length=%zu", Name(), path.CStr(), length));
    if (content == nullptr) {
        throw Exception(INTERNAL_INCONSISTENCY, "missing pointer to content");
    }
    if (length > kMaxEntrySize) {
        throw Exception(INTERNAL_INCONSISTENCY, "entry too large");
    }
    // A rewrite of the bytes already there changes nothing, yet would cost a write, a
    // journal record and a new central directory: manifests are mostly rewritten unchanged.
    if (Holds(path, content, length)) {
        return;
    }
    // The entry is about to change: what was kept of it no longer describes it.
    if (const auto kept = checked_.find(path.Sanitized()); kept != checked_.end()) {
        checkedBytes_ -= kept->second.content.size();
        checked_.erase(kept);
    }
    void* zip = Zip();
    CheckZipCall([&] {
        return zipReplaceFileInZip(zip, path.CStr(), content, static_cast<std::uint32_t>(length));
    });
    Flush();
}

bool Archive::Holds(const Path& path, const std::byte* content, std::size_t length) {
    void* unzip = Unzip();
    if (unzLocateFile(unzip, path.CStr()) != UNZ_OK) {
        return false;
    }
    const Entry entry = GetCurrent(unzip);
    // The lookup ignores letter case; a rewrite names its entry exactly.
    if (entry.path != path.Sanitized() || entry.content_size != length ||
        entry.allocated_size > kMaxComparedSize) {
        return false;
    }
    // Read and checked by this archive, and unchanged since: no need to read it again.
    if (const auto kept = checked_.find(entry.path); kept != checked_.end()) {
        const Checked& checked = kept->second;
        if (checked.data_offset == entry.data_offset &&
            checked.allocated_size == entry.allocated_size && CurrentCrc(unzip) == checked.crc &&
            checked.content.size() == length) {
            return length == 0 || std::memcmp(content, checked.content.data(), length) == 0;
        }
    }
    if (unzOpenCurrentFile(unzip) != UNZ_OK) {
        return false;
    }
    // Content and zero padding as a rewrite would leave them; closing checks the CRC-32.
    const auto allocated = static_cast<std::size_t>(entry.allocated_size);
    const auto stored = std::make_unique_for_overwrite<std::byte[]>(allocated);
    const int count =
        unzReadCurrentFile(unzip, stored.get(), static_cast<std::uint32_t>(allocated));
    const bool same = count >= 0 && static_cast<std::size_t>(count) == allocated &&
                      (length == 0 || std::memcmp(content, stored.get(), length) == 0) &&
                      MiniZip::Bytes::AllZero(stored.get() + length, allocated - length);
    return unzCloseCurrentFile(unzip) == UNZ_OK && same;
}

void Archive::Remove(const Path& path) {
    const OperationTrail trail(
        Format("Archive::[\"%s\"]::Remove path=\"%s\"", Name(), path.CStr()));
    ProgressScope progress(ProgressWanted() ? BytesBehind(Unzip(), path.Sanitized()) : 0);
    // Entries behind the removed one move.
    checked_.clear();
    checkedBytes_ = 0;
    CheckZipCall([&] { return zipRemoveFileInZip(Zip(), path.CStr()); });
    Flush();
    progress.Finish();
}

} // namespace QOB
