// Create, update, extract and remove through the exports only, as a host uses them.
#include "api/package_host.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <memory>

namespace {

namespace fs = std::filesystem;
using qobtest::ExpectConsistent;
using qobtest::FileEntry;
using qobtest::Info;
using qobtest::LogCapture;
using qobtest::MemoryEntry;
using qobtest::ReadFile;
using qobtest::UpdateFrom;
using qobtest::WriteFile;

// Data offset of every file the manifest names, by path.
std::map<std::string, std::uint32_t> Offsets(Info& info) {
    std::map<std::string, std::uint32_t> offsets;
    qobtest::ForEachNamed(info, [&](const QOB_EntryInfo& e) { offsets[e.szPath] = e.uDataOffset; });
    return offsets;
}

// Every package we write must be consistent and pass unzip's test (where it is installed;
// the archive interop test runs the other tools on what the archive layer writes).
void ExpectToolsAccept(const fs::path& package) {
    ExpectConsistent(package);
#if !defined(_WIN32)
    if (qobtest::Run("command -v unzip >/dev/null") == 0) {
        EXPECT_EQ(qobtest::Run("unzip -tqq \"" + package.string() + "\" >/dev/null 2>&1"), 0);
    }
#endif
}

class PackageEditing : public ::testing::Test {
protected:
    void SetUp() override {
        raw = dir / "IMG_0001.CR3";
        WriteFile(raw, qobtest::RandomBytes(20000, 1));
        settings = dir / "edit.xmp";
        WriteFile(settings, std::string(1000, 's'));
        proxy = dir / "preview.jpg";
        WriteFile(proxy, std::string(3000, 'p'));
        mask = dir / "m.msk";
        WriteFile(mask, std::string(1000, 'm'));
        package = dir / "pkg.qob";
        args = qobtest::NewArgs<QOB_CreateArgs>(package);
        args->files.raw = FileEntry(raw);
    }

