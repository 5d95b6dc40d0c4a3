// Reading packages through the query exports: manifests, version and count rules, filled
// records that match the bytes on disk.
#include "common/test_files.hpp"
#include "package/package_builder.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>

namespace {

using qobtest::BuildPackage;
using qobtest::EntrySpec;
using qobtest::Manifest;

struct Info {
    Info() : record(std::make_unique<QOB_PackageInfo>()) {
        EXPECT_EQ(QOB_Constructor(record.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    }
    ~Info() { QOB_Destructor(record.get(), QOB_OBJECT_PACKAGE_INFO); }
    QobErrorCode_e Read(const std::filesystem::path& file) {
        std::strcpy(record->szPackagePath, file.string().c_str());
        return QOB_GetPackageInfo(record.get());
    }
    std::unique_ptr<QOB_PackageInfo> record;
};

const std::string kFull =
    "<File><RawPath>IMG_1.CR3</RawPath>"
    "<SettingsPath>Quillmarsh\\Settings1680\\IMG_1.CR3.xmp</SettingsPath>"
    "<ProxyPath>Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg</ProxyPath>"
    "<LCCs><LCCPath LccID=\"L1\">Quillmarsh/Settings1680/IMG_1.CR3.L1.lcc</LCCPath>"
    "<LCCPath LccID=\"dup\">Quillmarsh/Settings1680/first.lcc</LCCPath>"
    "<LCCPath LccID=\"dup\">Quillmarsh/Settings1680/second.lcc</LCCPath></LCCs>"
    "<ICCs><ICCPath IccID=\"sRGB\">Quillmarsh/Settings1680/IMG_1.CR3.sRGB</ICCPath></ICCs>"
    "</File>";

std::string ReadAt(const std::filesystem::path& file, std::uint32_t offset, std::uint32_t size) {
    std::ifstream in(file, std::ios::binary);
    in.seekg(offset);
    std::string bytes(size, '\0');
    in.read(bytes.data(), size);
    return bytes;
}

TEST(PackageQueries, FillsRecordsThatMatchTheArchive) {
    qobtest::TempDir dir;
    const auto file = dir / "full.qob";
    BuildPackage(file, {{"IMG_1.CR3", std::string(5000, 'r')},
                        {"Quillmarsh/Settings1680/IMG_1.CR3.xmp", "<xmp/>", 300},
                        {"Quillmarsh/Settings1680/IMG_1.CR3.L1.lcc", "lcc-one", 10},
                        {"Quillmarsh/Settings1680/first.lcc", "first"},
                        {"Quillmarsh/Settings1680/second.lcc", "second"},
                        {"manifest.xml", Manifest("1", kFull), 16384}});
    Info info;
    ASSERT_EQ(info.Read(file), SUCCESS);
    const QOB_ImageFiles& files = info.record->files;
    EXPECT_STREQ(files.raw.szPath, "IMG_1.CR3");
    EXPECT_EQ(files.raw.uStoredSize, 5000u);
    EXPECT_EQ(ReadAt(file, files.raw.uDataOffset, 5000), std::string(5000, 'r'));
    // Backslashes in a manifest path are stored as slashes.
    EXPECT_STREQ(files.settings.szPath, "Quillmarsh/Settings1680/IMG_1.CR3.xmp");
    EXPECT_EQ(files.settings.uStoredSize, 6u);
    EXPECT_EQ(files.settings.uBufferLength, 6u);
    EXPECT_EQ(files.settings.uReservedSpace, 300u);
    EXPECT_EQ(ReadAt(file, files.settings.uDataOffset, 6), "<xmp/>");
    EXPECT_NE(files.settings.uTime, 0u);
    // Named by the manifest but not in the zip: numbers stay zero.
    EXPECT_STREQ(files.proxy.szPath, "Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg");
    EXPECT_EQ(files.proxy.uStoredSize, 0u);
    ASSERT_EQ(files.uLccCount, 3u);
    EXPECT_STREQ(files.pLccs[0].szIdentifier, "L1");
    EXPECT_STREQ(files.pLccs[0].szSecondPath, "IMG_1.CR3.L1.lcc");
    EXPECT_EQ(ReadAt(file, files.pLccs[0].uDataOffset, 7), "lcc-one");
    ASSERT_EQ(files.uIccCount, 1u);
    EXPECT_STREQ(files.pIccs[0].szIdentifier, "sRGB");
    EXPECT_EQ(files.mask.szPath[0], '\0');
    // Only the manifests present have text; the text is our own rendering.
    EXPECT_NE(std::strstr(info.record->szManifests[0], "<RawPath>IMG_1.CR3</RawPath>"), nullptr);
    EXPECT_EQ(info.record->szManifests[1][0], '\0');

    EXPECT_EQ(QOB_IsQob(file.string().c_str()), SUCCESS);

    // LCC look-up: exact and case-sensitive, the first of equal identifiers wins.
    QOB_EntryInfo entry;
    ASSERT_EQ(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    ASSERT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "dup", &entry), SUCCESS);
    EXPECT_STREQ(entry.szPath, "Quillmarsh/Settings1680/first.lcc");
    EXPECT_EQ(entry.uStoredSize, 5u);
    EXPECT_EQ(entry.uTime, 0u); // not copied
    ASSERT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "L1", &entry), SUCCESS);
    EXPECT_EQ(entry.uReservedSpace, 10u);
    EXPECT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "l1", &entry), FILE_NOT_IN_PACKAGE);
    EXPECT_EQ(QOB_GetLensCastCalibInfo(file.string().c_str(), "L", &entry), FILE_NOT_IN_PACKAGE);

    // Package paths of 259 characters proceed (to "not found"), 260 are refused.
    std::string longPath = (dir.path() / "").string();
    longPath += std::string(259 - longPath.size(), 'p');
    EXPECT_EQ(QOB_GetLensCastCalibInfo(longPath.c_str(), "L1", &entry), PACKAGE_NOT_FOUND);
    longPath += 'p';
    qobtest::LogCapture log(&QOB::SetLogSink);
    EXPECT_EQ(QOB_GetLensCastCalibInfo(longPath.c_str(), "L1", &entry), INVALID_PARAMETER);
    EXPECT_TRUE(log.Contains("argument szPackagePath too long"));
}

