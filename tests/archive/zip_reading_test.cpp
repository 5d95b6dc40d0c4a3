// Zip files as other tools write them and as attackers craft them: qob shows the names and
// bytes that Python's zipfile shows, or refuses with a reason; memory stays bounded by the
// file, and a failed extraction leaves no file with wrong content.
#include "archive/archive.hpp"

#include "api/package_host.hpp"
#include "archive/archive_test_util.hpp"
#include "archive/minizip/entry_name.hpp"
#include "common/largest_allocation.hpp"
#include "common/test_files.hpp"
#include "common/zip_fixtures.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <new>
#include <optional>
#include <sstream>
#include <system_error>

namespace {

namespace fs = std::filesystem;
namespace fx = qobtest::fixtures;
using qobtest::TempDir;

// What reading an entry by its listed name gives: content, or a failure whose text holds this.
struct Shown {
    std::string name;
    std::string content;
    std::string failure;
};

// What Python's zipfile is expected to do with the same file.
enum class Python {
    Same,    // the same names; where both read an entry, the same bytes; where it fails, we fail
    Refuses, // it refuses the whole file (we read more than it does)
    Ignore,  // a kind we refuse by design; whatever it does is not compared
};

struct Seen {
    bool opened = false;
    std::vector<std::string> names;
    std::vector<std::optional<std::string>> contents; // nullopt: the read failed
    std::vector<std::uint64_t> dataOffsets;
};

#ifndef _WIN32
std::string FromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}
#endif

// Python's view of a file: the names it lists and what reading each by name gives.
std::optional<Seen> PythonSees(const TempDir& dir, const fs::path& zip) {
#ifdef _WIN32
    (void)dir, (void)zip;
    return std::nullopt; // Python is not reachable from Windows test programs
#else
    if (qobtest::Python().empty()) {
        return std::nullopt;
    }
    const fs::path script = dir / "sees.py";
    qobtest::WriteFile(script, R"(import struct, sys, zipfile
try:
    z = zipfile.ZipFile(sys.argv[1])
    infos = z.infolist()
except Exception:
    print("REFUSED")
    sys.exit(0)
print("OPENED")
for info in infos:
    try:
        data = z.read(info.filename).hex() or "-"
    except Exception:
        data = "ERR"
    z.fp.seek(info.header_offset)
    head = z.fp.read(30)
    offset = info.header_offset + 30 + sum(struct.unpack("<HH", head[26:30]))
    print(info.filename.encode("utf-8", "surrogateescape").hex() or "-", data, offset)
)");
    const fs::path out = dir / "sees.txt";
    if (qobtest::Run(qobtest::Python() + " '" + script.string() + "' '" + zip.string() + "' > '" +
                     out.string() + "' 2>/dev/null") != 0) {
        ADD_FAILURE() << "Python could not run";
        return std::nullopt;
    }
    std::istringstream lines(qobtest::ReadFile(out));
    Seen seen;
    std::string verdict;
    lines >> verdict;
    seen.opened = verdict == "OPENED";
    std::string name, data;
    std::uint64_t offset = 0;
    while (lines >> name >> data >> offset) {
        seen.names.push_back(name == "-" ? "" : FromHex(name));
        seen.contents.push_back(data == "ERR" ? std::nullopt
                                              : std::optional(data == "-" ? "" : FromHex(data)));
        seen.dataOffsets.push_back(offset);
    }
    return seen;
#endif
}

// Our view: the listing, and each entry read by its listed name.
Seen QobSees(const fs::path& zip, std::vector<std::string>* failures = nullptr) {
    Seen seen;
    QOB::Archive archive(zip, true);
    seen.opened = true;
    for (const QOB::Entry& entry : archive.List()) {
        seen.names.push_back(entry.path);
        seen.dataOffsets.push_back(entry.data_offset);
        std::string failure;
        try {
            seen.contents.push_back(qobtest::Text(archive.Read(QOB::Path(entry.path))));
        } catch (const QOB::Exception& e) {
            failure = e.what();
        } catch (const std::system_error& e) {
            failure = e.what();
        }
        if (!failure.empty()) {
            seen.contents.push_back(std::nullopt);
        }
        if (failures != nullptr) {
            failures->push_back(failure);
        }
    }
    return seen;
}

class ZipReading : public ::testing::Test {
protected:
    void SetUp() override {
        QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    }
    void TearDown() override { QOB::SetLogSink(nullptr, nullptr); }

    fs::path Write(const std::string& bytes, const std::string& name = "fixture.zip") {
        const fs::path path = dir / name;
        qobtest::WriteFile(path, bytes);
        return path;
    }

    TempDir dir;
};

