// The call frame as a host sees it: log trail, timing lines, log sink handling.
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

namespace {

using qobtest::LogCapture;

const char* const kLevelName[] = {"[QOB][FATAL] ", "[QOB][ERROR] ", "[QOB][WARN ] ",
                                  "[QOB][INFO ] ", "[QOB][DEBUG] ", "[QOB][TRACE] "};

struct NullCall {
    const char* name;
    std::function<QobErrorCode_e()> call;
};

std::vector<NullCall> NullCalls() {
    static char path[] = "x.qob";
    return {
        {"QOB_Create", [] { return QOB_Create(nullptr); }},
        {"QOB_Extract", [] { return QOB_Extract(nullptr); }},
        {"QOB_Update", [] { return QOB_Update(nullptr); }},
        {"QOB_GetPackageInfo", [] { return QOB_GetPackageInfo(nullptr); }},
        {"QOB_GetLensCastCalibInfo", [] { return QOB_GetLensCastCalibInfo(path, "id", nullptr); }},
        {"QOB_IsQob", [] { return QOB_IsQob(nullptr); }},
        {"QOB_Constructor", [] { return QOB_Constructor(nullptr, QOB_OBJECT_ENTRY_INFO); }},
        {"QOB_Destructor", [] { return QOB_Destructor(nullptr, QOB_OBJECT_ENTRY_INFO); }},
    };
}

// "time: <label> <n.nnn> seconds: <name>"
void ExpectTiming(const qobtest::LogLine& line, const std::string& label, const std::string& name) {
    const std::string head = std::string(kLevelName[line.level]) + "time: " + label + " ";
    ASSERT_EQ(line.text.rfind(head, 0), 0u) << line.text;
    const std::string tail = " seconds: " + name;
    ASSERT_GE(line.text.size(), head.size() + tail.size());
    EXPECT_EQ(line.text.substr(line.text.size() - tail.size()), tail) << line.text;
    const std::string number =
        line.text.substr(head.size(), line.text.size() - head.size() - tail.size());
    ASSERT_EQ(number.size(), 5u) << number; // %.03f of a fast call: "0.000"
    EXPECT_EQ(number[1], '.');
    // TRACE, unless the machine kept the call waiting past the slow-call threshold.
    EXPECT_EQ(line.level, std::stod(number) >= 0.5 ? 2 : 5) << line.text;
}

TEST(CallFrame, NullRecordLeavesTheSevenLineTrail) {
    for (const auto& call : NullCalls()) {
        SCOPED_TRACE(call.name);
        LogCapture log(&QOB_SetLogFn);
        EXPECT_EQ(call.call(), INVALID_POINTER);
        const std::string name = call.name;
        ASSERT_EQ(log.lines.size(), 7u);
        EXPECT_EQ(log.lines[0].level, 5);
        EXPECT_EQ(log.lines[0].text, "[QOB][TRACE] lock: " + name);
        ExpectTiming(log.lines[1], "locked   for", name);
        EXPECT_EQ(log.lines[2].level, 4);
        EXPECT_EQ(log.lines[2].text, "[QOB][DEBUG] call: " + name);
        EXPECT_EQ(log.lines[3].level, 1);
        EXPECT_EQ(log.lines[3].text, "[QOB][ERROR] Exception: argument is null");
        EXPECT_EQ(log.lines[4].level, 1);
        EXPECT_EQ(log.lines[4].text, "[QOB][ERROR] in " + name + "_Unlocked");
        ExpectTiming(log.lines[5], "failed   in ", name);
        EXPECT_EQ(log.lines[6].level, 1);
        EXPECT_EQ(log.lines[6].text,
                  "[QOB][ERROR] " + name + ": [INVALID_POINTER] argument is null");
    }
}

TEST(CallFrame, RemoveEntryNamesTheNullArgument) {
    LogCapture log(&QOB_SetLogFn);
    EXPECT_EQ(QOB_RemoveEntry(nullptr, nullptr), INVALID_POINTER);
    EXPECT_TRUE(log.Contains("Exception: argument szPackageFullPath is null"));
    log.Clear();
    EXPECT_EQ(QOB_RemoveEntry("p.qob", nullptr), INVALID_POINTER);
    EXPECT_TRUE(
        log.Contains("QOB_RemoveEntry: [INVALID_POINTER] argument szFilePathInPackage is null"));
}

// A sink that sleeps inside the locked section makes the call slow without touching a file.
void SlowSink(int level, const char* text, void* user) {
    static_cast<LogCapture*>(user)->lines.push_back({level, text});
    if (std::string(text).find("call: QOB_Constructor") != std::string::npos) {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
    }
}

TEST(CallFrame, SlowCallLogsItsTimingAtWarn) {
    LogCapture log(&QOB_SetLogFn);
    QOB_SetLogFn(&SlowSink, &log);
    log.Clear();
    QOB_EntryInfo entry;
    ASSERT_EQ(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    ASSERT_EQ(log.lines.size(), 4u);
    const auto& last = log.lines[3];
    EXPECT_EQ(last.level, 2);
    EXPECT_EQ(last.text.rfind("[QOB][WARN ] time: executed for ", 0), 0u) << last.text;
    EXPECT_EQ(last.text.substr(last.text.size() - 25), " seconds: QOB_Constructor");
}

// The announcement through a new sink is the C host's to check; null brings back the default.
TEST(Logging, NullSinkRestoresStandardOutput) {
    LogCapture log(&QOB_SetLogFn);
    // Null restores the default sink, whatever the user pointer: the line goes to stdout.
    testing::internal::CaptureStdout();
    QOB_SetLogFn(nullptr, &log);
    QOB_EntryInfo entry;
    EXPECT_EQ(QOB_Constructor(&entry, static_cast<QOB_ObjectType>(9)), INVALID_PARAMETER);
    std::fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(log.lines.empty());
    EXPECT_EQ(out.rfind("[QOB][TRACE] logging is ready\n[QOB][TRACE] lock: QOB_Constructor\n", 0),
              0u)
        << out;
    EXPECT_NE(out.find("[QOB][ERROR] QOB_Constructor: [INVALID_PARAMETER] invalid "
                       "QOB_ObjectType variant\n"),
              std::string::npos);
}

} // namespace
