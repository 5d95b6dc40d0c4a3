// The validity rules of the public records, log prefixes, and how the frame maps exceptions.
#include "api/call_frame.hpp"
#include "api/record_validation.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

TEST(RecordValidation, StringFieldsAndLists) {
    auto entry = std::make_unique<QOB_EntryInfo>();
    std::memset(entry.get(), 0, sizeof(QOB_EntryInfo));
    EXPECT_TRUE(QOB::IsValid(*entry));
    std::memset(entry->szIdentifier, 'x', 259); // 259 characters plus NUL
    EXPECT_TRUE(QOB::IsValid(*entry));
    entry->szIdentifier[259] = 'x'; // 260 non-NUL bytes
    EXPECT_FALSE(QOB::IsValid(*entry));
    entry->szIdentifier[259] = '\0';

    EXPECT_TRUE(QOB::IsValidList(0, nullptr));
    EXPECT_FALSE(QOB::IsValidList(0, entry.get()));
    EXPECT_FALSE(QOB::IsValidList(1, nullptr));
    EXPECT_TRUE(QOB::IsValidList(1, entry.get()));

    auto info = std::make_unique<QOB_PackageInfo>();
    std::memset(info.get(), 0, sizeof(QOB_PackageInfo));
    EXPECT_TRUE(QOB::IsValid(*info));
    std::memset(info->szManifests[22], 'm', sizeof(info->szManifests[22]));
    EXPECT_FALSE(QOB::IsValid(*info));
    info->szManifests[22][16383] = '\0';
    info->files.uIccCount = 0;
    info->files.pIccs = entry.get();
    EXPECT_FALSE(QOB::IsValid(*info));
    info->files.pIccs = nullptr;
    info->files.uLccCount = 1;
    info->files.pLccs = entry.get();
    EXPECT_TRUE(QOB::IsValid(*info));
    entry->szPath[259] = 'p';
    std::memset(entry->szPath, 'p', 260);
    EXPECT_FALSE(QOB::IsValid(*info));

    auto extract = std::make_unique<QOB_ExtractArgs>();
    std::memset(extract.get(), 0, sizeof(QOB_ExtractArgs));
    EXPECT_TRUE(QOB::IsValid(*extract));
    std::memset(extract->szPath5, 'q', 260);
    EXPECT_FALSE(QOB::IsValid(*extract));
    qobtest::LogCapture log(&QOB::SetLogSink);
    try {
        QOB::RequireValid(*extract);
        ADD_FAILURE() << "no exception";
    } catch (const QOB::Exception& e) {
        EXPECT_EQ(e.code(), INVALID_PARAMETER);
        EXPECT_STREQ(e.what(), "[INVALID_PARAMETER] argument contains invalid path");
    }
}

TEST(Logging, PrefixesAndPassThrough) {
    qobtest::LogCapture log(&QOB::SetLogSink);
    QOB::LogFatal("a");
    QOB::LogError("b");
    QOB::LogWarn("");
    QOB::LogInfo("100% %s %n");
    QOB::LogDebug("e");
    QOB::LogTrace("f");
    ASSERT_EQ(log.lines.size(), 6u);
    const char* expected[] = {"[QOB][FATAL] a",          "[QOB][ERROR] b", "[QOB][WARN ] ",
                              "[QOB][INFO ] 100% %s %n", "[QOB][DEBUG] e", "[QOB][TRACE] f"};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(log.lines[i].level, i);
        EXPECT_EQ(log.lines[i].text, expected[i]);
    }
}

TEST(CallGuarded, MapsEveryKindOfException) {
    qobtest::LogCapture log(&QOB::SetLogSink);
    EXPECT_EQ(QOB::CallGuarded("F", [] { throw QOB::Exception(CANNOT_REMOVE_FILE, "t"); }),
              CANNOT_REMOVE_FILE);
    EXPECT_TRUE(log.Contains("[QOB][ERROR] F: [CANNOT_REMOVE_FILE] t"));
    EXPECT_EQ(QOB::CallGuarded("F", [] { throw std::bad_alloc(); }), INTERNAL_INCONSISTENCY);
    EXPECT_EQ(log.lines.back().level, 0);
    EXPECT_EQ(log.lines.back().text.rfind("[QOB][FATAL] F: failed to allocate memory: ", 0), 0u);
    EXPECT_EQ(QOB::CallGuarded("F", [] { throw std::runtime_error("boom"); }),
              INTERNAL_INCONSISTENCY);
    EXPECT_EQ(log.lines.back().text, "[QOB][ERROR] F: caught std: boom");
    EXPECT_EQ(QOB::CallGuarded("F", [] { throw 7; }), INTERNAL_INCONSISTENCY);
    EXPECT_EQ(log.lines.back().text, "[QOB][ERROR] F: caught unknown exception");
    // The lock is released on every path: a nested frame on this thread still gets in.
    EXPECT_EQ(QOB::CallGuarded("Outer",
                               [] {
                                   if (QOB::CallGuarded("Inner", [] {}) != SUCCESS) {
                                       throw 1;
                                   }
                               }),
              SUCCESS);
}

} // namespace