TEST_F(ZipReading, ShowsWhatPythonShowsOrRefusesWithAReason) {
    struct Case {
        const char* what;
        std::string bytes;
        std::string openFailure; // opening fails with this in the message
        std::vector<Shown> shown;
        Python python;
        // Names an older Python lists instead (3.11 predates the Unicode Path field).
        std::vector<std::string> olderPythonNames = {};
    };
    const std::string cutShort = [] {
        qobtest::RawZip zip;
        zip.Add("a.txt", "a");
        zip.Comment("", 50);
        return zip.Finish();
    }();
    const std::string ninety = std::string(51966, 'x') + std::string(8034, '\0');
    // clang-format off
    const Case cases[] = {
        {"the last end record, its comment cut short, not the one hidden in front",
         fx::HiddenEndRecord(), "", {{"FILE", "P", ""}}, Python::Same},
        {"a comment cut short, nothing hidden", cutShort, "", {{"a.txt", "a", ""}}, Python::Same},
        {"an end record signature inside a real comment stays comment text",
         fx::CommentWithSignature(), "", {{"a.txt", "kept", ""}}, Python::Refuses},
        {"a stored entry claiming 4 GiB in a tiny file", fx::ClaimedHugeStored(), "",
         {{"big", "", "runs past the end of the file"}}, Python::Same},
        {"a deflated entry claiming 4 GiB from a few bytes", fx::ClaimedHugeDeflated(), "",
         {{"big", "", "more than its compressed data can hold"}}, Python::Same},
        {"backslashes read as they are listed", fx::BackslashNames(), "",
         {{"a\\b\\c", "abc", ""}, {"dir\\file.txt", "in dir", ""}}, Python::Same},
        {"names that are one once backslashes read as slashes", fx::CollidingNames(), "",
         {{"a\\b", "", "two entries are named \"a/b\""},
          {"a/b", "", "two entries are named \"a/b\""},
          {"c.txt", "unaffected", ""}}, Python::Same},
        {"code page 437 names, and the Unicode Path field when it belongs to the name",
         fx::Cp437Names(), "",
         {{"\xc3\x87\xc3\xbc.txt", "cp437", ""}, {"na\xc3\xafve \xc3\xa1.txt", "more cp437", ""},
          {"\xe6\x97\xa5\xe6\x9c\xac.txt", "unicode path", ""}, {"\xc3\x96.txt", "stale field", ""},
          {"\xe2\x94\x9c\xe2\x8c\x90.txt", "no flag", ""}},
         Python::Same,
         {"\xc3\x87\xc3\xbc.txt", "na\xc3\xafve \xc3\xa1.txt", "\xc3\x84.txt", "\xc3\x96.txt",
          "\xe2\x94\x9c\xe2\x8c\x90.txt"}},
        {"a name flagged UTF-8 that is not fails alone", fx::NotUtf8Flagged(), "",
         {{"good.txt", "good", ""}, {"bad\xff.txt", "", "entry path is not UTF-8"}},
         Python::Refuses},
        {"a bad CRC-32 fails that entry", fx::BadCrcInTheMiddle(), "",
         {{"a.txt", "first", ""}, {"b.txt", "", "UNZ_CRCERROR"}, {"c.txt", "third", ""}},
         Python::Same},
        {"a stub in front", fx::StubInFront(), "",
         {{"x.txt", "content behind a stub", ""}, {"y.txt", "and another", ""}}, Python::Same},
        {"another tool's 4-byte extra field is no content size", fx::ForeignFourByteExtra(), "",
         {{"jar.bin", ninety, ""}, {"tail.bin", std::string(51966, 'y') + "not zero", ""}},
         Python::Same},
        {"a local header naming another entry", fx::LocalNameDiffers(), "",
         {{"a.txt", "sound", ""}, {"good.txt", "", "its local header gives another name"}},
         Python::Same},
        {"zip64", fx::Zip64Locator(), "zip64 archives are not supported", {}, Python::Ignore},
        {"split over disks", fx::SplitOverDisks(),
         "archives split over several disks are not supported", {}, Python::Ignore},
        {"encryption", fx::Encrypted(), "",
         {{"secret.txt", "", "encrypted entries are not supported"}}, Python::Same},
        {"bzip2", fx::Bzip2Method(), "",
         {{"b.bz2", "", "compression method 12 is not supported"}}, Python::Same},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path zip = Write(c.bytes);
        std::vector<std::string> failures;
        Seen ours;
        try {
            ours = QobSees(zip, &failures);
        } catch (const QOB::Exception& e) {
            EXPECT_FALSE(c.openFailure.empty()) << e.what();
            EXPECT_NE(std::string(e.what()).find(c.openFailure), std::string::npos) << e.what();
            EXPECT_EQ(e.code(), CANNOT_READ_FILE_PCK);
            continue;
        }
        ASSERT_TRUE(c.openFailure.empty()) << "opened";
        ASSERT_EQ(ours.names.size(), c.shown.size());
        for (std::size_t i = 0; i < c.shown.size(); ++i) {
            const Shown& shown = c.shown[i];
            EXPECT_EQ(ours.names[i], shown.name);
            if (shown.failure.empty()) {
                EXPECT_EQ(ours.contents[i].value_or("<failed: " + failures[i] + ">"),
                          shown.content);
            } else {
                EXPECT_NE(failures[i].find(shown.failure), std::string::npos) << failures[i];
            }
        }

        const std::optional<Seen> python = PythonSees(dir, zip);
        if (!python || c.python == Python::Ignore) {
            continue;
        }
        EXPECT_EQ(python->opened, c.python == Python::Same);
        if (c.python != Python::Same) {
            continue;
        }
        if (python->names != ours.names) {
            EXPECT_EQ(python->names, c.olderPythonNames);
        }
        ASSERT_EQ(python->contents.size(), ours.contents.size());
        for (std::size_t i = 0; i < ours.contents.size(); ++i) {
            // We may refuse what Python reads, never show other bytes or read what it refuses.
            if (ours.contents[i]) {
                EXPECT_EQ(python->contents[i], ours.contents[i]) << ours.names[i];
            }
        }
    }
}

