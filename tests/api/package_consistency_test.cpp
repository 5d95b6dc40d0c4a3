// Names, identifiers and descriptions that once left packages whose manifests and zip
// disagreed, or that no call could read, while the call said SUCCESS. One row per case.
#include "api/package_host.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace qobtest;

const std::string kRaw = RandomBytes(5000, 7);
const std::string kBytes = "companion bytes";
const std::string kProfile = "profile!!";

struct CreateCase {
    const char* name;
    std::string raw;   // file name of the raw image (content from memory)
    std::string lccId; // one LCC profile when not empty
    std::string iccId; // one ICC profile when not empty
    bool collide;      // a settings file and a mask that map to one entry name
    QobErrorCode_e expected;
};

std::vector<CreateCase> CreateCases() {
    // A settings entry is "Quillmarsh/Settings1680/" + raw + ".xmp": 28 bytes more than raw.
    // An LCC entry is "Quillmarsh/Settings1680/R.IIQ." + id + ".lcc": 34 bytes more than id.
    return {
        {"settings name of 255 bytes", std::string(225, 'r') + ".x", "", "", false, SUCCESS},
        {"settings name of 256 bytes", std::string(226, 'r') + ".x", "", "", false,
         INVALID_PARAMETER},
        {"settings name of 259 bytes", std::string(229, 'r') + ".x", "", "", false,
         INVALID_PARAMETER},
        {"lcc name of 255 bytes", "R.IIQ", std::string(221, 'i'), "", false, SUCCESS},
        {"lcc name of 256 bytes", "R.IIQ", std::string(222, 'i'), "", false, INVALID_PARAMETER},
        {"lcc id with a slash", "R.IIQ", "EF24-70mm f/2.8L", "", false, SUCCESS},
        {"lcc id with a backslash", "R.IIQ", "v1\\x", "", false, SUCCESS},
        {"lcc id climbing out", "R.IIQ", "../../../../evil", "", false, INVALID_PARAMETER},
        {"icc id naming a manifest", "R.IIQ", "", "../../../manifest.xml", false,
         INVALID_PARAMETER},
        {"icc id naming a directory", "R.IIQ", "", "x/", false, INVALID_PARAMETER},
        {"raw image named like a manifest", "MANIFEST.XML", "", "", false, INVALID_PARAMETER},
        {"settings and mask on one name", "R.IIQ", "", "", true, SUCCESS},
    };
}

TEST(PackageConsistency, CreateRefusesWhatItCouldNotReadBack) {
    for (const CreateCase& c : CreateCases()) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const fs::path package = dir / "p.qob";
        auto args = NewArgs<QOB_CreateArgs>(package);
        // The raw image's name may be longer than a Windows path allows: it comes from memory.
        args->files.raw = MemoryEntry(c.raw.c_str(), kRaw);
        args->files.settings = MemoryEntry("settings.xmp", kBytes, 100);
        QOB_EntryInfo lcc = MemoryEntry("p.lcc", kProfile, 0, c.lccId.c_str());
        QOB_EntryInfo icc = MemoryEntry("p.icc", kProfile, 0, c.iccId.c_str());
        if (!c.lccId.empty()) {
            args->files.uLccCount = 1;
            args->files.pLccs = &lcc;
        }
        if (!c.iccId.empty()) {
            args->files.uIccCount = 1;
            args->files.pIccs = &icc;
        }
        const std::string maskBytes = "mask bytes, written last";
        if (c.collide) {
            args->files.settings = MemoryEntry("settings.xml", kBytes, 100);
            args->files.mask = MemoryEntry("mask.xml", maskBytes);
        }
        ASSERT_EQ(QOB_Create(args.get()), c.expected);
        if (c.expected != SUCCESS) {
            EXPECT_FALSE(fs::exists(package)) << "a refused create writes nothing";
            continue;
        }
        ExpectConsistent(package, c.raw.size() + c.lccId.size() < 64);
        Info info;
        ASSERT_EQ(info.Read(package), SUCCESS);
        if (!c.lccId.empty()) {
            // The manifest names exactly the entry that was stored.
            QOB_EntryInfo found;
            QOB_Constructor(&found, QOB_OBJECT_ENTRY_INFO);
            ASSERT_EQ(QOB_GetLensCastCalibInfo(package.string().c_str(), c.lccId.c_str(), &found),
                      SUCCESS);
            EXPECT_EQ(found.uStoredSize, kProfile.size());
        }
        if (c.collide) {
            EXPECT_STREQ(info.files().settings.szPath, info.files().mask.szPath);
            EXPECT_EQ(info.files().mask.uStoredSize, maskBytes.size());
        }
    }
}

