// Writing manifests, naming entries inside a package, and choosing between an in-place
// rewrite and a move when content changes.
#include "common/test_files.hpp"
#include "package/entry_names.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_writer.hpp"
#include "package/package_builder.hpp"
#include "package/package_content.hpp"
#include "support/exception.hpp"
#include "support/xml/xml.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using QOB::EntryKind;
using QOB::Xml::Node;

// A package description built in memory; its LCC list points into lccs.
struct Description {
    Description() : info(std::make_unique<QOB_PackageInfo>()) {
        EXPECT_EQ(QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    }
    ~Description() {
        info->files.pLccs = nullptr; // detached before the record is released
        info->files.uLccCount = 0;
        QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    }
    void Generate(const std::vector<std::pair<const char*, const char*>>& idAndPath) {
        lccs.assign(idAndPath.size(), QOB_EntryInfo{});
        for (std::size_t i = 0; i < idAndPath.size(); ++i) {
            std::strcpy(lccs[i].szIdentifier, idAndPath[i].first);
            std::strcpy(lccs[i].szPath, idAndPath[i].second);
        }
        info->files.uLccCount = static_cast<std::uint32_t>(lccs.size());
        info->files.pLccs = lccs.data();
        QOB::GenerateManifestInMem(info.get());
    }
    Node Root(std::size_t row) {
        return QOB::Xml::Parse(info->szManifests[row], "Manifest").element;
    }
    std::unique_ptr<QOB_PackageInfo> info;
    std::vector<QOB_EntryInfo> lccs;
};

TEST(ManifestWriter, GeneratesEveryManifestStably) {
    Description d;
    d.Generate({});
    std::vector<std::string> first(std::begin(d.info->szManifests), std::end(d.info->szManifests));
    ASSERT_EQ(first.size(), 23u);
    for (std::size_t row = 0; row < first.size(); ++row) {
        SCOPED_TRACE(row);
        const Node root = d.Root(row);
        EXPECT_EQ(root.ChildCount("File"), 1u);
        for (const char* name : {"Platform", "Version", "MinorVersion", "Type"}) {
            EXPECT_EQ(root.ChildCount(name), row == 0 ? 1u : 0u) << name;
        }
    }
    EXPECT_STREQ(d.Root(0).Child("Version").Text(), "1");
    d.Generate({}); // from its own output: nothing changes
    EXPECT_TRUE(std::equal(first.begin(), first.end(), std::begin(d.info->szManifests)));

    // Only L2 comes again, first in the list: its element is updated, nothing is added.
    d.Generate({{"L1", "/src/a.lcc"}, {"L2", "/src/b.lcc"}});
    d.Generate({{"L2", "/src/c.lcc"}});
    for (std::size_t row = 0; row < first.size(); ++row) {
        const Node lccs = d.Root(row).Child("File").Child("LCCs");
        ASSERT_EQ(lccs.ChildCount("LCCPath"), 2u) << row;
        EXPECT_STREQ(lccs.Child("LCCPath", 0).Attribute("LccID"), "L1");
        EXPECT_STREQ(lccs.Child("LCCPath", 0).Text(), "Quillmarsh/Settings1680/a.lcc");
        EXPECT_STREQ(lccs.Child("LCCPath", 1).Text(), "Quillmarsh/Settings1680/c.lcc");
    }
}

TEST(ManifestWriter, DeleteFileFromManifest) {
    const std::string x = "Quillmarsh/Settings1680/x";
    const std::string before =
        "<Manifest><Note>" + x + "</Note><File><RawPath>a.raw</RawPath><SettingsPath>" + x +
        "</SettingsPath><ProxyPath>" + x + "2</ProxyPath><LCCs><LCCPath LccID=\"1\">" + x +
        "</LCCPath><LCCPath LccID=\"2\">keep.lcc</LCCPath></LCCs><ICCs><ICCPath IccID=\"3\">" + x +
        "</ICCPath></ICCs></File><File><QmMaskPath>" + x + "</QmMaskPath></File></Manifest>";
    const std::string after =
        "<Manifest><Note>" + x + "</Note><File><RawPath>a.raw</RawPath><ProxyPath>" + x +
        "2</ProxyPath><LCCs><LCCPath LccID=\"2\">keep.lcc</LCCPath></LCCs><ICCs/></File>"
        "<File/></Manifest>";
    const std::string broken = "<Manifest><File><RawPath>x</Raw></File>";
    for (const auto& [source, expected, code] :
         {std::tuple{before, after, SUCCESS}, std::tuple{broken, broken, INVALID_PARAMETER}}) {
        std::vector<char> text(QOB_MANIFEST_SIZE, '\0');
        std::memcpy(text.data(), source.data(), source.size());
        EXPECT_EQ(QOB::DeleteFileFromManifest(text.data(), x.c_str()), code);
        EXPECT_EQ(std::string(text.data()), expected);
    }
}

TEST(ManifestWriter, InternalFileNames) {
    const std::tuple<const char*, EntryKind, const char*, const char*> cases[] = {
        {"/photos/photo.old.tif", EntryKind::Settings, "", "IMG.tif"},
        {"C:\\photos\\preview.jpg", EntryKind::Proxy, "", "IMG.jpg"},
        {"/photos/noextension", EntryKind::Mask, "", "noextension"},
        {"/photos/trailing.", EntryKind::Hair, "", "trailing."},
        {"/photos/IMG_1.CR3", EntryKind::Raw, "", "IMG_1.CR3"},
        {"/photos/lens.profile", EntryKind::Lcc, "L1", "IMG.L1.lcc"},
        {"/photos/display.icc", EntryKind::Icc, "sRGB", "IMG.sRGB"},
    };
    for (const auto& [external, kind, suffix, expected] : cases) {
        EXPECT_EQ(QOB::GetInternalFileNameFromExternal(external, kind, "IMG", suffix), expected);
    }
    EXPECT_THROW(QOB::GetInternalFileNameFromExternal("a.b", EntryKind(7), "IMG", ""),
                 QOB::Exception);
}

TEST(ManifestWriter, UpdateStepsFollowTheSpaceRule) {
    qobtest::TempDir dir;
    // 1000 bytes of space: 100 of content and 900 reserved. An entry whose name differs only
    // in letter case is the same entry: content that fits is rewritten in place.
    qobtest::BuildPackage(dir / "steps.qob", {{"e.bin", std::string(100, 'e'), 900}});
    QOB::Archive archive(dir / "steps.qob", true);
    const std::tuple<const char*, std::uint64_t, bool, const char*> cases[] = {
        // entry, size, compact, steps (Update in place, Remove, Insert)
        {"e.bin", 790, true, "RI"}, // below 80 percent of the space: give it back
        {"e.bin", 799, true, "RI"}, {"e.bin", 800, true, "U"},    {"e.bin", 790, false, "U"},
        {"E.BIN", 1000, true, "U"}, {"e.bin", 1001, false, "RI"}, {"absent.bin", 10, true, "I"},
    };
    for (const auto& [entry, size, compact, steps] : cases) {
        const QOB::UpdateSteps s = QOB::GetUpdateSteps(archive, QOB::Path(entry), size, compact);
        EXPECT_EQ(std::string(s.updateInPlace ? "U" : "") + (s.remove ? "R" : "") +
                      (s.insert ? "I" : ""),
                  steps)
            << entry << " " << size << (compact ? " compact" : "");
    }
    const std::string content(1000, 'b');
    EXPECT_NO_THROW(QOB::UpdateEntryFromMemory(archive, QOB::Path("E.bin"),
                                               reinterpret_cast<const std::byte*>(content.data()),
                                               content.size(), false, 0));
    ASSERT_EQ(archive.List().size(), 1u);
}

} // namespace