// Our writer stores UTF-8 names without the flag: its entries keep their names.
TEST_F(ZipReading, OurOwnUtf8NamesReadBackAsWritten) {
    const fs::path path = dir / "ours.zip";
    const std::string name = "IMG \xc3\xbc 0001.CR3";
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path(name), qobtest::Bytes("raw"), 3, 16);
        archive.Insert(QOB::Path("plain.xmp"), qobtest::Bytes("xmp"), 3, 0);
    }
    QOB::Archive archive(path, true);
    EXPECT_EQ(archive.List().at(0).path, name);
    EXPECT_EQ(qobtest::Text(archive.Read(QOB::Path(name))), "raw");
}

TEST_F(ZipReading, BackslashNamesReadWithEitherSeparator) {
    QOB::Archive archive(Write(fx::BackslashNames()), true);
    for (const char* name : {"a\\b\\c", "a/b/c", "A/B/C"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(archive.Contains(QOB::Path(name)));
        EXPECT_EQ(qobtest::Text(archive.Read(QOB::Path(name))), "abc");
    }
    EXPECT_EQ(archive.Get(QOB::Path("dir/file.txt")).path, "dir\\file.txt");
}

// A directory too large to keep in memory is walked record by record: the same rules hold.
TEST_F(ZipReading, LookupsInAHugeDirectoryFollowTheSameRules) {
    qobtest::RawZip zip;
    const std::string long_name(240, 'n');
    for (int i = 0; i < 65000; ++i) {
        zip.Add(long_name + std::to_string(i), "");
    }
    zip.Add("a\\b\\c", "abc");
    zip.Add("x\\y", "one");
    zip.Add("x/y", "two");
    zip.Add("\x80.txt", "cp437");
    QOB::Archive archive(Write(zip.Finish()), true);
    EXPECT_EQ(qobtest::Text(archive.Read(QOB::Path("a/b/c"))), "abc");
    EXPECT_EQ(qobtest::Text(archive.Read(QOB::Path("\xc3\x87.txt"))), "cp437");
    const std::string failure = qobtest::Failure([&] { archive.Read(QOB::Path("x/y")); });
    EXPECT_NE(failure.find("two entries are named \"x/y\""), std::string::npos) << failure;
}

TEST_F(ZipReading, DataOffsetCountsTheStubInFront) {
    const std::string bytes = fx::StubInFront();
    const fs::path zip = Write(bytes);
    const Seen ours = QobSees(zip);
    for (std::size_t i = 0; i < ours.names.size(); ++i) {
        EXPECT_EQ(bytes.substr(ours.dataOffsets[i], ours.contents[i]->size()), ours.contents[i]);
    }
    if (const std::optional<Seen> python = PythonSees(dir, zip)) {
        EXPECT_EQ(python->dataOffsets, ours.dataOffsets);
    }
}

TEST_F(ZipReading, CodePage437IsDecodedAsPythonDecodesIt) {
    std::string upper;
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        upper += static_cast<char>(byte);
    }
    const std::string decoded = QOB::MiniZip::DecodeName({upper});
    // A few rows by hand, so that the table is checked where Python is not at hand.
    EXPECT_EQ(decoded.substr(0, 2), "\xc3\x87");               // 0x80 C cedilla
    EXPECT_EQ(decoded.substr(decoded.size() - 2), "\xc2\xa0"); // 0xFF no-break space
    EXPECT_NE(decoded.find("\xe2\x96\x91\xe2\x96\x92\xe2\x96\x93"), std::string::npos); // B0-B2
#ifndef _WIN32
    if (qobtest::Python().empty()) {
        GTEST_SKIP() << "no Python";
    }
    const fs::path out = dir / "cp437.txt";
    ASSERT_EQ(qobtest::Run(qobtest::Python() +
                           " -c 'import sys; sys.stdout.buffer.write(bytes(range(128, 256))"
                           ".decode(\"cp437\").encode())' > '" +
                           out.string() + "'"),
              0);
    EXPECT_EQ(decoded, qobtest::ReadFile(out));
#endif
}

