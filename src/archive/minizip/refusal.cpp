#include "archive/minizip/refusal.hpp"

#include "archive/minizip/unzip.hpp"

#include <algorithm>
#include <cstring>

namespace QOB::MiniZip {
namespace {

// Fixed storage: recording a reason never allocates, so it never fails.
thread_local char t_reason[256] = "";

} // namespace

void ClearRefusal() noexcept {
    t_reason[0] = '\0';
}

int Refuse(const char* reason) noexcept {
    const std::size_t length = std::min(std::strlen(reason), sizeof t_reason - 1);
    std::memcpy(t_reason, reason, length);
    t_reason[length] = '\0';
    return UNZ_BADZIPFILE;
}

const char* unzRefusal() noexcept {
    return t_reason;
}

} // namespace QOB::MiniZip
