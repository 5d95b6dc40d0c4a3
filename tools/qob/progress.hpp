// A progress bar on standard error for work that takes a while: shown only on a terminal,
// only once the work has run for a second (QOB_PROGRESS_DELAY milliseconds), and erased when
// the work ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qobtool {

class ProgressBar {
public:
    // A bar that never shows when disabled (-q, or standard error is no terminal).
    ProgressBar(std::string label, bool enabled);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Update(std::uint64_t done, std::uint64_t total);
    // Erases the bar, if it was drawn.
    void Finish();

private:
    using Clock = std::chrono::steady_clock;
    std::string label_;
    bool enabled_;
    bool drawn_ = false;
    Clock::time_point start_;
    Clock::time_point lastDraw_;
    std::chrono::milliseconds delay_;
};

// Forwards the library's progress of the calls made in its scope to a bar.
class LibraryProgress {
public:
    explicit LibraryProgress(ProgressBar& bar);
    ~LibraryProgress();
    LibraryProgress(const LibraryProgress&) = delete;
    LibraryProgress& operator=(const LibraryProgress&) = delete;
};

// Whether the commands should show progress: standard error is a terminal and -q was not given.
bool ProgressWanted(bool quiet);

} // namespace qobtool