TEST_F(ZipReading, FailedExtractionLeavesNoWrongBytes) {
    const fs::path zip = Write(fx::BadCrcInTheMiddle());
    const fs::path out = dir / "out";
    fs::create_directories(out);
    qobtest::WriteFile(out / "b.txt", "what was there before");
    QOB::Archive archive(zip, true);
    std::vector<std::string> failed;
    for (const QOB::Entry& entry : archive.List()) {
        try {
            archive.Extract(entry, out, entry.path);
        } catch (const QOB::Exception&) {
            failed.push_back(entry.path);
        }
    }
    EXPECT_EQ(failed, std::vector<std::string>{"b.txt"});
    std::map<std::string, std::string> files;
    for (const auto& item : fs::directory_iterator(out)) {
        files[item.path().filename().string()] = qobtest::ReadFile(item.path());
    }
    const std::map<std::string, std::string> expected = {
        {"a.txt", "first"}, {"b.txt", "what was there before"}, {"c.txt", "third"}};
    EXPECT_EQ(files, expected); // no temporary file left either
}

TEST_F(ZipReading, WholePackageExtractionStopsBeforeWrongBytes) {
    struct Case {
        const char* what;
        std::string bytes;
        QobErrorCode_e result;
    };
    const Case cases[] = {
        // Every name is checked before anything is written.
        {"a name flagged UTF-8 that is not", fx::NotUtf8Flagged(), INTERNAL_INCONSISTENCY},
        {"a bad CRC-32", fx::BadCrcInTheMiddle(), CANNOT_READ_FILE_PCK},
    };
    QOB_SetLogFn(&qobtest::SilentSink, nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path zip = Write(c.bytes, "p.qob");
        const fs::path out = dir / "all";
        fs::remove_all(out);
        fs::create_directories(out);
        EXPECT_EQ(qobtest::ExtractAll(zip, out), c.result);
        for (const auto& item : fs::recursive_directory_iterator(out)) {
            // Only sound content, under a final name.
            const std::string content = qobtest::ReadFile(item.path());
            EXPECT_TRUE(content == "first" || content == "third") << item.path();
        }
        if (c.result == INTERNAL_INCONSISTENCY) {
            EXPECT_TRUE(fs::is_empty(out));
        }
    }
}

TEST_F(ZipReading, MemoryStaysBoundedByTheFile) {
    for (const std::string& bytes : {fx::ClaimedHugeStored(), fx::ClaimedHugeDeflated()}) {
        const fs::path zip = Write(bytes);
        const fs::path out = dir / "out";
        // Sizes from a directory must not be allocated before they are checked against the file.
        qobtest::WatchAllocations(true);
        try {
            QOB::Archive archive(zip, true);
            const std::vector<QOB::Entry> entries = archive.List();
            EXPECT_THROW(archive.Read(QOB::Path("big")), QOB::Exception);
            EXPECT_THROW(archive.Extract(entries.at(0), out, "big"), QOB::Exception);
            EXPECT_THROW(archive.Check(QOB::Path("big")), QOB::Exception);
        } catch (...) {
            qobtest::WatchAllocations(false);
            throw;
        }
        qobtest::WatchAllocations(false);
        // The reader's fixed buffers, nothing in proportion to what the directory claims.
        EXPECT_LE(qobtest::LargestAllocation(), 64u * 1024) << bytes.size() << "-byte file";
        EXPECT_FALSE(fs::exists(out / "big"));
    }
}

TEST_F(ZipReading, SixtyFiveThousandFiveHundredThirtyFiveEntriesAreNoZip64) {
    QOB::Archive archive(Write(fx::ManyEntries()), true);
    EXPECT_EQ(archive.List().size(), 65535u);
    EXPECT_EQ(qobtest::Text(archive.Read(QOB::Path("e65534"))), "last");
}

} // namespace
