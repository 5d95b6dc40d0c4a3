// The zip reader: opening an archive, walking its central directory, locating entries and
// reporting their information.
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/entry_name.hpp"
#include "archive/minizip/unzip_state.hpp"
#include "support/dos_time.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QOB::MiniZip {
namespace {

// Directories up to this size are kept in memory; larger ones are read from the file.
constexpr std::uint64_t kMaxCachedDirectory = 16u << 20;

void LoadDirectory(UnzReader& reader) {
    const std::uint64_t start = reader.end.DirectoryStart();
    const std::uint64_t size = reader.end.DirectoryEnd() - start;
    if (size == 0 || size > kMaxCachedDirectory) {
        return;
    }
    // The end record was checked against the file, so the file holds these bytes.
    reader.directory.resize(static_cast<std::size_t>(size));
    if (!reader.file.ReadAt(start, reader.directory.data(), static_cast<std::uint32_t>(size))) {
        reader.directory.clear();
    }
}

// size bytes of the directory at file position `position`, from memory when loaded.
bool ReadDirectory(UnzReader& reader, std::uint64_t position, void* buffer, std::uint32_t size) {
    if (size == 0) {
        return true; // a record without name, extra field and comment has nothing more
    }
    const std::uint64_t start = reader.end.DirectoryStart();
    if (!reader.directory.empty() && position >= start &&
        position - start + size <= reader.directory.size()) {
        std::memcpy(buffer, reader.directory.data() + (position - start), size);
        return true;
    }
    return reader.file.ReadAt(position, buffer, size);
}

// Reads the central record at `position`, which must lie wholly inside the directory.
int ReadRecord(UnzReader& reader, std::uint64_t position, CentralRecord& record) {
    const std::uint64_t directoryEnd = reader.end.DirectoryEnd();
    std::uint8_t header[kCentralHeaderSize];
    VariableLengths lengths;
    if (position + kCentralHeaderSize > directoryEnd) {
        return UNZ_BADZIPFILE;
    }
    if (!ReadDirectory(reader, position, header, kCentralHeaderSize)) {
        return UNZ_ERRNO;
    }
    if (!ParseCentralHeader(header, record, lengths) ||
        position + kCentralHeaderSize + lengths.Total() > directoryEnd) {
        return UNZ_BADZIPFILE;
    }
    std::vector<std::uint8_t> variable(lengths.Total());
    if (!ReadDirectory(reader, position + kCentralHeaderSize, variable.data(), lengths.Total())) {
        return UNZ_ERRNO;
    }
    AssignVariableFields(variable.data(), lengths, record);
    return UNZ_OK;
}

int GoTo(UnzReader& reader, std::uint32_t index, std::uint64_t position) {
    reader.currentValid = false;
    if (reader.unsupported != nullptr) {
        return Refuse(reader.unsupported);
    }
    const int result = ReadRecord(reader, position, reader.current);
    if (result == UNZ_OK) {
        const CentralRecord& record = reader.current;
        reader.currentName = DecodeName(
            {record.name, record.flags, record.method, record.extra.data(), record.extra.size()});
        reader.currentValid = true;
        reader.index = index;
        reader.recordPosition = static_cast<std::uint32_t>(position);
    }
    return result;
}

int GoToFirst(UnzReader& reader) {
    if (reader.unsupported != nullptr) {
        reader.currentValid = false;
        return Refuse(reader.unsupported);
    }
    if (reader.end.entryCount == 0) {
        reader.currentValid = false;
        return UNZ_END_OF_LIST_OF_FILE; // an empty archive: nothing to stand on
    }
    return GoTo(reader, 0, reader.end.DirectoryStart());
}

int GoToNext(UnzReader& reader) {
    if (!reader.currentValid || std::uint32_t{reader.index} + 1 >= reader.end.entryCount) {
        return UNZ_END_OF_LIST_OF_FILE;
    }
    return GoTo(reader, reader.index + 1, reader.recordPosition + reader.current.StoredSize());
}

bool SameNameIgnoringCase(const char* stored, const char* wanted, std::size_t length) {
    const auto fold = [](unsigned char c) {
        return c >= 'a' && c <= 'z' ? static_cast<unsigned char>(c - 'a' + 'A') : c;
    };
    for (std::size_t i = 0; i < length; ++i) {
        if (fold(static_cast<unsigned char>(stored[i])) !=
            fold(static_cast<unsigned char>(wanted[i]))) {
            return false;
        }
    }
    return true;
}

// Records where each name of the in-memory directory lies and the form a lookup compares,
// stopping at a damaged record.
void IndexNames(UnzReader& reader) {
    const std::vector<std::uint8_t>& directory = reader.directory;
    reader.names.clear();
    reader.keys.clear();
    reader.names.reserve(reader.end.entryCount);
    std::size_t offset = 0;
    for (std::uint32_t index = 0; index < reader.end.entryCount; ++index) {
        if (directory.size() - offset < kCentralHeaderSize) {
            reader.damagedAfterNames = true;
            break;
        }
        const std::uint8_t* header = directory.data() + offset;
        VariableLengths lengths;
        lengths.name = Bytes::Get16(header + 28);
        lengths.extra = Bytes::Get16(header + 30);
        lengths.comment = Bytes::Get16(header + 32);
        if (Bytes::Get32(header) != kCentralHeaderSignature ||
            directory.size() - offset - kCentralHeaderSize < lengths.Total()) {
            reader.damagedAfterNames = true;
            break;
        }
        const std::string_view stored(reinterpret_cast<const char*>(header + kCentralHeaderSize),
                                      lengths.name);
        const StoredName name{stored, Bytes::Get16(header + 8), Bytes::Get16(header + 10),
                              header + kCentralHeaderSize + lengths.name, lengths.extra};
        std::uint32_t key = UnzReader::kStoredKey;
        if (!IsPlainName(name)) {
            key = static_cast<std::uint32_t>(reader.keys.size());
            reader.keys.push_back(LookupKey(DecodeName(name)));
        }
        reader.names.push_back({static_cast<std::uint32_t>(offset), key, lengths.name});
        offset += kCentralHeaderSize + lengths.Total();
    }
    reader.namesIndexed = true;
}

int RefuseTwins(const std::string& name) noexcept {
    char reason[256];
    std::snprintf(reason, sizeof reason, "two entries are named \"%.200s\"", name.c_str());
    return Refuse(reason);
}

// The lookup over a directory held in memory: plain names are compared where they lie and
// only the match is parsed, so a package read (dozens of lookups) allocates nothing per
// record. Stops at a damaged record exactly where the walk would, leaving the current entry
// as it was.
int LocateInMemory(UnzReader& reader, const std::string& name) {
    if (!reader.namesIndexed) {
        IndexNames(reader);
    }
    auto key = [&](const UnzReader::NameSlot& slot) {
        if (slot.key != UnzReader::kStoredKey) {
            return std::string_view(reader.keys[slot.key]);
        }
        return std::string_view(reinterpret_cast<const char*>(reader.directory.data() +
                                                              slot.offset + kCentralHeaderSize),
                                slot.length);
    };
    // An exact match wins over an earlier one that differs in case only; two exact matches
    // are one name for two entries, and which one a reader shows is anybody's guess.
    std::optional<std::uint32_t> exact;
    std::optional<std::uint32_t> folded;
    for (std::uint32_t index = 0; index < reader.names.size(); ++index) {
        const std::string_view stored = key(reader.names[index]);
        if (stored.size() != name.size()) {
            continue;
        }
        if (stored == name) {
            if (exact) {
                return RefuseTwins(name);
            }
            exact = index;
        } else if (!folded && SameNameIgnoringCase(stored.data(), name.data(), name.size())) {
            folded = index;
        }
    }
    if (exact) {
        return GoTo(reader, *exact, reader.end.DirectoryStart() + reader.names[*exact].offset);
    }
    if (reader.damagedAfterNames) {
        return UNZ_BADZIPFILE;
    }
    if (folded) {
        return GoTo(reader, *folded, reader.end.DirectoryStart() + reader.names[*folded].offset);
    }
    return UNZ_END_OF_LIST_OF_FILE;
}

int Locate(UnzReader& reader, const char* wanted) {
    const std::string name(wanted);
    if (name.size() >= UNZ_MAXFILENAMEINZIP) {
        return UNZ_PARAMERROR;
    }
    if (reader.unsupported != nullptr) {
        return Refuse(reader.unsupported);
    }
    if (!reader.directory.empty()) {
        return LocateInMemory(reader, name);
    }
    const bool savedValid = reader.currentValid;
    const std::uint32_t savedIndex = reader.index;
    const std::uint32_t savedPosition = reader.recordPosition;
    CentralRecord saved = reader.current;
    std::string savedName = reader.currentName;

    // The first entry that differs in case only is the answer unless one matches exactly:
    // "MANIFEST.XML" listed first must not hide "manifest.xml".
    std::optional<std::pair<std::uint32_t, std::uint32_t>> exact;
    std::optional<std::pair<std::uint32_t, std::uint32_t>> folded;
    int step = GoToFirst(reader);
    for (; step == UNZ_OK; step = GoToNext(reader)) {
        const std::string key = LookupKey(reader.currentName);
        if (key.size() != name.size()) {
            continue;
        }
        if (key == name) {
            if (exact) {
                return RefuseTwins(name);
            }
            exact.emplace(reader.index, reader.recordPosition);
        } else if (!folded && SameNameIgnoringCase(key.data(), name.data(), name.size())) {
            folded.emplace(reader.index, reader.recordPosition);
        }
    }
    if (exact) {
        return GoTo(reader, exact->first, exact->second);
    }
    if (folded && step == UNZ_END_OF_LIST_OF_FILE) {
        return GoTo(reader, folded->first, folded->second);
    }
    reader.currentValid = savedValid;
    reader.index = savedIndex;
    reader.recordPosition = savedPosition;
    reader.current = std::move(saved);
    reader.currentName = std::move(savedName);
    return step; // the end of the list, or what stopped the walk
}

tm_unz ToTime(std::uint32_t dosDate) noexcept {
    const DosFields fields = UnpackDosTime(dosDate);
    tm_unz t{};
    t.tm_mday = fields.day;
    t.tm_mon = fields.month - 1; // a month of 0 wraps, as it always did
    t.tm_year = fields.year;
    t.tm_hour = fields.hour;
    t.tm_min = fields.minute;
    t.tm_sec = fields.second;
    return t;
}

void CopyOut(const void* source, std::size_t size, void* target, std::uint32_t capacity) {
    if (target != nullptr && capacity > 0 && size > 0) {
        std::memcpy(target, source, std::min<std::size_t>(size, capacity));
    }
}

} // namespace

