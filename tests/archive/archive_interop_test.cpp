// Other zip tools read what we write, and we read what they write.
#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace qobtest;

std::string Quote(const std::filesystem::path& path) {
    return "'" + path.string() + "'";
}

// Exit status of each tool's own test of the archive: unzip, 7z, bsdtar, Python's zipfile.
std::vector<int> Verdicts(const std::filesystem::path& zip) {
    const std::string file = Quote(zip) + " >/dev/null 2>&1";
    return {qobtest::Run("unzip -t " + file), qobtest::Run("7z t " + file),
            qobtest::Run("bsdtar -tf " + file),
            qobtest::Run(Python() +
                         " -c 'import sys, zipfile; z = zipfile.ZipFile(sys.argv[1]); "
                         "sys.exit(0 if z.testzip() is None else 3)' " +
                         file)};
}

class ArchiveInteropTest : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "the tools are not reachable from Windows test programs";
#else
        if (Python().empty() ||
            qobtest::Run("(command -v unzip && command -v 7z && command -v bsdtar && "
                         "command -v zip) >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "unzip, 7z, bsdtar, zip or Python is not installed";
        }
#endif
        QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    }
    void TearDown() override {
        QOB::SetLogSink(nullptr, nullptr);
    }

    TempDir dir;
};

TEST_F(ArchiveInteropTest, OtherToolsAcceptOurArchives) {
    const auto path = dir / "ours.zip";
    const std::string big = RandomBytes(300000, 1);
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("Settings/a.xml"), Bytes("<a/>"), 4, 16384);
        archive.Insert(QOB::Path("raw/big.bin"), Bytes(big), big.size(), 0);
        archive.Insert(QOB::Path("empty"), Bytes(""), 0, 10);
        archive.Insert(QOB::Path("gone"), Bytes("xyz"), 3, 3);
        archive.Insert(QOB::Path("last"), Bytes(std::string(65535, 'l')), 65535, 1);
    }
    const std::vector<int> accepted = {0, 0, 0, 0};
    EXPECT_EQ(Verdicts(path), accepted);
    {
        QOB::Archive archive(path, true);
        archive.Update(QOB::Path("Settings/a.xml"), Bytes("<b>longer</b>"), 13);
        archive.Remove(QOB::Path("gone"));
    }
    EXPECT_EQ(Verdicts(path), accepted);
    EXPECT_EQ(qobtest::Run("unzip -p " + Quote(path) + " raw/big.bin > " + Quote(dir / "big")), 0);
    EXPECT_TRUE(ReadFile(dir / "big") == big);
}

TEST_F(ArchiveInteropTest, ReadsArchivesOfOtherTools) {
    const auto source = dir / "src";
    std::filesystem::create_directories(source / "sub");
    const std::map<std::string, std::string> files = {
        {"text.txt", std::string(50000, 'a') + "end"},
        {"sub/random.bin", RandomBytes(100000, 3)},
        {"sub/empty", ""},
    };
    for (const auto& [name, content] : files) {
        WriteFile(source / name, content);
    }
    const std::string script = R"(
import io, os, sys, zipfile
src, out = sys.argv[1], sys.argv[2]
names = ["text.txt", "sub/random.bin", "sub/empty"]
for label, method in (("stored", zipfile.ZIP_STORED), ("deflated", zipfile.ZIP_DEFLATED)):
    with zipfile.ZipFile(os.path.join(out, label + ".zip"), "w", method) as z:
        for n in names:
            z.write(os.path.join(src, n), n)
        z.comment = b"PK\x05\x06 looks like an end record"
class Unseekable(io.RawIOBase):
    def __init__(self, f): self.f = f
    def writable(self): return True
    def write(self, b): return self.f.write(b)
with open(os.path.join(out, "descriptor.zip"), "wb") as f:
    with zipfile.ZipFile(Unseekable(f), "w", zipfile.ZIP_DEFLATED) as z:
        for n in names:
            with open(os.path.join(src, n), "rb") as s, z.open(n, "w") as d:
                d.write(s.read())
)";
    WriteFile(dir / "make.py", script);
    ASSERT_EQ(qobtest::Run(Python() + " " + Quote(dir / "make.py") + " " + Quote(source) + " " +
                           Quote(dir.path())),
              0);
    const std::string names = " text.txt sub/random.bin sub/empty >/dev/null 2>&1";
    ASSERT_EQ(
        qobtest::Run("cd " + Quote(source) + " && zip -9 -X " + Quote(dir / "zip9.zip") + names),
        0);
    ASSERT_EQ(
        qobtest::Run("cd " + Quote(source) + " && 7z a -tzip " + Quote(dir / "7z.zip") + names), 0);

    for (const char* archiveName :
         {"stored.zip", "deflated.zip", "descriptor.zip", "zip9.zip", "7z.zip"}) {
        SCOPED_TRACE(archiveName);
        QOB::Archive archive(dir / archiveName, true);
        const auto entries = archive.List();
        ASSERT_EQ(entries.size(), files.size());
        for (const auto& entry : entries) {
            const std::string& expected = files.at(entry.path);
            EXPECT_EQ(entry.content_size, expected.size());
            EXPECT_TRUE(Text(archive.Read(QOB::Path(entry.path))) == expected) << entry.path;
        }
    }
}

} // namespace
