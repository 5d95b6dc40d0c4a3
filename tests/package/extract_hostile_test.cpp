// Extracting a package whose entry names climb out of the destination: refused before a
// single file is written, whichever entry comes first.
#include "common/test_files.hpp"
#include "package/package_builder.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>

namespace {

namespace fs = std::filesystem;
using qobtest::EntrySpec;

// Extracts everything into root/work/out; returns the result and what root then holds.
std::pair<QobErrorCode_e, std::set<std::string>> Extract(const fs::path& root,
                                                         const std::vector<EntrySpec>& entries) {
    qobtest::BuildPackage(root / "p.qob", entries);
    fs::create_directories(root / "work" / "out");
    auto args = std::make_unique<QOB_ExtractArgs>();
    EXPECT_EQ(QOB_Constructor(args.get(), QOB_OBJECT_EXTRACT_ARGS), SUCCESS);
    std::strcpy(args->szPackagePath, (root / "p.qob").string().c_str());
    std::strcpy(args->szDestination, (root / "work" / "out").string().c_str());
    args->eMode = QOB_EXTRACT_ALL;
    const QobErrorCode_e result = QOB_Extract(args.get());
    std::set<std::string> names;
    for (const auto& item : fs::recursive_directory_iterator(root)) {
        names.insert(fs::relative(item.path(), root).generic_string());
    }
    return {result, names};
}

TEST(ExtractHostile, EscapingEntryNamesWriteNothing) {
    const EntrySpec good{"Quillmarsh/Settings1680/good.txt", "good"};
    // A backslash is a separator inside a package, so "..\\" climbs as well.
    for (const char* name :
         {"../evil.txt", "a/../../evil2.txt", "..\\evil3.txt", "a/b/../../../evil4.txt"}) {
        for (const bool hostileFirst : {false, true}) {
            SCOPED_TRACE(std::string(name) + (hostileFirst ? " first" : " second"));
            qobtest::TempDir root;
            const EntrySpec evil{name, "evil"};
            qobtest::LogCapture log(&QOB::SetLogSink);
            const auto [result, names] = Extract(
                root.path(), hostileFirst ? std::vector{evil, good} : std::vector{good, evil});
            EXPECT_EQ(result, INVALID_PARAMETER);
            EXPECT_TRUE(log.Contains("entry path escapes destination"));
            EXPECT_EQ(names, (std::set<std::string>{"p.qob", "work", "work/out"}));
        }
    }
}

TEST(ExtractHostile, ManifestsOnlyExtractNothing) {
    qobtest::TempDir root;
    const std::string text = qobtest::Manifest();
    const auto [result, names] = Extract(
        root.path(),
        {{"manifest.xml", text, 16384}, {"manifest50.xml", text}, {"manifest1680.xml", text}});
    EXPECT_EQ(result, SUCCESS);
    EXPECT_EQ(names, (std::set<std::string>{"p.qob", "work", "work/out"}));
}

} // namespace