unzFile unzOpen2(const char* path, const zlib_filefunc_def* functions) {
    ClearRefusal();
    const zlib_filefunc_def io = functions != nullptr ? *functions : PlatformFileFunctions();
    void* stream = StreamAccess::Open(io, path, kOpenRead | kOpenExisting);
    if (stream == nullptr) {
        return nullptr;
    }
    try {
        auto reader = std::make_unique<UnzReader>(io, stream);
        const int found = FindEndRecord(reader->file, reader->end);
        if (found == UNZ_OK) {
            LoadDirectory(*reader);
            GoToFirst(*reader);
            return reader.release();
        }
        // An archive of a refused kind opens, so that its first walk or lookup can say why.
        if (found == UNZ_BADZIPFILE && reader->end.unsupported != nullptr) {
            reader->unsupported = reader->end.unsupported;
            reader->end = EndRecord{};
            Refuse(reader->unsupported);
            return reader.release();
        }
    } catch (const std::bad_alloc&) {
    }
    StreamAccess(io, stream).Close();
    return nullptr;
}

int unzClose(unzFile file) {
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    std::unique_ptr<UnzReader> reader(AsReader(file));
    if (reader->entry) {
        unzCloseCurrentFile(file);
    }
    reader->file.Close();
    return UNZ_OK;
}

