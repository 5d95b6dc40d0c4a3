// Extracting hostile packages: entry names that climb out of the destination, links planted
// below it, entries that land on one output path. Refused with INVALID_PARAMETER; nothing
// outside the destination is created or changed.
#include "api/package_host.hpp"
#include "common/raw_zip.hpp"
#include "common/test_files.hpp"
#include "package/package_builder.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>

namespace {

namespace fs = std::filesystem;
using qobtest::EntrySpec;
using qobtest::ExtractAll;

QobErrorCode_e ExtractBytes(const fs::path& package, const std::string& bytes,
                            const fs::path& destination) {
    qobtest::WriteFile(package, bytes);
    return ExtractAll(package, destination);
}

// Extracts everything into root/work/out; returns the result and what root then holds.
std::pair<QobErrorCode_e, std::set<std::string>> Extract(const fs::path& root,
                                                         const std::vector<EntrySpec>& entries) {
    qobtest::BuildPackage(root / "p.qob", entries);
    fs::create_directories(root / "work" / "out");
    const QobErrorCode_e result = ExtractAll(root / "p.qob", root / "work" / "out");
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

// Everything below root: path -> content, "-> target" for links, "/" for directories.
std::map<std::string, std::string> Snapshot(const fs::path& root) {
    std::map<std::string, std::string> tree;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string name = fs::relative(it->path(), root).generic_string();
        if (it->is_symlink()) {
            tree[name] = "-> " + fs::read_symlink(it->path()).generic_string();
        } else if (it->is_directory()) {
            tree[name] = "/";
        } else {
            tree[name] = qobtest::ReadFile(it->path());
        }
    }
    return tree;
}

// Makes a link; false where the system does not let us (Windows without the privilege).
bool Link(const fs::path& target, const fs::path& link, bool directory) {
    std::error_code error;
    if (directory) {
        fs::create_directory_symlink(target, link, error);
    } else {
        fs::create_symlink(target, link, error);
    }
    return !error;
}

TEST(ExtractHostile, LinksBelowTheDestinationAreNeverFollowed) {
    struct Case {
        const char* what;
        const char* link;   // below the destination
        const char* target; // relative to the scratch root unless it starts with "../"
        bool directory;
        const char* entry;
    };
    const Case cases[] = {
        {"directory link", "Quillmarsh", "elsewhere", true, "Quillmarsh/Settings1680/a.xmp"},
        {"relative directory link", "Quillmarsh", "../../elsewhere", true, "Quillmarsh/a.xmp"},
        {"link one level deeper", "Quillmarsh/Settings1680", "elsewhere", true,
         "Quillmarsh/Settings1680/a.xmp"},
        {"file link", "IMG_0001.CR3", "victim.txt", false, "IMG_0001.CR3"},
        {"relative file link", "IMG_0001.CR3", "../../victim.txt", false, "IMG_0001.CR3"},
        {"dangling file link", "IMG_0001.CR3", "missing.txt", false, "IMG_0001.CR3"},
        {"dangling directory link", "Quillmarsh", "nowhere", true, "Quillmarsh/x/a.xmp"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        qobtest::TempDir root;
        const fs::path out = root / "work" / "out";
        fs::create_directories(out);
        fs::create_directories(root / "elsewhere");
        qobtest::WriteFile(root / "victim.txt", "victim");
        const fs::path link = out / c.link;
        fs::create_directories(link.parent_path());
        const std::string target = c.target;
        if (!Link(target.starts_with("../") ? fs::path(target) : root / target, link,
                  c.directory)) {
            GTEST_SKIP() << "links cannot be made here";
        }
        qobtest::RawZip zip;
        zip.Add("first.txt", "written before the bad entry");
        zip.Add(c.entry, "hostile bytes");
        const auto outside = [&] {
            auto tree = Snapshot(root.path());
            std::erase_if(tree, [](const auto& item) { return item.first.starts_with("work"); });
            return tree;
        };
        const auto before = outside();
        qobtest::LogCapture log(&QOB::SetLogSink);
        EXPECT_EQ(ExtractBytes(root / "p.qob", zip.Finish(), out), INVALID_PARAMETER);
        EXPECT_TRUE(log.Contains("would be written through a link")) << c.entry;
        auto after = outside();
        after.erase("p.qob");
        EXPECT_EQ(after, before);
        EXPECT_TRUE(fs::is_symlink(link));
    }
}

TEST(ExtractHostile, EntriesLandingOnOnePathWriteNothing) {
    struct Case {
        std::vector<std::string> names;
        bool collide;
    };
#if defined(_WIN32)
    const bool foldsCase = true;
#else
    const bool foldsCase = false;
#endif
    const Case cases[] = {
        {{"a//b/./x.txt", "a/b/x.txt"}, true},
        {{"Quillmarsh/a.xmp", "Quillmarsh/a.xmp"}, true},
        {{"d", "d/x.txt"}, true},
        {{"d/x.txt", "d"}, true},
        {{"IMG_0001.CR3", "img_0001.cr3"}, foldsCase},
        {{"Dir/a.txt", "dir/b.txt", "DIR/c.txt"}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.names.front() + " / " + c.names.back());
        qobtest::TempDir root;
        qobtest::RawZip zip;
        for (std::size_t i = 0; i < c.names.size(); ++i) {
            zip.Add(c.names[i], "bytes of entry " + std::to_string(i));
        }
        qobtest::LogCapture log(&QOB::SetLogSink);
        const QobErrorCode_e result = ExtractBytes(root / "p.qob", zip.Finish(), root / "out");
        if (c.collide) {
            EXPECT_EQ(result, INVALID_PARAMETER);
            EXPECT_TRUE(log.Contains("entries \"" + c.names.front() + "\" and \"" + c.names.back() +
                                     "\" extract to the same path"));
            EXPECT_TRUE(!fs::exists(root / "out") || fs::is_empty(root / "out"));
            continue;
        }
        // Each file holds its own entry's bytes, even when a case-insensitive lookup by name
        // would have found another entry first.
        EXPECT_EQ(result, SUCCESS);
        for (std::size_t i = 0; i < c.names.size(); ++i) {
            EXPECT_EQ(qobtest::ReadFile(root / "out" / c.names[i]),
                      "bytes of entry " + std::to_string(i));
        }
    }
}

// Extraction reads each entry by its own record: linear in the number of entries (timed in
// bench/hostile_bench.cpp; here only the test's timeout bounds it).
TEST(ExtractHostile, SixtyFiveThousandEntries) {
    qobtest::TempDir root;
    qobtest::RawZip zip;
#if defined(_WIN32)
    constexpr int kEntries = 8192; // every file costs milliseconds under Wine
#else
    constexpr int kEntries = 65535;
#endif
    for (int i = 0; i < kEntries; ++i) {
        zip.Add("d" + std::to_string(i % 64) + "/f" + std::to_string(i), i % 1000 == 0 ? "x" : "");
    }
    EXPECT_EQ(ExtractBytes(root / "p.qob", zip.Finish(), root / "out"), SUCCESS);
    std::size_t files = 0;
    for (const auto& item : fs::recursive_directory_iterator(root / "out")) {
        files += item.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, static_cast<std::size_t>(kEntries));
    EXPECT_EQ(qobtest::ReadFile(root / "out" / "d40" / "f1000"), "x");
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
