// Journals beside a package that are not what they claim: each is refused (the call fails, the
// journal stays, the package is untouched) or, if it is nobody's journal at all, dropped. These
// rows need no second user, so they run on every system; the two-user rows live in
// tests/security.
#include "api/package_host.hpp"
#include "archive/journal_format.hpp"

#include <qob/qob.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using namespace qobtest;
namespace fs = std::filesystem;
namespace JF = QOB::JournalFormat;

QobErrorCode_e CreatePackage(const fs::path& package, int seed = 21) {
    auto args = NewArgs<QOB_CreateArgs>(package);
    const std::string raw = RandomBytes(seed == 21 ? 5000 : 4000, seed); // the other is shorter
    args->files.raw = MemoryEntry("IMG_7.CR3", raw);
    return QOB_Create(args.get());
}

void Put32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>(value >> (8 * i)));
    }
}

void Put64(std::string& out, std::uint64_t value) {
    Put32(out, static_cast<std::uint32_t>(value));
    Put32(out, static_cast<std::uint32_t>(value >> 32));
}

// A journal as a change of `name` would leave it after saving the package's last `saved`
// bytes in one record of batch 1.
std::string JournalOf(const std::string& package, const std::string& name, std::uint64_t nonce,
                      std::size_t saved = 100) {
    JF::Header header;
    header.original = package.size();
    header.nonce = nonce;
    header.endCrc = JF::Crc(package.data() + package.size() - 22, 22);
    header.nameCrc = JF::NameCrc(name);
    header.startCrc = JF::Crc(
        package.data(), static_cast<std::uint32_t>(std::min<std::size_t>(package.size(), 4096)));
    const auto head = JF::EncodeHeader(header);
    std::string journal(head.begin(), head.end());
    const JF::RecordHead record{package.size() - saved, saved, 1};
    const auto bytes = JF::EncodeRecordHead(record);
    const std::string data = package.substr(package.size() - saved);
    std::uint32_t crc = JF::RecordCrcBegin(nonce, bytes.data());
    crc = JF::Continue(crc, data.data(), static_cast<std::uint32_t>(data.size()));
    journal.append(bytes.begin(), bytes.end());
    journal += data;
    Put32(journal, crc);
    return journal;
}

// The package as a change leaves it half done: its last bytes overwritten.
std::string HalfChanged(std::string package) {
    std::fill(package.end() - 60, package.end(), '\x5A');
    return package;
}

struct Row {
    const char* name;
    // Plants what the row is about beside the package, given the package's bytes.
    std::function<void(const fs::path& journal, const std::string& package)> plant;
    const char* refused; // the check named, or null when the journal is dropped and the call works
};