int unzGetGlobalInfo(unzFile file, unz_global_info* info) {
    if (file == nullptr || info == nullptr) {
        return UNZ_PARAMERROR;
    }
    info->number_entry = AsReader(file)->end.entryCount;
    info->size_comment = static_cast<std::uint32_t>(AsReader(file)->end.comment.size());
    info->file_size = AsReader(file)->end.fileSize;
    info->bytes_before = AsReader(file)->end.bytesBefore;
    return UNZ_OK;
}

int unzGoToFirstFile(unzFile file) {
    ClearRefusal();
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    try {
        return GoToFirst(*AsReader(file));
    } catch (const std::bad_alloc&) {
        AsReader(file)->currentValid = false;
        return UNZ_INTERNALERROR;
    }
}

int unzGoToNextFile(unzFile file) {
    ClearRefusal();
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    try {
        return GoToNext(*AsReader(file));
    } catch (const std::bad_alloc&) {
        AsReader(file)->currentValid = false;
        return UNZ_INTERNALERROR;
    }
}

int unzLocateFile(unzFile file, const char* name) {
    ClearRefusal();
    if (file == nullptr || name == nullptr) {
        return UNZ_PARAMERROR;
    }
    try {
        return Locate(*AsReader(file), name);
    } catch (const std::bad_alloc&) {
        AsReader(file)->currentValid = false;
        return UNZ_INTERNALERROR;
    }
}

