// QOBX_ListEntries: every zip entry of a package, into the host's array.
#include "api/call_frame.hpp"

#include "archive/archive.hpp"
#include "support/dos_time.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/utf8_path.hpp"

#include <qob/qob_ext.h>

#include <cstring>

namespace QOB {
namespace {

void Describe(const Entry& entry, QOBX_EntryStat& stat) {
    if (entry.path.size() >= sizeof stat.name) {
        // Cut, the name would lead the host to another entry or to none.
        throw Exception(CANNOT_READ_FILE_PCK,
                        Format("entry name of %zu bytes is too long to list", entry.path.size()),
                        {}, entry.path);
    }
    std::memset(&stat, 0, sizeof stat);
    std::memcpy(stat.name, entry.path.data(), entry.path.size());
    stat.contentSize = entry.content_size;
    stat.allocatedSize = entry.allocated_size;
    stat.dataOffset = entry.data_offset;
    stat.crc32 = entry.crc;
    stat.method = entry.method;
    stat.dosTime = entry.dos_time;
    stat.unixTime = DosTimeToUnix(entry.dos_time);
}

void ListEntries(const char* szPackagePath, QOBX_EntryStat* entries, std::uint32_t capacity,
                 std::uint32_t* count) {
    QOB_FAILURE_TRAIL("in QOBX_ListEntries");
    if (szPackagePath == nullptr || count == nullptr || (entries == nullptr && capacity > 0)) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    Archive archive(PathFromUtf8(szPackagePath), true);
    const std::vector<Entry> listed = archive.List();
    for (std::size_t i = 0; i < listed.size() && i < capacity; ++i) {
        Describe(listed[i], entries[i]);
    }
    // A classic zip holds at most 65535 entries.
    *count = static_cast<std::uint32_t>(listed.size());
}

} // namespace
} // namespace QOB

extern "C" QOB_API QobErrorCode_e QOBX_ListEntries(const char* szPackagePath,
                                                   QOBX_EntryStat* entries, uint32_t capacity,
                                                   uint32_t* count) {
    return QOB::CallGuarded("QOBX_ListEntries",
                            [&] { QOB::ListEntries(szPackagePath, entries, capacity, count); },
                            {szPackagePath, QOBX_MAX_MESSAGE});
}
