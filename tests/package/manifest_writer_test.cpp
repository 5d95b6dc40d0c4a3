// Naming entries inside a package, and choosing between an in-place rewrite and a move when
// content changes.
#include "common/test_files.hpp"
#include "package/entry_names.hpp"
#include "package/package_builder.hpp"
#include "package/package_content.hpp"
#include "support/exception.hpp"

#include <gtest/gtest.h>

namespace {

using QOB::EntryKind;

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