int unzGetCurrentFileInfo(unzFile file, unz_file_info* info, char* name, std::uint32_t nameSize,
                          void* extra, std::uint32_t extraSize, char* comment,
                          std::uint32_t commentSize) {
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    const UnzReader& reader = *AsReader(file);
    if (!reader.currentValid) {
        return UNZ_END_OF_LIST_OF_FILE;
    }
    const CentralRecord& record = reader.current;
    if (info != nullptr) {
        info->version = record.versionMadeBy;
        info->version_needed = record.versionNeeded;
        info->flag = record.flags;
        info->compression_method = record.method;
        info->dosDate = record.dosDate;
        info->crc = record.crc;
        info->compressed_size = record.compressedSize;
        info->uncompressed_size = record.uncompressedSize;
        info->size_filename = static_cast<std::uint32_t>(record.name.size());
        info->size_file_extra = static_cast<std::uint32_t>(record.extra.size());
        info->size_file_comment = static_cast<std::uint32_t>(record.comment.size());
        info->disk_num_start = record.diskStart;
        info->internal_fa = record.internalAttributes;
        info->external_fa = record.externalAttributes;
        info->tmu_date = ToTime(record.dosDate);
    }
    CopyOut(record.name.data(), record.name.size(), name, nameSize);
    if (name != nullptr && record.name.size() < nameSize) {
        name[record.name.size()] = '\0';
    }
    CopyOut(record.extra.data(), record.extra.size(), extra, extraSize);
    CopyOut(record.comment.data(), record.comment.size(), comment, commentSize);
    if (comment != nullptr && record.comment.size() < commentSize) {
        comment[record.comment.size()] = '\0';
    }
    return UNZ_OK;
}

int unzGetCurrentFileDecodedName(unzFile file, std::string* name) {
    if (file == nullptr || name == nullptr) {
        return UNZ_PARAMERROR;
    }
    const UnzReader& reader = *AsReader(file);
    if (!reader.currentValid) {
        return UNZ_END_OF_LIST_OF_FILE;
    }
    try {
        *name = reader.currentName;
    } catch (const std::bad_alloc&) {
        return UNZ_INTERNALERROR;
    }
    return UNZ_OK;
}

int unzGetCurrentFilePosition(unzFile file, std::uint32_t* index, std::uint32_t* recordPosition) {
    if (file == nullptr || index == nullptr || recordPosition == nullptr) {
        return UNZ_PARAMERROR;
    }
    const UnzReader& reader = *AsReader(file);
    if (!reader.currentValid) {
        return UNZ_END_OF_LIST_OF_FILE;
    }
    *index = reader.index;
    *recordPosition = reader.recordPosition;
    return UNZ_OK;
}

int unzGoToFilePosition(unzFile file, std::uint32_t index, std::uint32_t recordPosition) {
    ClearRefusal();
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    UnzReader& reader = *AsReader(file);
    if (index >= reader.end.entryCount || recordPosition < reader.end.DirectoryStart() ||
        recordPosition >= reader.end.DirectoryEnd()) {
        return UNZ_PARAMERROR;
    }
    if (reader.entry) {
        unzCloseCurrentFile(file);
    }
    try {
        return GoTo(reader, index, recordPosition);
    } catch (const std::bad_alloc&) {
        reader.currentValid = false;
        return UNZ_INTERNALERROR;
    }
}

int unzGetCurrentFileLocalHeaderOffset(unzFile file, std::uint32_t* offset) {
    if (file == nullptr || offset == nullptr) {
        return UNZ_PARAMERROR;
    }
    if (!AsReader(file)->currentValid) {
        return UNZ_END_OF_LIST_OF_FILE;
    }
    *offset = AsReader(file)->current.localHeaderOffset;
    return UNZ_OK;
}

} // namespace QOB::MiniZip