    qobtest::TempDir dir;
    fs::path raw, settings, proxy, mask, package;
    std::unique_ptr<QOB_CreateArgs> args;
};

TEST_F(PackageEditing, CreateWithOnlyTheRawImage) {
    ASSERT_EQ(QOB_Create(args.get()), SUCCESS);
    ExpectToolsAccept(package);
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    EXPECT_STREQ(info.files().raw.szPath, "IMG_0001.CR3");
    EXPECT_EQ(info.files().raw.uStoredSize, 20000u);
    for (int row = 0; row < QOB_MANIFEST_COUNT; ++row) {
        EXPECT_NE(std::strstr(info.record->szManifests[row], "<RawPath>IMG_0001.CR3</RawPath>"),
                  nullptr)
            << row;
        EXPECT_EQ(std::strstr(info.record->szManifests[row], "SettingsPath"), nullptr);
        EXPECT_EQ(std::strstr(info.record->szManifests[row], "<Version>") != nullptr, row == 0);
    }
    // An existing package is never overwritten by create.
    EXPECT_EQ(QOB_Create(args.get()), CANNOT_REMOVE_FILE);

    // Without a raw image there is no package.
    fs::remove(package);
    args->files.raw = FileEntry(dir / "absent.CR3");
    LogCapture log(&QOB_SetLogFn);
    EXPECT_EQ(QOB_Create(args.get()), FILE_NOT_FOUND);
    EXPECT_TRUE(log.Contains("failed to add raw image to package"));
}

TEST_F(PackageEditing, CreateFullSetFromFilesAndMemoryThenQuery) {
    const std::string lccA = "lcc-a", lccB = "lcc-bb", iccA = "icc-1", hair = "hair-bytes";
    QOB_EntryInfo lccs[2] = {MemoryEntry("a.lcc", lccA, 100, "LA"),
                             FileEntry(dir / "b.lcc", 0, "LB")};
    WriteFile(dir / "b.lcc", lccB);
    QOB_EntryInfo iccs[2] = {MemoryEntry("x.icc", iccA, 0, "sRGB"),
                             FileEntry(dir / "y.icc", 0, "AdobeRGB")};
    WriteFile(dir / "y.icc", "icc-2");
    args->files.settings = FileEntry(settings, 4096);
    args->files.proxy = FileEntry(proxy);
    args->files.mask = FileEntry(mask, 500);
    args->files.hair = MemoryEntry("h.hair", hair);
    args->files.uLccCount = 2;
    args->files.pLccs = lccs;
    args->files.uIccCount = 2;
    args->files.pIccs = iccs;
    ASSERT_EQ(QOB_Create(args.get()), SUCCESS);
    ExpectToolsAccept(package);

    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    auto& f = info.files();
    EXPECT_STREQ(f.settings.szPath, "Quillmarsh/Settings1680/IMG_0001.CR3.xmp");
    EXPECT_EQ(f.settings.uReservedSpace, 4096u);
    EXPECT_STREQ(f.proxy.szPath, "Quillmarsh/Cache/Proxies/IMG_0001.CR3.jpg");
    EXPECT_STREQ(f.mask.szPath, "Quillmarsh/Settings1680/IMG_0001.CR3.msk");
    EXPECT_STREQ(f.hair.szPath, "Quillmarsh/Settings1680/IMG_0001.CR3.hair");
    ASSERT_EQ(f.uLccCount, 2u);
    EXPECT_STREQ(f.pLccs[0].szPath, "Quillmarsh/Settings1680/IMG_0001.CR3.LA.lcc");
    EXPECT_STREQ(f.pLccs[1].szIdentifier, "LB");
    ASSERT_EQ(f.uIccCount, 2u);
    EXPECT_STREQ(f.pIccs[1].szPath, "Quillmarsh/Settings1680/IMG_0001.CR3.AdobeRGB");

    QOB_EntryInfo entry;
    QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    ASSERT_EQ(QOB_GetLensCastCalibInfo(package.string().c_str(), "LB", &entry), SUCCESS);
    EXPECT_EQ(entry.uStoredSize, lccB.size());

    // One entry back into a buffer: exact size fits, one byte short does not.
    auto extract = qobtest::NewArgs<QOB_ExtractArgs>(package);
    std::strcpy(extract->szEntryPath, "Quillmarsh/Settings1680/IMG_0001.CR3.LA.lcc");
    extract->eMode = QOB_EXTRACT_TO_BUFFER;
    std::string buffer(lccA.size(), '\0');
    extract->pBuffer = buffer.data();
    extract->uBufferSize = static_cast<std::uint32_t>(buffer.size());
    ASSERT_EQ(QOB_Extract(extract.get()), SUCCESS);
    EXPECT_EQ(buffer, lccA);
    extract->uBufferSize -= 1;
    LogCapture log(&QOB_SetLogFn);
    EXPECT_EQ(QOB_Extract(extract.get()), INTERNAL_INCONSISTENCY);
    EXPECT_TRUE(log.Contains("buffer too small: src=5 dst=4"));
    extract->eMode = 2;
    EXPECT_EQ(QOB_Extract(extract.get()), INVALID_PARAMETER);
    std::strcpy(extract->szPackagePath, (dir / "missing.qob").string().c_str());
    EXPECT_EQ(QOB_Extract(extract.get()), PACKAGE_NOT_FOUND);
}

TEST_F(PackageEditing, UpdateRewritesInPlaceOrMoves) {
    args->files.settings = FileEntry(settings, 2000);
    args->files.proxy = FileEntry(proxy);
    args->files.mask = FileEntry(mask, 1000);
    ASSERT_EQ(QOB_Create(args.get()), SUCCESS);
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    const auto sizeBefore = fs::file_size(package);
    const auto offsetsBefore = Offsets(info);
    const std::string created = ReadFile(package);

    // Same entry, new content that fits: the package keeps its size and every offset.
    QOB_ImageFiles files{};
    const fs::path newSettings = dir / "new settings.xmp";
    WriteFile(newSettings, std::string(900, 'S'));
    files.settings = FileEntry(newSettings);
    ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    EXPECT_EQ(fs::file_size(package), sizeBefore);
    Info after;
    ASSERT_EQ(after.Read(package), SUCCESS);
    EXPECT_EQ(Offsets(after), offsetsBefore);
    EXPECT_EQ(after.files().settings.uStoredSize, 900u);
    ExpectToolsAccept(package);
    // Back to the first content: the package is byte for byte as created, so a rewrite
    // touches nothing but the entry and its record and leaves no trace there.
    files.settings = FileEntry(settings);
    ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    EXPECT_TRUE(ReadFile(package) == created);

    // The mask shrinks below 80 percent of its space: removed and inserted again, compacted.
    files = {};
    WriteFile(mask, std::string(1000, 'M')); // 1000 of 2000 bytes of space
    files.mask = FileEntry(mask);
    ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    ASSERT_EQ(after.Read(package), SUCCESS);
    EXPECT_EQ(after.files().mask.uReservedSpace, 0u);
    EXPECT_NE(after.files().mask.uDataOffset, offsetsBefore.at(after.files().mask.szPath));
    // The settings file under the same rule stays in place.
    const auto settingsOffset = after.files().settings.uDataOffset;
    WriteFile(newSettings, std::string(100, 'T'));
    files = {};
    files.settings = FileEntry(newSettings);
    ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    ASSERT_EQ(after.Read(package), SUCCESS);
    EXPECT_EQ(after.files().settings.uDataOffset, settingsOffset);
    EXPECT_EQ(after.files().settings.uReservedSpace, 2900u);

    // Growing past the space moves the entry to the end.
    WriteFile(newSettings, std::string(5000, 'U'));
    ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    ASSERT_EQ(after.Read(package), SUCCESS);
    EXPECT_EQ(after.files().settings.uStoredSize, 5000u);
    EXPECT_GT(after.files().settings.uDataOffset, settingsOffset);
    ExpectToolsAccept(package);

    // Two updates, each adding one LCC: the list only grows.
    for (const char* id : {"first", "second"}) {
        const std::string content = std::string("lcc ") + id;
        QOB_EntryInfo lcc = MemoryEntry("x.lcc", content, 0, id);
        files = {};
        files.uLccCount = 1;
        files.pLccs = &lcc;
        ASSERT_EQ(UpdateFrom(info, package, files), SUCCESS);
    }
    EXPECT_EQ(info.files().uLccCount, 2u);
    ASSERT_EQ(after.Read(package), SUCCESS);
    ASSERT_EQ(after.files().uLccCount, 2u);
    EXPECT_STREQ(after.files().pLccs[1].szIdentifier, "second");
    ExpectToolsAccept(package);
}

TEST_F(PackageEditing, ExtractAllAndRemove) {
    args->files.settings = FileEntry(settings);
    args->files.proxy = FileEntry(proxy);
    ASSERT_EQ(QOB_Create(args.get()), SUCCESS);
    const fs::path out = dir / "out dir";
    ASSERT_EQ(qobtest::ExtractAll(package, out), SUCCESS);
    EXPECT_EQ(ReadFile(out / "IMG_0001.CR3"), ReadFile(raw));
    // The stem (up to the last dot) plus the extension from the first dot.
    EXPECT_EQ(ReadFile(out / "Quillmarsh/Settings1680/IMG_0001.CR3.CR3.xmp"), ReadFile(settings));
    EXPECT_EQ(ReadFile(out / "Quillmarsh/Cache/Proxies/IMG_0001.CR3.CR3.jpg"), ReadFile(proxy));
    EXPECT_FALSE(fs::exists(out / "manifest.xml"));
    {
        LogCapture log(&QOB_SetLogFn);
        ASSERT_EQ(qobtest::ExtractAll(package, out), SUCCESS);
        EXPECT_EQ(log.Count("Archive::Extract: overwriting"), 3u);
    }

    // Removing an ordinary entry takes it out of the zip and out of every manifest.
    ASSERT_EQ(
        QOB_RemoveEntry(package.string().c_str(), "Quillmarsh/Cache/Proxies/IMG_0001.CR3.jpg"),
        SUCCESS);
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    EXPECT_EQ(info.files().proxy.szPath[0], '\0');
    for (int row = 0; row < QOB_MANIFEST_COUNT; ++row) {
        EXPECT_EQ(std::strstr(info.record->szManifests[row], "ProxyPath"), nullptr) << row;
    }
    ExpectToolsAccept(package);
    // An entry that no manifest mentions (a manifest copy): every manifest is written back.
    ASSERT_EQ(QOB_RemoveEntry(package.string().c_str(), "manifest50.xml"), SUCCESS);
    ASSERT_EQ(info.Read(package), SUCCESS);
    EXPECT_NE(std::strstr(info.record->szManifests[1], "<RawPath>IMG_0001.CR3</RawPath>"), nullptr);
    // A missing entry fails with the zip layer's code.
    EXPECT_EQ(QOB_RemoveEntry(package.string().c_str(), "nope.bin"), FILE_NOT_IN_PACKAGE);
    // The last manifest copy goes without touching the others.
    const std::string primary = info.record->szManifests[0];
    ASSERT_EQ(QOB_RemoveEntry(package.string().c_str(), "manifest1680.xml"), SUCCESS);
    ASSERT_EQ(info.Read(package), SUCCESS);
    EXPECT_EQ(info.record->szManifests[22][0], '\0');
    EXPECT_EQ(primary, info.record->szManifests[0]);
    ExpectToolsAccept(package);
}

} // namespace
