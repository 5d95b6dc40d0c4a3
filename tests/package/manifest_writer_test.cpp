// Writing manifests, naming entries inside a package, and choosing between an in-place
// rewrite and a move when content changes.
#include "archive/archive.hpp"
#include "archive/path.hpp"
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
#include <string>
#include <vector>

namespace {

using QOB::EntryKind;

// A package description built in memory. The profile lists point into this object, so they
// are detached before the record is released.
struct Description {
    Description() : info(std::make_unique<QOB_PackageInfo>()) {
        EXPECT_EQ(QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    }
    ~Description() {
        info->files.pLccs = nullptr;
        info->files.uLccCount = 0;
        QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    }
    void SetLccs(const std::vector<std::pair<const char*, const char*>>& idAndPath) {
        lccs.assign(idAndPath.size(), QOB_EntryInfo{});
        for (std::size_t i = 0; i < idAndPath.size(); ++i) {
            std::strcpy(lccs[i].szIdentifier, idAndPath[i].first);
            std::strcpy(lccs[i].szPath, idAndPath[i].second);
        }
        info->files.uLccCount = static_cast<std::uint32_t>(lccs.size());
        info->files.pLccs = lccs.data();
    }
    QOB::Xml::Node Root(std::size_t row) {
        parsed = QOB::Xml::Parse(info->szManifests[row], "Manifest");
        EXPECT_TRUE(parsed.element) << row;
        return parsed.element;
    }
    std::unique_ptr<QOB_PackageInfo> info;
    std::vector<QOB_EntryInfo> lccs;
    QOB::Xml::ParseResult parsed;
};

std::string TextOf(const QOB::Xml::Node& node) {
    return node && node.Text() != nullptr ? node.Text() : "";
}

TEST(ManifestWriter, EmptyDescriptionGivesAllManifests) {
    Description d;
    QOB::GenerateManifestInMem(d.info.get());
    const char* header[] = {"Platform", "Version", "MinorVersion", "Type"};
    for (std::size_t row = 0; row < QOB_MANIFEST_COUNT; ++row) {
        SCOPED_TRACE(row);
        const QOB::Xml::Node root = d.Root(row);
        ASSERT_TRUE(root);
        EXPECT_EQ(root.ChildCount("File"), 1u);
        for (const char* name : header) {
            EXPECT_EQ(root.ChildCount(name), row == 0 ? 1u : 0u) << name;
        }
    }
    const QOB::Xml::Node primary = d.Root(0);
    EXPECT_EQ(TextOf(primary.Child("Platform")), "0");
    EXPECT_EQ(TextOf(primary.Child("Version")), "1");
    EXPECT_EQ(TextOf(primary.Child("MinorVersion")), "3");
    EXPECT_EQ(TextOf(primary.Child("Type")), "0");

    // Regenerating from its own output changes nothing.
    std::vector<std::string> first(std::begin(d.info->szManifests), std::end(d.info->szManifests));
    QOB::GenerateManifestInMem(d.info.get());
    for (std::size_t row = 0; row < QOB_MANIFEST_COUNT; ++row) {
        EXPECT_EQ(first[row], d.info->szManifests[row]) << row;
    }
}

TEST(ManifestWriter, ProfilesAreMatchedByIdentifier) {
    Description d;
    d.SetLccs({{"L1", "/src/a.lcc"}, {"L2", "/src/b.lcc"}});
    QOB::GenerateManifestInMem(d.info.get());
    // Only L2 comes again, first in the list: its element is updated, nothing is added.
    d.SetLccs({{"L2", "/src/c.lcc"}});
    QOB::GenerateManifestInMem(d.info.get());
    for (std::size_t row = 0; row < QOB_MANIFEST_COUNT; ++row) {
        SCOPED_TRACE(row);
        const QOB::Xml::Node lccs = d.Root(row).Child("File").Child("LCCs");
        ASSERT_EQ(lccs.ChildCount("LCCPath"), 2u);
        EXPECT_STREQ(lccs.Child("LCCPath", 0).Attribute("LccID"), "L1");
        EXPECT_EQ(TextOf(lccs.Child("LCCPath", 0)), "Quillmarsh/Settings1680/a.lcc");
        EXPECT_STREQ(lccs.Child("LCCPath", 1).Attribute("LccID"), "L2");
        EXPECT_EQ(TextOf(lccs.Child("LCCPath", 1)), "Quillmarsh/Settings1680/c.lcc");
    }
}

TEST(ManifestWriter, DeleteFileFromManifest) {
    const std::string x = "Quillmarsh/Settings1680/x";
    const std::string source =
        "<Manifest><Note>" + x + "</Note><File><RawPath>a.raw</RawPath><SettingsPath>" + x +
        "</SettingsPath><ProxyPath>" + x + "2</ProxyPath><LCCs><LCCPath LccID=\"1\">" + x +
        "</LCCPath><LCCPath LccID=\"2\">keep.lcc</LCCPath></LCCs><ICCs><ICCPath IccID=\"3\">" + x +
        "</ICCPath></ICCs></File><File><QmMaskPath>" + x + "</QmMaskPath></File>" +
        "<Version>1</Version></Manifest>";
    std::vector<char> text(QOB_MANIFEST_SIZE, '\0');
    std::memcpy(text.data(), source.data(), source.size());
    ASSERT_EQ(QOB::DeleteFileFromManifest(text.data(), x.c_str()), SUCCESS);
    const std::string expected =
        "<Manifest><Note>" + x + "</Note><File><RawPath>a.raw</RawPath><ProxyPath>" + x +
        "2</ProxyPath><LCCs><LCCPath LccID=\"2\">keep.lcc</LCCPath></LCCs><ICCs/></File>"
        "<File/><Version>1</Version></Manifest>";
    const auto parsedExpected = QOB::Xml::Parse(expected, "Manifest");
    ASSERT_TRUE(parsedExpected.element);
    EXPECT_EQ(std::string(text.data()), QOB::Xml::RenderToString(parsedExpected.element));

    // Text that does not parse is refused and left alone.
    const std::string broken = "<Manifest><File><RawPath>x</Raw></File>";
    std::fill(text.begin(), text.end(), '\0');
    std::memcpy(text.data(), broken.data(), broken.size());
    EXPECT_EQ(QOB::DeleteFileFromManifest(text.data(), "x"), INVALID_PARAMETER);
    EXPECT_EQ(std::string(text.data()), broken);
}

TEST(ManifestWriter, InternalFileNames) {
    struct Case {
        const char* external;
        EntryKind kind;
        const char* suffix;
        const char* expected;
    };
    const Case cases[] = {
        {"/photos/photo.old.tif", EntryKind::Settings, "", "IMG.tif"},
        {"C:\\photos\\preview.jpg", EntryKind::Proxy, "", "IMG.jpg"},
        {"/photos/noextension", EntryKind::Mask, "", "noextension"},
        {"/photos/trailing.", EntryKind::Hair, "", "trailing."},
        {"/photos/IMG_1.CR3", EntryKind::Raw, "", "IMG_1.CR3"},
        {"/photos/lens.profile", EntryKind::Lcc, "L1", "IMG.L1.lcc"},
        {"/photos/display.icc", EntryKind::Icc, "sRGB", "IMG.sRGB"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(QOB::GetInternalFileNameFromExternal(c.external, c.kind, "IMG", c.suffix),
                  c.expected)
            << c.external;
    }
    try {
        QOB::GetInternalFileNameFromExternal("a.b", static_cast<EntryKind>(7), "IMG", "");
        ADD_FAILURE() << "kind 7 accepted";
    } catch (const QOB::Exception& e) {
        EXPECT_EQ(e.code(), INTERNAL_INCONSISTENCY);
    }
}

TEST(ManifestWriter, UpdateStepsFollowTheSpaceRule) {
    qobtest::TempDir dir;
    const auto file = dir / "steps.qob";
    // 1000 bytes of space: 100 of content and 900 reserved.
    qobtest::BuildPackage(file, {{"e.bin", std::string(100, 'e'), 900}});
    QOB::Archive archive(file, true);
    struct Case {
        const char* entry;
        std::uint64_t size;
        bool compact;
        bool inPlace, remove, insert;
    };
    const Case cases[] = {
        {"e.bin", 790, true, false, true, true}, // below 80 percent: give the space back
        {"e.bin", 799, true, false, true, true},
        {"e.bin", 800, true, true, false, false},  // exactly 80 percent stays
        {"e.bin", 790, false, true, false, false}, // without compact any fit stays
        {"e.bin", 0, false, true, false, false},
        {"e.bin", 1000, true, true, false, false}, // exactly the space
        {"e.bin", 1000, false, true, false, false},
        {"e.bin", 1001, false, false, true, true}, // one byte more moves
        {"e.bin", 1001, true, false, true, true},
        {"absent.bin", 10, false, false, false, true},
        {"absent.bin", 10, true, false, false, true},
    };
    for (const Case& c : cases) {
        const QOB::UpdateSteps steps =
            QOB::GetUpdateSteps(archive, QOB::Path(c.entry), c.size, c.compact);
        SCOPED_TRACE(std::string(c.entry) + " size " + std::to_string(c.size) +
                     (c.compact ? " compact" : ""));
        EXPECT_EQ(steps.updateInPlace, c.inPlace);
        EXPECT_EQ(steps.remove, c.remove);
        EXPECT_EQ(steps.insert, c.insert);
    }
}

// An entry found under a name that differs only in letter case counts as present (the
// lookup ignores case), so content that fits must be rewritten in place under that entry.
TEST(ManifestWriter, UpdateInPlaceWhereTheNameDiffersInCase) {
    qobtest::TempDir dir;
    const auto file = dir / "case.qob";
    qobtest::BuildPackage(file, {{"Quillmarsh/Settings1680/IMG.XMP", std::string(100, 'a'), 100}});
    QOB::Archive archive(file, true);
    const std::string content(100, 'b');
    EXPECT_NO_THROW(QOB::UpdateEntryFromMemory(
        archive, QOB::Path("Quillmarsh/Settings1680/IMG.xmp"),
        reinterpret_cast<const std::byte*>(content.data()), content.size(), false, 0));
    EXPECT_EQ(archive.List().size(), 1u);
}

} // namespace
