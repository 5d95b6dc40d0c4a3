#include "archive/recovery.hpp"

#include "archive/minizip/stream_access.hpp"
#include "archive/package_file.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"

#include <algorithm>
#include <vector>

namespace QOB {
namespace {

constexpr std::uint32_t kCopyChunk = 65536;

[[noreturn]] void CannotRestore(int error, const std::string& package) {
    throw Exception(CANNOT_READ_FILE_PCK, "failed to roll back an interrupted change",
                    Platform::SystemError(error), package);
}

} // namespace

void Repair(PackageFile& file, Journal& journal, bool announce) {
    const MiniZip::zlib_filefunc_def io = MiniZip::FileFunctions();
    Platform::FileStream* package = file.Stream();
    MiniZip::StreamAccess target(io, package);
    std::vector<std::uint8_t> buffer(kCopyChunk);
    for (const JournalRecord& record : journal.Records()) {
        for (std::uint64_t done = 0; done < record.length;) {
            const auto round = static_cast<std::uint32_t>(
                std::min<std::uint64_t>(record.length - done, kCopyChunk));
            if (!journal.ReadAt(io, package, record.offset + done, buffer.data(), round) ||
                !target.WriteAt(record.offset + done, buffer.data(), round)) {
                CannotRestore(Platform::FileError(package), file.Shown());
            }
            done += round;
        }
    }
    // Packages end below 4 GiB; a longer length is no cut this stream can make.
    if (journal.Length() > 0xFFFFFFFFu ||
        target.Truncate(static_cast<std::uint32_t>(journal.Length())) != 0) {
        CannotRestore(Platform::FileError(package), file.Shown());
    }
    int error = 0;
    if (!Platform::FileSyncData(package, error)) {
        CannotRestore(error, file.Shown());
    }
    // Only now may the journal go: until the package is whole on the device, it is the copy.
    if (!Platform::FileRemoveIn(file.Folder(), JournalName(file.Name()), journal.Facts(), error) ||
        !Platform::FolderSync(file.Folder(), error)) {
        CannotRestore(error, file.Shown());
    }
    if (!announce) {
        return;
    }
    LogWarn(Format(journal.Committed() ? "completed an interrupted change of package \"%s\""
                                       : "rolled back an interrupted change of package \"%s\"",
                   file.Shown().c_str()));
}

} // namespace QOB