TEST(PackageQueries, ManifestCopiesAndTheirFaults) {
    qobtest::TempDir dir;
    const std::string files = "<File><RawPath>a.raw</RawPath></File>";
    const auto only = dir / "only.qob";
    BuildPackage(only, {{"a.raw", "x"}, {"manifest.xml", Manifest("1", files)}});
    Info onlyInfo;
    EXPECT_EQ(onlyInfo.Read(only), SUCCESS);

    // A malformed copy beside a good primary manifest is ignored.
    const auto copy = dir / "copy.qob";
    BuildPackage(copy,
                 {{"manifest.xml", Manifest("1", files)}, {"manifest50.xml", "<Manifest><File>"}});
    Info copyInfo;
    EXPECT_EQ(copyInfo.Read(copy), SUCCESS);
    EXPECT_EQ(copyInfo.record->szManifests[1][0], '\0');

    // A malformed primary manifest fails with its row and column.
    const auto bad = dir / "bad.qob";
    BuildPackage(bad, {{"manifest.xml", "<Manifest>\n  <File></Fil>"}});
    qobtest::LogCapture log(&QOB::SetLogSink);
    Info badInfo;
    EXPECT_EQ(badInfo.Read(bad), CANNOT_READ_FILE_PCK);
    EXPECT_TRUE(log.Contains("xml error at row=2 col="));

    // Only a copy, no primary manifest.
    const auto none = dir / "none.qob";
    BuildPackage(none, {{"manifest1680.xml", Manifest("1", files)}});
    log.Clear();
    Info noneInfo;
    EXPECT_EQ(noneInfo.Read(none), CANNOT_READ_FILE_PCK);
    EXPECT_TRUE(log.Contains("missing manifest: \\\"manifest.xml\\\"") ||
                log.Contains("missing manifest: \"manifest.xml\""));
    EXPECT_EQ(QOB_IsQob(none.string().c_str()), FILE_NOT_IN_PACKAGE);
}

