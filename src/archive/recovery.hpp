// What becomes of a journal that belongs to its package (transaction.hpp says who may do
// which): applied in place, or laid over the package for reading.
#pragma once

#include "archive/journal.hpp"
#include "archive/minizip/io.hpp"

namespace QOB {

class PackageFile;

// Rolls the package back to its original bytes and length, or completes a committed change's
// cut, through the package's own descriptor; makes that durable, then deletes the journal.
// Logs one WARN line that names the package when announce is set (a journal left by another
// call). Throws when the package cannot be restored; the journal is then kept for the next
// attempt.
void Repair(PackageFile& file, Journal& journal, bool announce = true);

// A read-only table that shows the package as the journal describes it: its length, the
// saved regions over the package's bytes; writes and cuts are refused. Its streams come from
// OverlayStream, which takes a stream of the platform table; the journal must outlive them.
MiniZip::zlib_filefunc_def OverlayFunctions(Journal& journal) noexcept;
void* OverlayStream(void* packageStream);

} // namespace QOB
