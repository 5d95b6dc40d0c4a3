// The zip writer: opening an archive for writing, adding stored or deflated entries, and
// closing it with its central directory.
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"
#include "archive/minizip/zip_writer_state.hpp"
#include "support/dos_time.hpp"

#include <new>

namespace QOB::MiniZip {
namespace {

constexpr std::size_t kDeflateOutput = 65536;
constexpr std::uint32_t kMaxField = 0xFFFF;
constexpr std::uint64_t kMaxSize = 0xFFFFFFFF;

std::uint32_t ToDosDate(const tm_zip& t) noexcept {
    return PackDosTime(t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

int WriteDeflateOutput(ZipWriter& writer, WriterEntry& entry) {
    const std::size_t produced = entry.output.size() - entry.deflate->avail_out;
    if (!writer.file.Write(entry.output.data(), static_cast<std::uint32_t>(produced))) {
        return ZIP_ERRNO;
    }
    entry.compressed += produced;
    entry.deflate->next_out = entry.output.data();
    entry.deflate->avail_out = static_cast<uInt>(entry.output.size());
    return ZIP_OK;
}

int FinishDeflate(ZipWriter& writer, WriterEntry& entry) {
    for (;;) {
        const int result = deflate(entry.deflate.get(), Z_FINISH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            return ZIP_INTERNALERROR;
        }
        if (const int written = WriteDeflateOutput(writer, entry); written != ZIP_OK) {
            return written;
        }
        if (result == Z_STREAM_END) {
            return ZIP_OK;
        }
    }
}

// Sizes and CRC go into the local header now that they are known: stored entries then
// need no data descriptor.
int PatchLocalHeader(ZipWriter& writer, const WriterEntry& entry) {
    const auto end = writer.file.Tell();
    if (!end) {
        return ZIP_ERRNO;
    }
    std::uint8_t fields[12];
    Bytes::Put32(fields, entry.record.crc);
    Bytes::Put32(fields + 4, entry.record.compressedSize);
    Bytes::Put32(fields + 8, entry.record.uncompressedSize);
    const bool patched =
        writer.file.WriteAt(std::uint64_t{entry.headerPosition} + 14, fields, sizeof fields);
    const bool back = writer.file.SeekTo(*end);
    return patched && back ? ZIP_OK : ZIP_ERRNO;
}

int CloseEntry(ZipWriter& writer) {
    std::unique_ptr<WriterEntry> entry = std::move(writer.entry);
    if (entry->deflate) {
        if (const int finished = FinishDeflate(writer, *entry); finished != ZIP_OK) {
            return finished;
        }
    }
    if (entry->compressed > kMaxSize || entry->uncompressed > kMaxSize) {
        // Sizes beyond 32 bits need zip64. The entry's bytes stay in the file, unlisted.
        return ZIP_PARAMERROR;
    }
    entry->record.crc = entry->crc;
    entry->record.compressedSize = static_cast<std::uint32_t>(entry->compressed);
    entry->record.uncompressedSize = static_cast<std::uint32_t>(entry->uncompressed);
    if (const int patched = PatchLocalHeader(writer, *entry); patched != ZIP_OK) {
        return patched;
    }
    writer.table.push_back(std::move(entry->record));
    return ZIP_OK;
}

int OpenEntry(ZipWriter& writer, const char* filename, const zip_fileinfo* info,
              const void* extraLocal, unsigned extraLocalSize, const void* extraGlobal,
              unsigned extraGlobalSize, const char* comment, int method, int level, int memLevel,
              int strategy) {
    if (writer.entry) {
        if (const int closed = CloseEntry(writer); closed != ZIP_OK) {
            return closed;
        }
    }
    auto entry = std::make_unique<WriterEntry>();
    CentralRecord& record = entry->record;
    record.name = filename != nullptr ? filename : "-";
    record.comment = comment != nullptr ? comment : "";
    if (record.name.size() > kMaxField || record.comment.size() > kMaxField ||
        extraLocalSize > kMaxField || extraGlobalSize > kMaxField ||
        (extraLocal == nullptr && extraLocalSize > 0) ||
        (extraGlobal == nullptr && extraGlobalSize > 0)) {
        return ZIP_PARAMERROR;
    }
    const auto* global = static_cast<const std::uint8_t*>(extraGlobal);
    if (global != nullptr) {
        record.extra.assign(global, global + extraGlobalSize);
    }
    record.method = static_cast<std::uint16_t>(method);
    if (info != nullptr) {
        record.dosDate = info->dosDate != 0 ? info->dosDate : ToDosDate(info->tmz_date);
        record.internalAttributes = static_cast<std::uint16_t>(info->internal_fa);
        record.externalAttributes = info->external_fa;
    }
    if (method == Z_DEFLATED_METHOD) {
        // The customary hint of the compression level in flag bits 1 and 2.
        if (level == 8 || level == 9) {
            record.flags |= 2;
        } else if (level == 2) {
            record.flags |= 4;
        } else if (level == 1) {
            record.flags |= 6;
        }
    }

    const auto position = writer.file.Tell();
    if (!position || *position < writer.bytesBefore) {
        return ZIP_ERRNO;
    }
    entry->headerPosition = *position;
    record.localHeaderOffset = *position - writer.bytesBefore;

    std::vector<std::uint8_t> header;
    AppendLocalHeader(header, record, extraLocal, extraLocalSize);
    if (!writer.file.Write(header.data(), static_cast<std::uint32_t>(header.size()))) {
        return ZIP_ERRNO;
    }

    if (method == Z_DEFLATED_METHOD) {
        DeflateStream stream(new z_stream{});
        if (memLevel < 1 || memLevel > MAX_MEM_LEVEL) {
            memLevel = 8;
        }
        // Raw deflate: the zip headers carry the CRC, so no zlib wrapper.
        if (deflateInit2(stream.get(), level, Z_DEFLATED, -MAX_WBITS, memLevel, strategy) != Z_OK) {
            return ZIP_PARAMERROR; // deflateEnd copes with a stream whose init failed
        }
        entry->deflate = std::move(stream);
        entry->output.resize(kDeflateOutput);
        entry->deflate->next_out = entry->output.data();
        entry->deflate->avail_out = static_cast<uInt>(entry->output.size());
    }
    writer.entry = std::move(entry);
    return ZIP_OK;
}

int WriteEntryData(ZipWriter& writer, const void* buffer, unsigned length) {
    WriterEntry& entry = *writer.entry;
    entry.crc = Crc32(entry.crc, buffer, length);
    entry.uncompressed += length;
    if (!entry.deflate) {
        if (!writer.file.Write(buffer, length)) {
            return ZIP_ERRNO;
        }
        entry.compressed += length;
        return ZIP_OK;
    }
    z_stream& stream = *entry.deflate;
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(buffer));
    stream.avail_in = length;
    while (stream.avail_in > 0) {
        if (deflate(&stream, Z_NO_FLUSH) == Z_STREAM_ERROR) {
            return ZIP_INTERNALERROR;
        }
        if (stream.avail_out == 0) {
            if (const int written = WriteDeflateOutput(writer, entry); written != ZIP_OK) {
                return written;
            }
        }
    }
    return ZIP_OK;
}

} // namespace

void DeflateStreamEnd::operator()(z_stream* stream) const noexcept {
    deflateEnd(stream);
    delete stream;
}

zipFile zipOpen2(const char* pathname, int append, const char** globalComment,
                 const zlib_filefunc_def* functions) {
    const zlib_filefunc_def io = functions != nullptr ? *functions : PlatformFileFunctions();
    int mode = 0;
    switch (append) {
    case APPEND_STATUS_CREATE:
        mode = kOpenRead | kOpenWrite | kOpenCreate;
        break;
    case APPEND_STATUS_CREATEAFTER:
    case APPEND_STATUS_ADDINZIP:
        mode = kOpenRead | kOpenWrite | kOpenExisting;
        break;
    default:
        return nullptr;
    }
    void* stream = StreamAccess::Open(io, pathname, mode);
    if (stream == nullptr) {
        return nullptr;
    }
    try {
        auto writer = std::make_unique<ZipWriter>(io, stream);
        bool ready = true;
        if (append == APPEND_STATUS_CREATEAFTER) {
            ready = writer->file.Size().has_value();
        } else if (append == APPEND_STATUS_ADDINZIP) {
            ready = LoadEntryTable(*writer) == ZIP_OK;
        }
        if (ready) {
            if (globalComment != nullptr) {
                *globalComment =
                    writer->globalComment.empty() ? nullptr : writer->globalComment.c_str();
            }
            return writer.release();
        }
    } catch (const std::bad_alloc&) {
    }
    StreamAccess(io, stream).Close();
    return nullptr;
}

int zipOpenNewFileInZip3(zipFile file, const char* filename, const zip_fileinfo* info,
                         const void* extraLocal, unsigned extraLocalSize, const void* extraGlobal,
                         unsigned extraGlobalSize, const char* comment, int method, int level,
                         int raw, int /*windowBits*/, int memLevel, int strategy,
                         const char* password, std::uint32_t /*crcForCrypting*/) {
    // Raw writing and encryption are not supported: refuse rather than write something
    // that readers would misunderstand.
    if (file == nullptr || (method != 0 && method != Z_DEFLATED_METHOD) || raw != 0 ||
        password != nullptr) {
        return ZIP_PARAMERROR;
    }
    try {
        return OpenEntry(*AsWriter(file), filename, info, extraLocal, extraLocalSize, extraGlobal,
                         extraGlobalSize, comment, method, level, memLevel, strategy);
    } catch (const std::bad_alloc&) {
        return ZIP_INTERNALERROR;
    }
}

int zipWriteInFileInZip(zipFile file, const void* buffer, unsigned length) {
    if (file == nullptr || !AsWriter(file)->entry || (buffer == nullptr && length > 0)) {
        return ZIP_PARAMERROR;
    }
    if (length == 0) {
        return ZIP_OK;
    }
    return WriteEntryData(*AsWriter(file), buffer, length);
}

int zipCloseFileInZip(zipFile file) {
    if (file == nullptr || !AsWriter(file)->entry) {
        return ZIP_PARAMERROR;
    }
    try {
        return CloseEntry(*AsWriter(file));
    } catch (const std::bad_alloc&) {
        return ZIP_INTERNALERROR;
    }
}

int zipClose(zipFile file, const char* globalComment) {
    if (file == nullptr) {
        return ZIP_PARAMERROR;
    }
    std::unique_ptr<ZipWriter> writer(AsWriter(file));
    int result = ZIP_OK;
    try {
        if (writer->entry) {
            result = CloseEntry(*writer);
        }
        const int written = WriteCentralDirectory(
            *writer, globalComment != nullptr ? std::string(globalComment) : writer->globalComment);
        if (result == ZIP_OK) {
            result = written;
        }
    } catch (const std::bad_alloc&) {
        result = ZIP_INTERNALERROR;
    }
    if (writer->file.Close() != 0 && result == ZIP_OK) {
        result = ZIP_ERRNO;
    }
    return result;
}

} // namespace QOB::MiniZip