TEST(PackageQueries, VersionAndFileCountRules) {
    qobtest::TempDir dir;
    const std::string one = "<File><RawPath>a.raw</RawPath></File>";
    struct Case {
        std::string version;
        int files;
        QobErrorCode_e info;
        QobErrorCode_e isQob;
    };
    const Case cases[] = {
        {"0", 1, SUCCESS, SUCCESS},
        {"1", 10, SUCCESS, SUCCESS},
        {"x", 1, SUCCESS, SUCCESS}, // no digits reads as 0
        {"2", 1, PACKAGEVERSION_NOT_SUPPORTED, PACKAGEVERSION_NOT_SUPPORTED},
        {"-1", 1, PACKAGEVERSION_NOT_SUPPORTED, PACKAGEVERSION_NOT_SUPPORTED},
        {"1", 11, FILE_COUNT_EXCEEDS_MAX, SUCCESS},
        {"1", 0, CANNOT_READ_FILE_PCK, SUCCESS},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version + " files=" + std::to_string(c.files));
        std::string files;
        for (int i = 0; i < c.files; ++i) {
            files += one;
        }
        const auto file = dir / ("v" + std::to_string(n++) + ".qob");
        BuildPackage(file, {{"manifest.xml", Manifest(c.version, files)}});
        Info info;
        EXPECT_EQ(info.Read(file), c.info);
        EXPECT_EQ(QOB_IsQob(file.string().c_str()), c.isQob);
    }
}

TEST(PackageQueries, ManifestSizeLimit) {
    qobtest::TempDir dir;
    // Pad the manifest with a text element so that its rendering is exactly n bytes.
    auto sized = [](std::size_t n) {
        const std::string base = Manifest("1", "<File><RawPath>a.raw</RawPath><Pad></Pad></File>");
        std::string text = base;
        text.insert(text.find("</Pad>"), std::string(n - base.size(), 'z'));
        return text;
    };
    const auto fits = dir / "fits.qob";
    BuildPackage(fits, {{"manifest.xml", sized(16383)}});
    Info a;
    EXPECT_EQ(a.Read(fits), SUCCESS);
    EXPECT_EQ(std::strlen(a.record->szManifests[0]), 16383u);
    const auto big = dir / "big.qob";
    BuildPackage(big, {{"manifest.xml", sized(16384)}});
    qobtest::LogCapture log(&QOB::SetLogSink);
    Info b;
    EXPECT_EQ(b.Read(big), CANNOT_READ_FILE_PCK);
    EXPECT_TRUE(log.Contains("xml string too long: src=16384 dst=16384"));
}

TEST(PackageQueries, NotAPackage) {
    qobtest::TempDir dir;
    const auto zip = dir / "plain.zip";
    BuildPackage(zip, {{"readme.txt", "hello"}});
    EXPECT_EQ(QOB_IsQob(zip.string().c_str()), FILE_NOT_IN_PACKAGE);
    EXPECT_EQ(QOB_IsQob((dir / "missing.qob").string().c_str()), PACKAGE_NOT_FOUND);
    const auto random = dir / "random.bin";
    qobtest::WriteFile(random, qobtest::RandomBytes(4096, 7));
    EXPECT_LT(QOB_IsQob(random.string().c_str()), 0);
    const auto empty = dir / "empty.bin";
    qobtest::WriteFile(empty, "");
    EXPECT_LT(QOB_IsQob(empty.string().c_str()), 0);
    Info info;
    EXPECT_LT(info.Read(random), 0);
    EXPECT_LT(info.Read(empty), 0);
}

} // namespace
