// Test programs of the public interface start with a silent log sink.
#include "common/test_files.hpp"

#include <gtest/gtest.h>

namespace {
struct QuietLog : ::testing::Environment {
    void SetUp() override { QOB_SetLogFn(&qobtest::SilentSink, nullptr); }
};
const auto* const g_quiet = ::testing::AddGlobalTestEnvironment(new QuietLog);
} // namespace
