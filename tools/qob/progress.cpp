#include "progress.hpp"

#include "host_platform.hpp"

#include <qob/qob_ext.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qobtool {
namespace {

constexpr int kBarWidth = 30;
constexpr int kLineWidth = 79;

std::chrono::milliseconds DelayFromEnvironment() {
    const char* text = std::getenv("QOB_PROGRESS_DELAY");
    unsigned value = 1000;
    if (text != nullptr) {
        std::from_chars(text, text + std::strlen(text), value);
    }
    return std::chrono::milliseconds(value);
}

std::string Size(std::uint64_t bytes) {
    char text[32];
    if (bytes >= (std::uint64_t{1} << 30)) {
        std::snprintf(text, sizeof text, "%.1f GiB", static_cast<double>(bytes) / (1 << 30));
    } else {
        std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
    }
    return text;
}

void Forward(std::uint64_t done, std::uint64_t total, void* user) {
    static_cast<ProgressBar*>(user)->Update(done, total);
}

} // namespace

ProgressBar::ProgressBar(std::string label, bool enabled)
    : label_(std::move(label)), enabled_(enabled), start_(Clock::now()),
      delay_(DelayFromEnvironment()) {}

ProgressBar::~ProgressBar() {
    Finish();
}

void ProgressBar::Update(std::uint64_t done, std::uint64_t total) {
    const Clock::time_point now = Clock::now();
    if (!enabled_ || total == 0 || now - start_ < delay_ ||
        (drawn_ && now - lastDraw_ < std::chrono::milliseconds(100) && done < total)) {
        return;
    }
    done = done < total ? done : total;
    const auto filled = static_cast<int>(done * kBarWidth / total);
    const auto percent = static_cast<int>(done * 100 / total);
    char line[160];
    std::snprintf(line, sizeof line, "\r%.20s [%.*s%*s] %3d%%  %s of %s", label_.c_str(), filled,
                  "##############################", kBarWidth - filled, "", percent,
                  Size(done).c_str(), Size(total).c_str());
    std::fputs(line, stderr);
    std::fflush(stderr);
    drawn_ = true;
    lastDraw_ = now;
}

void ProgressBar::Finish() {
    if (drawn_) {
        std::fprintf(stderr, "\r%*s\r", kLineWidth, "");
        std::fflush(stderr);
        drawn_ = false;
    }
}

LibraryProgress::LibraryProgress(ProgressBar& bar) {
    QOBX_SetProgressFn(&Forward, &bar);
}

LibraryProgress::~LibraryProgress() {
    QOBX_SetProgressFn(nullptr, nullptr);
}

bool ProgressWanted(bool quiet) {
    return !quiet && IsTerminal(stderr);
}

} // namespace qobtool
