// What the command-line tool needs beyond the public interface, from the library's own code:
// every zip entry with its framing checked, manifests checked against the zip, the names of
// the result codes and of the manifests, and entry times as text. Linked statically into the
// tool as part of qob_core; never exported from the shared library. Only standard types
// cross this header, so the tool sees none of the internals.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace QOB::Inspect {

// A failure of the library's code: its result code and message ("[NAME] text").
class Failure : public std::runtime_error {
public:
    Failure(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const noexcept { return code_; }

private:
    int code_;
};

struct EntryReport {
    std::string name; // exactly as stored
    std::uint64_t content_size = 0;
    std::uint64_t allocated_size = 0; // content plus reserved zero space
    std::uint64_t data_offset = 0;
    std::uint32_t dos_time = 0;
    bool checked = false; // content read back, CRC-32 and padding compared
    std::string problem;  // empty when checked and sound
};

struct VerifyReport {
    std::vector<EntryReport> entries;
    // Disagreements between manifests and zip, and manifests that cannot be read.
    std::vector<std::string> problems;
    bool Sound() const noexcept;
};

// The name of a result code as the header spells it ("invalid error code" when unknown).
const char* ResultName(int code) noexcept;
// The 23 manifest entry names, primary first.
std::span<const char* const> ManifestNames() noexcept;

// The log sink of the code linked here (the shared library has its own).
void SetLogSink(void (*fn)(int, const char*, void*), void* user);

// Every entry of the zip, in central directory order; with check, each one's content is
// read back. Runs under the machine-wide lock, like the library's calls. Throws Failure
// when the file cannot be opened as a zip.
std::vector<EntryReport> ListEntries(const std::string& package, bool check);

// Every entry read back, and manifests and zip compared: every path a manifest names is an
// entry, and every entry but the manifests is named by one.
VerifyReport Verify(const std::string& package);

// ISO 8601 text with the local offset ("2024-05-01T12:30:00+02:00") of a DOS time word;
// empty for 0 (no time) and for a word that is not a date.
std::string IsoTime(std::uint32_t dosTime);

} // namespace QOB::Inspect
