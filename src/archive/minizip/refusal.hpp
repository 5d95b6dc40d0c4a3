// Why the reader refused an archive or an entry, in words a user can act on ("zip64 archives
// are not supported"). The zip layer's results are bare codes; the reason travels beside
// them, per thread, from the reader call that refused to the result check that reports it.
#pragma once

namespace QOB::MiniZip {

// Forgets the reason of an earlier call: every reader call that can refuse starts with it.
void ClearRefusal() noexcept;
// Records the reason (cut to 255 bytes) and returns UNZ_BADZIPFILE.
int Refuse(const char* reason) noexcept;
// Why the last reader call on this thread refused; "" when it gave no reason.
const char* unzRefusal() noexcept;

} // namespace QOB::MiniZip
