// The calling thread's last-error record: what the last exported call that failed reported,
// cleared by one that succeeds. Filled by the call frame only.
#pragma once

#include <qob/qob_ext.h>

#include <string>

namespace QOB {

void ClearLastError() noexcept;
// Never throws: texts that do not fit are cut at a character boundary.
void SetLastError(QobErrorCode_e code, const std::string& message, int systemError,
                  const std::string& systemMessage, const std::string& subject) noexcept;

// The name hosts see for a result code: the header's spelling, "UNKNOWN" outside the list.
const char* CodeName(int code) noexcept;

} // namespace QOB
