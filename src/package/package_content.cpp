#include "package/package_content.hpp"

#include "archive/defer.hpp"
#include "archive/failure_cause.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/utf8_path.hpp"

#include <fstream>
#include <vector>

namespace QOB {
namespace {

std::filesystem::path SourcePath(const QOB_EntryInfo& entry) {
    return PathFromUtf8(entry.szPath);
}

// The whole file, which must be exactly size bytes long. A failure names the file, and
// carries the system's reason when the system gave one.
std::vector<std::byte> ReadWholeFile(std::ifstream& in, std::uint64_t size,
                                     const std::filesystem::path& file) {
    std::vector<std::byte> bytes(static_cast<std::size_t>(size));
    Platform::ClearSystemError();
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    if (in.bad()) {
        CopyFailed("read error", Platform::LastSystemError(), file);
    }
    if (in.eof()) {
        CopyFailed("file smaller than expected", {}, file);
    }
    if (static_cast<std::uint64_t>(in.gcount()) != size) {
        CopyFailed("didn't read enough", {}, file);
    }
    if (in.peek() != std::ifstream::traits_type::eof()) {
        CopyFailed("file larger than expected", {}, file);
    }
    return bytes;
}

} // namespace

QobErrorCode_e ValidateData(const QOB_EntryInfo& entry) {
    QOB_FAILURE_TRAIL("in ValidateData");
    if (entry.ePackingType == QOB_PACK_FROM_FILE) {
        std::error_code error;
        // A folder of that name is no file to pack.
        const std::filesystem::file_status status =
            std::filesystem::status(SourcePath(entry), error);
        return entry.szPath[0] != '\0' && std::filesystem::exists(status) &&
                       !std::filesystem::is_directory(status)
                   ? SUCCESS
                   : FILE_NOT_FOUND;
    }
    if (entry.ePackingType == QOB_PACK_FROM_MEMORY && entry.pBuffer != nullptr &&
        entry.uBufferLength != 0) {
        return SUCCESS;
    }
    return INVALID_PARAMETER;
}

UpdateSteps GetUpdateSteps(Archive& archive, const Path& path, std::uint64_t size, bool compact) {
    QOB_FAILURE_TRAIL("in GetUpdateSteps");
    const bool exists = archive.Contains(path);
    UpdateSteps steps;
    std::uint64_t space = 0;
    if (exists) {
        Entry entry = archive.Get(path);
        space = entry.allocated_size;
        steps.storedName = std::move(entry.path);
    }
    // Single precision on purpose: the threshold must land where it always has.
    const float sizeF = static_cast<float>(size);
    const float threshold = static_cast<float>(space) * 0.8f;
    if (space < size || (compact && threshold > sizeF)) {
        steps.remove = exists;
        steps.insert = true;
    } else {
        steps.updateInPlace = exists;
        steps.insert = !exists;
    }
    return steps;
}

namespace {

// The steps shared by the guarded operations below; each of those logs its own context line.
void WriteFromMemory(Archive& archive, const Path& path, const std::byte* content,
                     std::size_t length, bool compact, std::size_t padding) {
    const UpdateSteps steps = GetUpdateSteps(archive, path, length, compact);
    if (steps.updateInPlace) {
        archive.Update(Path(steps.storedName), content, length);
    }
    if (steps.remove) {
        archive.Remove(Path(steps.storedName));
    }
    if (steps.insert) {
        archive.Insert(path, content, length, padding);
    }
    archive.Flush();
}

void WriteFromFile(Archive& archive, const Path& path, const std::filesystem::path& file,
                   bool compact, std::size_t padding) {
    Platform::ClearSystemError();
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw Exception(FILE_NOT_FOUND, "cannot open file", Platform::LastSystemError(),
                        PathToUtf8(file));
    }
    const std::uint64_t size = std::filesystem::file_size(file);
    const UpdateSteps steps = GetUpdateSteps(archive, path, size, compact);
    if (steps.updateInPlace) {
        // Read all first, so that a short or growing file leaves the package untouched.
        const std::vector<std::byte> bytes = ReadWholeFile(in, size, file);
        archive.Update(Path(steps.storedName), bytes.data(), bytes.size());
    }
    if (steps.remove) {
        archive.Remove(Path(steps.storedName));
    }
    if (steps.insert) {
        archive.Insert(path, file, padding);
    }
    archive.Flush();
}

// Writes entry's content (its file or its buffer, by ePackingType) under path.
void WriteEntry(Archive& archive, const QOB_EntryInfo& entry, const Path& path, bool compact) {
    switch (entry.ePackingType) {
    case QOB_PACK_FROM_MEMORY:
        WriteFromMemory(archive, path, static_cast<const std::byte*>(entry.pBuffer),
                        entry.uBufferLength, compact, entry.uReservedSpace);
        return;
    case QOB_PACK_FROM_FILE:
        WriteFromFile(archive, path, SourcePath(entry), compact, entry.uReservedSpace);
        return;
    default:
        throw Exception(INVALID_PARAMETER, "invalid QOB_CreateMode in ePackingType");
    }
}

} // namespace

void UpdateEntryFromMemory(Archive& archive, const Path& path, const std::byte* content,
                           std::size_t length, bool compact, std::size_t padding) {
    QOB_FAILURE_TRAIL("in UpdateEntryFromMemory");
    WriteFromMemory(archive, path, content, length, compact, padding);
}

void UpdateEntryFromFile(Archive& archive, const Path& path, const std::filesystem::path& file,
                         bool compact, const QOB_EntryInfo& entry) {
    QOB_FAILURE_TRAIL("in UpdateEntryFromFile");
    WriteFromFile(archive, path, file, compact, entry.uReservedSpace);
}

void UpdateFileInPackage(Archive& archive, const QOB_EntryInfo& entry, const Path& path,
                         bool compact) {
    QOB_FAILURE_TRAIL("in UpdateFileInPackage");
    WriteEntry(archive, entry, path, compact);
}

void AddFileToPackage(Archive& archive, const QOB_EntryInfo& entry, const Path& path) {
    QOB_FAILURE_TRAIL("in AddFileToPackage");
    // The same steps as an update: a second file that takes an existing name (a settings
    // file and a mask with the same extension, two profiles with one identifier) replaces
    // that entry instead of storing a duplicate that no lookup could tell apart.
    WriteEntry(archive, entry, path, false);
}

} // namespace QOB
