// QOBX_ReadEntry: a byte range of one entry into the host's buffer, with no state kept
// between calls.
#include "api/call_frame.hpp"

#include "archive/archive.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/utf8_path.hpp"

#include <qob/qob_ext.h>

namespace QOB {
namespace {

void ReadEntry(const char* szPackagePath, const char* szEntryName, std::uint64_t offset,
               void* buffer, std::uint32_t size, std::uint32_t* read) {
    QOB_FAILURE_TRAIL("in QOBX_ReadEntry");
    if (szPackagePath == nullptr || szEntryName == nullptr || read == nullptr ||
        (buffer == nullptr && size > 0)) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    *read = 0;
    Archive archive(PathFromUtf8(szPackagePath), true);
    // By the name exactly as stored: the host names what the listing gave it, which may
    // repeat a name in another letter case, or be one no lookup by path could find.
    for (const Entry& entry : archive.List()) {
        if (entry.path == szEntryName) {
            *read = static_cast<std::uint32_t>(
                archive.ReadRange(entry, offset, static_cast<std::byte*>(buffer), size));
            return;
        }
    }
    throw Exception(FILE_NOT_IN_PACKAGE,
                    Format("entry \"%s\" not found in package \"%s\"", szEntryName, szPackagePath),
                    {}, szEntryName);
}

} // namespace
} // namespace QOB

extern "C" QOB_API QobErrorCode_e QOBX_ReadEntry(const char* szPackagePath, const char* szEntryName,
                                                 uint64_t offset, void* buffer, uint32_t size,
                                                 uint32_t* read) {
    return QOB::CallGuarded(
        "QOBX_ReadEntry",
        [&] { QOB::ReadEntry(szPackagePath, szEntryName, offset, buffer, size, read); },
        {szPackagePath, QOBX_MAX_MESSAGE});
}
