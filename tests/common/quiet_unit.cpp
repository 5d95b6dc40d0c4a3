// Test programs of the internals start with a silent log sink.
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

namespace {
struct QuietLog : ::testing::Environment {
    void SetUp() override { QOB::SetLogSink(&qobtest::SilentSink, nullptr); }
};
const auto* const g_quiet = ::testing::AddGlobalTestEnvironment(new QuietLog);
} // namespace