TEST(JournalTrust, JournalsThatDoNotBelongAreRefusedOrDropped) {
    TempDir dir;
    const fs::path other = dir / "other.qob";
    ASSERT_EQ(CreatePackage(other, 22), SUCCESS);
    const std::string otherBytes = ReadFile(other);
    const Row rows[] = {
        {"not a journal of ours at all",
         [](const fs::path& j, const std::string&) { WriteFile(j, std::string(40, '\x01')); },
         nullptr},
        {"empty", [](const fs::path& j, const std::string&) { WriteFile(j, ""); }, nullptr},
        {"a folder", [](const fs::path& j, const std::string&) { fs::create_directory(j); },
         "not a regular file"},
        {"version 1 of an older release",
         [](const fs::path& j, const std::string& p) {
             std::string v1("QOBJRNL", 8);
             Put32(v1, 1);
             Put32(v1, 32);
             Put64(v1, p.size());
             Put32(v1, 0);
             Put32(v1, JF::Crc(v1.data(), 28));
             WriteFile(j, v1);
         },
         "format version 1 of an older release"},
        {"a header of ours whose original length was flipped",
         [](const fs::path& j, const std::string& p) {
             std::string journal = JournalOf(p, "p.qob", 7);
             journal[17] ^= 0x10;
             WriteFile(j, journal);
         },
         "damaged header"},
        {"bound to another package's name",
         [](const fs::path& j, const std::string& p) { WriteFile(j, JournalOf(p, "q.qob", 7)); },
         "bound to another package"},
        {"a genuine journal of another package",
         [&](const fs::path& j, const std::string&) {
             WriteFile(j, JournalOf(otherBytes, "p.qob", 9));
         },
         "bound to another package"},
        {"a record past the original end",
         [](const fs::path& j, const std::string& p) {
             std::string grown = p + std::string(200, 'g');
             std::string journal = JournalOf(grown, "p.qob", 7, 150);
             // Same header but for the original length, re-sealed: the record now lies past it.
             JF::Header header;
             header.original = p.size();
             header.nonce = 7;
             header.endCrc = JF::Crc(p.data() + p.size() - 22, 22);
             header.nameCrc = JF::NameCrc("p.qob");
             header.startCrc = JF::Crc(p.data(), 4096);
             const auto head = JF::EncodeHeader(header);
             journal.replace(0, head.size(), std::string(head.begin(), head.end()));
             WriteFile(j, journal);
         },
         "record outside the package"},
        {"a damaged record before the closing record",
         [](const fs::path& j, const std::string& p) {
             std::string journal = JournalOf(p, "p.qob", 7);
             journal[JF::kHeaderSize + JF::kRecordHeaderSize + 3] ^= 1;
             const auto closing = JF::EncodeClosing(7, p.size(), 2);
             journal.append(closing.begin(), closing.end());
             WriteFile(j, journal);
         },
         "damaged record"},
        {"a second link of a genuine journal",
         [](const fs::path& j, const std::string& p) {
             const fs::path first = j.parent_path() / "kept-journal";
             WriteFile(first, JournalOf(p, "p.qob", 7));
             std::error_code error;
             fs::create_hard_link(first, j, error);
             if (error) {
                 fs::rename(first, j);
             }
         },
         "more than one link"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const fs::path package = dir / "p.qob";
        const fs::path journal = dir / "p.qob-journal";
        std::error_code ignored;
        fs::remove_all(journal, ignored);
        fs::remove(package, ignored);
        fs::remove(dir / "kept-journal", ignored);
        ASSERT_EQ(CreatePackage(package), SUCCESS);
        const std::string before = ReadFile(package);
        row.plant(journal, before);
        // Where the file system has no hard links the row plants a lone journal, which applies.
        const bool lone = std::string(row.name).find("second link") != std::string::npos &&
                          !fs::exists(dir / "kept-journal");
        LogCapture log(&QOB_SetLogFn);
        const QobErrorCode_e result = QOB_IsQob(package.string().c_str());
        if (row.refused == nullptr || lone) {
            EXPECT_EQ(result, SUCCESS);
            EXPECT_FALSE(fs::exists(journal));
            EXPECT_TRUE(ReadFile(package) == before);
            continue;
        }
        EXPECT_EQ(result, CANNOT_READ_FILE_PCK);
        EXPECT_TRUE(log.Contains(std::string("refused: ") + row.refused));
        EXPECT_TRUE(fs::exists(fs::symlink_status(journal)));
        EXPECT_TRUE(ReadFile(package) == before);
    }
}

// A genuine journal rolls a half-changed package back exactly; records torn at the end, or of
// another journal (another nonce), are not applied.
TEST(JournalTrust, GenuineJournalsRollBackExactly) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    const fs::path journal = dir / "p.qob-journal";
    ASSERT_EQ(CreatePackage(package), SUCCESS);
    const std::string before = ReadFile(package);
    const std::string genuine = JournalOf(before, "p.qob", 11);
    const std::string stale = JournalOf(HalfChanged(before), "p.qob", 12);
    const struct {
        const char* name;
        std::string journal;
    } rows[] = {
        {"whole", genuine},
        {"a torn record behind it", genuine + stale.substr(JF::kHeaderSize, 70)},
        {"another journal's record behind it", genuine + stale.substr(JF::kHeaderSize)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteFile(package, HalfChanged(before));
        WriteFile(journal, row.journal);
        EXPECT_EQ(QOB_IsQob(package.string().c_str()), SUCCESS);
        EXPECT_FALSE(fs::exists(journal));
        EXPECT_TRUE(ReadFile(package) == before);
    }
}

} // namespace