class StaleDescriptions : public ::testing::Test {
protected:
    void SetUp() override {
        for (const fs::path& package : {a, b}) {
            auto args = NewArgs<QOB_CreateArgs>(package);
            const std::string raw = package.stem().string() + ".IIQ";
            args->files.raw = MemoryEntry(raw.c_str(), kRaw);
            args->files.settings = MemoryEntry("s.cos", kBytes, 100);
            args->files.proxy = MemoryEntry("p.jpg", kBytes);
            ASSERT_EQ(QOB_Create(args.get()), SUCCESS);
        }
    }

    // Updates package with one new LCC profile, starting from description; the record the
    // call returns is copied back into description.
    QobErrorCode_e AddLcc(const fs::path& package, Info& description, const char* id) {
        QOB_ImageFiles files{};
        QOB_EntryInfo lcc = MemoryEntry("n.lcc", kBytes, 0, id);
        files.uLccCount = 1;
        files.pLccs = &lcc;
        return UpdateFrom(description, package, files);
    }

    TempDir dir;
    fs::path a = dir / "A.qob", b = dir / "B.qob";
};

TEST_F(StaleDescriptions, UpdateRefusesAnyButTheCurrentOne) {
    Info infoA, infoB;
    ASSERT_EQ(infoA.Read(a), SUCCESS);
    ASSERT_EQ(infoB.Read(b), SUCCESS);
    const std::string bytesA = ReadFile(a);

    // Package B's description, and one built by hand: A stays byte for byte as it was.
    EXPECT_EQ(AddLcc(a, infoB, "L1"), INVALID_PARAMETER);
    Info empty;
    std::strcpy(empty.record->files.raw.szPath, "A.IIQ");
    EXPECT_EQ(AddLcc(a, empty, "L1"), INVALID_PARAMETER);
    EXPECT_EQ(ReadFile(a), bytesA);

    // Read, update, update again with what the first update returned: both succeed.
    Info stale;
    ASSERT_EQ(stale.Read(a), SUCCESS);
    ASSERT_EQ(AddLcc(a, infoA, "L1"), SUCCESS);
    ASSERT_EQ(AddLcc(a, infoA, "L2"), SUCCESS);
    ExpectConsistent(a);
    // A description read before those updates would lose them: refused, nothing changed.
    const std::string bytesAfter = ReadFile(a);
    EXPECT_EQ(AddLcc(a, stale, "L3"), INVALID_PARAMETER);
    EXPECT_EQ(ReadFile(a), bytesAfter);
    ASSERT_EQ(stale.Read(a), SUCCESS);
    EXPECT_EQ(stale.files().uLccCount, 2u);
    EXPECT_EQ(AddLcc(a, stale, "L3"), SUCCESS);
    ExpectConsistent(a);

    // The same record read again from another package holds only that package's files.
    ASSERT_EQ(stale.Read(b), SUCCESS);
    EXPECT_EQ(stale.files().uLccCount, 0u);
    EXPECT_STREQ(stale.files().raw.szPath, "B.IIQ");
}

TEST_F(StaleDescriptions, RemovalBySpellingTheZipWouldNotStore) {
    ASSERT_EQ(QOB_RemoveEntry(a.string().c_str(), "Quillmarsh\\Settings1680\\A.IIQ.cos"), SUCCESS);
    Info info;
    ASSERT_EQ(info.Read(a), SUCCESS);
    EXPECT_STREQ(info.files().settings.szPath, "");
    ExpectConsistent(a);
    ASSERT_EQ(QOB_RemoveEntry(a.string().c_str(), "./Quillmarsh/Cache/Proxies/A.IIQ.jpg"), SUCCESS);
    ExpectConsistent(a);
}

} // namespace
