#include "archive/path.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <system_error>

namespace {

TEST(PathTest, SanitizesAndLogsOnlyWhenChanged) {
    struct Case {
        const char* text;
        const char* sanitized;
    };
    // The normal form itself is checked against the standard library below.
    const Case cases[] = {
        {"Settings\\a.xml", "Settings/a.xml"},
        {"a/./b//c", "a/b/c"},
        {"Settings/a.xml", "Settings/a.xml"},
        {"caf\xC3\xA9/x", "caf\xC3\xA9/x"},
    };
    for (const auto& c : cases) {
        qobtest::LogCapture log(&QOB::SetLogSink);
        const QOB::Path path(c.text);
        EXPECT_EQ(path.Given(), c.text);
        EXPECT_STREQ(path.CStr(), c.sanitized);
        const std::string warning =
            std::string("[QOB][WARN ] Path: sanitized to \"") + c.sanitized + "\"";
        EXPECT_EQ(log.lines.size() == 1 && log.lines[0].text == warning,
                  std::string(c.text) != c.sanitized)
            << c.text;
    }
}

TEST(PathTest, RejectsAbsoluteAndBadText) {
    for (const char* text : {"/x", "\\x", "C:x", "c:/x", "z:", "//server/share"}) {
        EXPECT_EQ(qobtest::Failure([&] { QOB::Path path(text); }),
                  "[INVALID_PARAMETER] cannot use absolute path inside archive")
            << text;
    }
    for (const char* text : {"a\xFF", "\xC0\xAF", "\xED\xA0\x80", "a\xE2\x82"}) {
        EXPECT_THROW(QOB::Path path(text), std::system_error) << text;
    }
}

TEST(PathTest, CheckEntryPathField) {
    std::string field(QOB_MAX_PATH, 'x');
    EXPECT_EQ(qobtest::Failure([] { QOB::CheckEntryPathField(nullptr); }),
              "[INVALID_PARAMETER] entry path is null");
    EXPECT_EQ(qobtest::Failure([&] { QOB::CheckEntryPathField(field.data()); }),
              "[INVALID_PARAMETER] missing null terminator in entry path");
    field[QOB_MAX_PATH - 1] = '\0';
    EXPECT_NO_THROW(QOB::CheckEntryPathField(field.data()));
}

#ifndef _WIN32
// On POSIX the standard library's generic normal form is the reference for relative paths.
TEST(PathTest, MatchesStandardNormalForm) {
    const char* parts[] = {"a", "bc", ".", "..", "", "1:x", "...", ".a"};
    std::mt19937 engine(7);
    QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    for (int round = 0; round < 20000; ++round) {
        std::string text = parts[engine() % 8];
        const int count = static_cast<int>(engine() % 6);
        for (int i = 0; i < count; ++i) {
            text += '/';
            text += parts[engine() % 8];
        }
        if (text.empty() || text[0] == '/') {
            continue;
        }
        const QOB::Path path(text);
        std::string expected = std::filesystem::path(text).lexically_normal().generic_string();
        if (expected.empty()) {
            expected = ".";
        }
        EXPECT_EQ(path.Sanitized(), expected) << text;
    }
    QOB::SetLogSink(nullptr, nullptr);
}
#endif

} // namespace
