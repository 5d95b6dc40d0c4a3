// Reading packages through the query exports: manifests, version and count rules, filled
// records that match the bytes on disk.
#include "api/package_host.hpp"
#include "package/package_builder.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using qobtest::BuildPackage;
using qobtest::Info;
using qobtest::Manifest;

TEST(PackageQueries, FillsRecordsThatMatchTheArchive) {
    qobtest::TempDir dir;
    const auto file = dir / "full.qob";
    BuildPackage(file, {{"IMG_1.CR3", std::string(5000, 'r')},
                        {"Quillmarsh/Settings1680/IMG_1.CR3.xmp", "<xmp/>", 300},
                        {"lcc/IMG_1.CR3.L1.lcc", "lcc-one", 10},
                        {"lcc/first.lcc", "first"},
                        {"manifest.xml",
                         Manifest("1", "<File><RawPath>IMG_1.CR3</RawPath><SettingsPath>"
                                       "Quillmarsh\\Settings1680\\IMG_1.CR3.xmp</SettingsPath>"
                                       "<ProxyPath>p.jpg</ProxyPath><LCCs>"
                                       "<LCCPath LccID=\"L1\">lcc/IMG_1.CR3.L1.lcc</LCCPath>"
                                       "<LCCPath LccID=\"dup\">lcc/first.lcc</LCCPath>"
                                       "<LCCPath LccID=\"dup\">lcc/second.lcc</LCCPath></LCCs>"
                                       "</File>"),
                         16384}});
    Info info;
    ASSERT_EQ(info.Read(file), SUCCESS);
    const QOB_ImageFiles& files = info.record->files;
    // Backslashes in a manifest path are stored as slashes.
    EXPECT_STREQ(files.settings.szPath, "Quillmarsh/Settings1680/IMG_1.CR3.xmp");
    EXPECT_EQ(files.settings.uReservedSpace, 300u);
    // Named by the manifest but not in the zip: numbers stay zero.
    EXPECT_STREQ(files.proxy.szPath, "p.jpg");
    EXPECT_EQ(files.proxy.uStoredSize, 0u);
    ASSERT_EQ(files.uLccCount, 3u);
    EXPECT_STREQ(files.pLccs[0].szSecondPath, "IMG_1.CR3.L1.lcc");

    // LCC look-up: exact and case-sensitive, the first of equal identifiers wins.
    QOB_EntryInfo entry;
    ASSERT_EQ(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    ASSERT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "dup", &entry), SUCCESS);
    EXPECT_STREQ(entry.szPath, "lcc/first.lcc");
    EXPECT_EQ(entry.uStoredSize, 5u);
    ASSERT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "L1", &entry), SUCCESS);
    EXPECT_EQ(entry.uReservedSpace, 10u);
    for (const char* id : {"l1", "L"}) {
        EXPECT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), id, &entry), FILE_NOT_IN_PACKAGE);
    }
    // Package paths of 259 characters proceed (to "not found"), 260 are refused.
    std::string longPath = (dir.path() / "").string();
    longPath += std::string(259 - longPath.size(), 'p');
    EXPECT_EQ(QOB_GetLensCastCalibInfo(longPath.c_str(), "L1", &entry), PACKAGE_NOT_FOUND);
    qobtest::LogCapture log(&QOB::SetLogSink);
    EXPECT_EQ(QOB_GetLensCastCalibInfo((longPath + 'p').c_str(), "L1", &entry), INVALID_PARAMETER);
    EXPECT_TRUE(log.Contains("argument szPackagePath too long"));
}

// Each package holds only the given manifests; "manifest.xml" alone makes it complete.
TEST(PackageQueries, ManifestRules) {
    constexpr auto kAnyFailure = static_cast<QobErrorCode_e>(1);
    const auto padded = [](std::size_t n) { // renders to exactly n bytes
        std::string text = Manifest("1", "<File><RawPath>a.raw</RawPath><Pad></Pad></File>");
        return text.insert(text.find("</Pad>"), std::string(n - text.size(), 'z'));
    };
    const auto files = [](int n) {
        std::string text;
        for (int i = 0; i < n; ++i) {
            text += qobtest::kRawOnly;
        }
        return text;
    };
    const auto primary = [](const std::string& text) {
        return std::vector<qobtest::EntrySpec>{{"manifest.xml", text}};
    };
    struct Case {
        QobErrorCode_e info, isQob;
        std::vector<qobtest::EntrySpec> entries;
        const char* log = nullptr;
    };
    constexpr auto kUnread = CANNOT_READ_FILE_PCK, kVersion = PACKAGEVERSION_NOT_SUPPORTED;
    const Case cases[] = {
        // A malformed copy is ignored; a malformed primary fails with its row and column.
        {SUCCESS, SUCCESS, {{"manifest.xml", Manifest()}, {"manifest50.xml", "<Manifest><File>"}}},
        {kUnread, kAnyFailure, primary("<Manifest>\n  <File></Fil>"), "xml error at row=2 col="},
        {kUnread, FILE_NOT_IN_PACKAGE, {{"manifest1680.xml", Manifest()}}, "missing manifest"},
        {kUnread, FILE_NOT_IN_PACKAGE, {{"readme.txt", "hello"}}},
        {SUCCESS, SUCCESS, primary(Manifest("0"))},
        {SUCCESS, SUCCESS, primary(Manifest("x"))}, // no digits: 0
        {kVersion, kVersion, primary(Manifest("2"))},
        {kVersion, kVersion, primary(Manifest("-1"))},
        {SUCCESS, SUCCESS, primary(Manifest("1", files(10)))},
        {FILE_COUNT_EXCEEDS_MAX, SUCCESS, primary(Manifest("1", files(11)))},
        {kUnread, SUCCESS, primary(Manifest("1", files(0)))},
        {SUCCESS, SUCCESS, primary(padded(16383))},
        {kUnread, SUCCESS, primary(padded(16384)), "xml string too long: src=16384 dst=16384"},
    };
    qobtest::TempDir dir;
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(n);
        const auto file = dir / ("p" + std::to_string(n++) + ".qob");
        BuildPackage(file, c.entries);
        qobtest::LogCapture log(&QOB::SetLogSink);
        Info info;
        EXPECT_EQ(info.Read(file), c.info);
        EXPECT_TRUE(c.log == nullptr || log.Contains(c.log));
        const QobErrorCode_e isQob = QOB_IsQob(file.string().c_str());
        EXPECT_TRUE(isQob == c.isQob || (c.isQob == kAnyFailure && isQob < 0)) << isQob;
        if (c.info == SUCCESS) {
            EXPECT_EQ(info.record->szManifests[0], c.entries[0].content);
            EXPECT_EQ(info.record->szManifests[1][0], '\0');
        }
    }
}

} // namespace
