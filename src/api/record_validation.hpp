// Validity of the public records: every string field terminated inside its array, and every
// entry list consistent (count 0 with a null pointer, or count entries that are all valid).
#pragma once

#include <qob/qob.h>

#include <cstdint>

namespace QOB {

bool IsValid(const QOB_EntryInfo& entry) noexcept;
bool IsValidList(std::uint32_t count, const QOB_EntryInfo* entries) noexcept;
bool IsValid(const QOB_ImageFiles& files) noexcept;
bool IsValid(const QOB_PackageInfo& info) noexcept;
bool IsValid(const QOB_CreateArgs& args) noexcept;
bool IsValid(const QOB_UpdateArgs& args) noexcept;
bool IsValid(const QOB_ExtractArgs& args) noexcept;

// Throws INVALID_PARAMETER "argument contains invalid path" unless valid.
template <class Record> void RequireValid(const Record& record);

} // namespace QOB
