// Extracting a package whose entry names climb out of the destination: refused before a
// single file is written, whichever entry comes first.
#include "common/test_files.hpp"
#include "package/package_builder.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;
using qobtest::BuildPackage;
using qobtest::EntrySpec;

std::set<std::string> Listing(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& item : fs::recursive_directory_iterator(dir)) {
        names.insert(fs::relative(item.path(), dir).generic_string());
    }
    return names;
}

QobErrorCode_e ExtractAll(const fs::path& package, const fs::path& destination) {
    auto args = std::make_unique<QOB_ExtractArgs>();
    EXPECT_EQ(QOB_Constructor(args.get(), QOB_OBJECT_EXTRACT_ARGS), SUCCESS);
    std::strcpy(args->szPackagePath, package.string().c_str());
    std::strcpy(args->szDestination, destination.string().c_str());
    args->eMode = QOB_EXTRACT_ALL;
    return QOB_Extract(args.get());
}

TEST(ExtractHostile, EscapingEntryNamesWriteNothing) {
    const EntrySpec good{"Quillmarsh/Settings1680/good.txt", "good"};
    // A backslash is a separator inside a package, so "..\\" climbs as well.
    const std::string hostile[] = {"../evil.txt", "a/../../evil2.txt", "..\\evil3.txt",
                                   "a/b/../../../evil4.txt"};
    for (const std::string& name : hostile) {
        SCOPED_TRACE(name);
        for (const bool hostileFirst : {false, true}) {
            qobtest::TempDir root;
            // The package and the destination sit one level down, so that anything written
            // beside the destination shows up in root.
            const fs::path work = root / "work";
            const fs::path destination = work / "out";
            fs::create_directories(destination);
            const fs::path package = root / "hostile.qob";
            const EntrySpec evil{name, "evil"};
            BuildPackage(package, hostileFirst ? std::vector<EntrySpec>{evil, good}
                                               : std::vector<EntrySpec>{good, evil});
            qobtest::LogCapture log(&QOB::SetLogSink);
            EXPECT_EQ(ExtractAll(package, destination), INVALID_PARAMETER);
            EXPECT_TRUE(log.Contains("entry path escapes destination"));
            EXPECT_EQ(Listing(root.path()),
                      (std::set<std::string>{"hostile.qob", "work", "work/out"}));
        }
    }
}

TEST(ExtractHostile, ManifestsOnlyExtractNothing) {
    qobtest::TempDir root;
    const fs::path destination = root / "out";
    fs::create_directories(destination);
    const fs::path package = root / "manifests.qob";
    const std::string text = qobtest::Manifest("1", "<File><RawPath>a.raw</RawPath></File>");
    BuildPackage(
        package,
        {{"manifest.xml", text, 16384}, {"manifest50.xml", text}, {"manifest1680.xml", text}});
    EXPECT_EQ(ExtractAll(package, destination), SUCCESS);
    EXPECT_TRUE(Listing(destination).empty());
}

} // namespace
