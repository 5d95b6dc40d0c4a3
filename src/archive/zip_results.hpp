// Turns the zip layer's integer results into QOB::Exception with fixed messages.
#pragma once

namespace QOB::MiniZip {

// Writer results: returns for 0, throws for anything else.
void CheckZipResult(int result);
// Reader results: returns for 0, throws for anything else.
void CheckUnzipResult(int result);

} // namespace QOB::MiniZip
