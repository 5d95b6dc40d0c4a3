// The one object through which the system touches a package file: list, test, read and
// extract entries, insert new ones with reserved space, rewrite one in place, remove one.
// Every query goes to the file, with one exception: the content of small entries read and
// checked through this archive is kept, so that rewriting one with what it already holds
// (manifests, mostly) costs no second read. Every change is flushed before the call
// returns, so the file on disk is then a complete zip.
#pragma once

#include "archive/entry_framing.hpp"
#include "archive/path.hpp"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace QOB {

namespace MiniZip {
class Handle;
}

class Archive {
public:
    // should_exist true opens an existing archive (PACKAGE_NOT_FOUND if missing); false
    // creates a new one (CANNOT_REMOVE_FILE if the file exists).
    Archive(const std::filesystem::path& path, bool should_exist);
    // Flushes and swallows any failure.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    void Flush();
    // Flushes and closes the file; the archive can do nothing more afterwards.
    void Close();

    // Every entry, in central directory order.
    std::vector<Entry> List();
    // Letter case is ignored, as in every lookup by the reader.
    bool Contains(const Path& path);
    // FILE_NOT_IN_PACKAGE when there is no such entry.
    Entry Get(const Path& path);

    // The entry's content (without padding), checked: zero padding and CRC-32. An entry
    // whose stored or full size is above limit is refused (CANNOT_READ_FILE_PCK) before any
    // of it is read or inflated.
    std::vector<std::byte> Read(const Path& path, std::uint64_t limit = kMaxEntrySize);
    // The same into a caller's buffer of at least Get(path).content_size bytes; bytes
    // beyond the content are left untouched.
    void Read(const Path& path, std::byte* buffer, std::size_t length);
    // Up to size bytes of an entry that List returned, from offset on, into buffer; returns
    // how many (0 at or past the content's end). A read that reaches the content's end reads
    // the whole entry and checks it as Read does (zero padding, CRC-32); other reads of a
    // stored entry go straight to their bytes, those of a deflated one inflate from its start.
    std::size_t ReadRange(const Entry& entry, std::uint64_t offset, std::byte* buffer,
                          std::size_t size);
    // Reads the entry through a fixed buffer only to check it as Read does, at any size.
    void Check(const Path& path);
    // Writes the content into a file, creating missing directories; an existing file is
    // replaced when overwrite is set and refused otherwise. The file's name is never
    // followed if it is a link (INVALID_PARAMETER).
    void Extract(const Path& internal, const std::filesystem::path& external, bool overwrite);
    // Writes an entry that List returned, read by its own record, into relative below
    // destination, replacing an existing file. Nothing below destination is followed if it
    // is a link: such an entry fails with INVALID_PARAMETER before anything is written.
    // relative must be lexically normal and stay inside (no "..", no root).
    void Extract(const Entry& entry, const std::filesystem::path& destination,
                 const std::filesystem::path& relative);

    // Appends a new entry with padding zero bytes reserved behind the content; does not
    // check whether the name exists already. The file's modification time is kept.
    void Insert(const Path& internal, const std::filesystem::path& external, std::size_t padding);
    // The same from memory, stamped with the current local time.
    void Insert(const Path& path, const std::byte* content, std::size_t length,
                std::size_t padding);
    // Rewrites an existing entry in place (exact, case-sensitive name) inside its reserved
    // space; never moves other entries. Content longer than the entry's stored size fails
    // with INVALID_PARAMETER and leaves the file as it was.
    void Update(const Path& path, const std::byte* content, std::size_t length);
    // Deletes an entry (exact, case-sensitive name) and compacts the file.
    void Remove(const Path& path);

private:
    const char* Name() const noexcept;
    // The handle's sides; a failure to switch carries the system's reason.
    void* Zip();
    void* Unzip();
    void WriteOut(const Entry& entry, const std::filesystem::path& root,
                  const std::filesystem::path& relative);
    // Hands the open entry's next size bytes to sink, one buffer at a time.
    void ReadInRounds(void* unzip, std::uint64_t size,
                      const std::function<void(const std::byte*, std::size_t)>& sink);
    // True when the entry, named exactly, already holds this content and zero padding.
    bool Holds(const Path& path, const std::byte* content, std::size_t length);
    // Keeps what Read returned for the entry the reader stands on, if it is small.
    void KeepChecked(void* unzip, const Entry& entry,
                     const std::vector<std::byte>& content) noexcept;

    // An entry's content as read and checked (zero padding, CRC-32), with what identifies
    // the stored entry it came from. Only this archive writes the file while it is open
    // (the call holds the package's locks), so an entry stays as read until this archive
    // rewrites it (its record is dropped then) or moves entries (all are dropped).
    struct Checked {
        std::uint64_t data_offset = 0;
        std::uint64_t allocated_size = 0;
        std::uint32_t crc = 0;
        std::vector<std::byte> content;
    };
    std::map<std::string, Checked> checked_; // by the name exactly as stored
    std::size_t checkedBytes_ = 0;

    std::unique_ptr<MiniZip::Handle> handle_;
};

} // namespace QOB
