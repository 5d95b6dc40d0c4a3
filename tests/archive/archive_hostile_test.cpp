// Broken and malicious packages: every operation ends in a QOB::Exception with a negative
// code, without crashing, hanging or allocating what the file does not hold.
#include "archive/archive.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>

#include <functional>

namespace {

using qobtest::Bytes;
using qobtest::Failure;
using qobtest::Text;

void Put(std::string& bytes, std::size_t at, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.at(at + static_cast<std::size_t>(i)) = static_cast<char>(value >> (8 * i));
    }
}

using Call = std::function<void(QOB::Archive&, const std::filesystem::path& dir)>;
const Call kOpen = [](QOB::Archive&, auto&) {};
const Call kList = [](QOB::Archive& a, auto&) { a.List(); };
const Call kReadA = [](QOB::Archive& a, auto&) { a.Read(QOB::Path("aaaa")); };
const Call kReadB = [](QOB::Archive& a, auto&) { a.Read(QOB::Path("bbbb")); };
const Call kExtractB = [](QOB::Archive& a, auto& dir) {
    a.Extract(QOB::Path("bbbb"), dir / "out", true);
};
const Call kUpdateB = [](QOB::Archive& a, auto&) {
    a.Update(QOB::Path("bbbb"), reinterpret_cast<const std::byte*>("x"), 1);
};
const Call kRemoveA = [](QOB::Archive& a, auto&) { a.Remove(QOB::Path("aaaa")); };

struct Case {
    const char* what;
    std::function<void(std::string&, const qobtest::ZipImage&)> mutate;
    Call call;
    int code;
};

TEST(ArchiveHostileTest, BrokenPackagesFailWithNegativeCodes) {
    qobtest::TempDir dir;
    const auto good = dir / "good.zip";
    {
        QOB::Archive archive(good, false);
        archive.Insert(QOB::Path("aaaa"), reinterpret_cast<const std::byte*>("first entry"), 11, 5);
        archive.Insert(QOB::Path("bbbb"), reinterpret_cast<const std::byte*>("second"), 6, 0);
    }
    const std::string original = qobtest::ReadFile(good);
    const auto image = qobtest::InspectZip(original);
    const std::size_t end = original.size() - 22;
    const std::size_t second = image.records[1].at;

    // Codes: -9 the reader or writer cannot be opened on the file at all, -10 the reader finds an
    // entry inconsistent with the file (minizip returned UNZ_BADZIPFILE or UNZ_CRCERROR).
    const Case cases[] = {
        {"empty file", [](std::string& b, auto&) { b.clear(); }, kOpen, -9},
        {"garbage", [](std::string& b, auto&) { b = qobtest::RandomBytes(5000, 9); }, kOpen, -9},
        {"truncated in the central directory",
         [&](std::string& b, auto&) { b.resize(second + 10); }, kOpen, -9},
        {"end record: directory offset past the end of the file",
         [&](std::string& b, auto&) { Put(b, end + 16, 0x7FFFFFF0, 4); }, kOpen, -9},
        {"end record: directory size past the end of the file",
         [&](std::string& b, auto&) { Put(b, end + 12, 0x7FFFFFF0, 4); }, kOpen, -9},
        {"end record: more entries than the directory holds",
         [&](std::string& b, auto&) {
             Put(b, end + 8, 50, 2);
             Put(b, end + 10, 50, 2);
         },
         kOpen, -9},
        {"name length running into the end record",
         [&](std::string& b, auto&) { Put(b, second + 28, 0xFFFF, 2); }, kList, -10},
        {"local header offset past the end of the file",
         [&](std::string& b, auto&) { Put(b, second + 42, 0x7FFFFFF0, 4); }, kReadB, -10},
        {"stored size of nearly 4 GiB",
         [&](std::string& b, auto&) {
             Put(b, second + 20, 0xFFFFFF00, 4);
             Put(b, second + 24, 0xFFFFFF00, 4);
         },
         kReadB, -10},
        {"deflated entry claiming nearly 4 GiB",
         [&](std::string& b, auto&) {
             Put(b, second + 10, 8, 2);
             Put(b, second + 24, 0xFFFFFF00, 4);
         },
         kReadB, -10},
        // Both central records name the first local header; the local header's sizes and
        // CRC-32 do not match the second record, so the reader refuses it.
        {"two entries overlapping at one local header",
         [&](std::string& b, auto&) { Put(b, second + 42, 0, 4); }, kReadB, -10},
        // The second record made a copy of the first but for its name: the reader does not
        // compare names, so "bbbb" reads the first entry's bytes. Nothing outside the file
        // is touched; the data is as sound as the first entry's.
        {"two identical records overlapping at one local header",
         [&](std::string& b, auto& z) { b.replace(second + 10, 36, b, z.records[0].at + 10, 36); },
         kReadB, 0},
        // The first entry's stored size, in both headers, made to run into the second entry's
        // local header: its 5 bytes of padding are followed by that header's signature.
        {"entry data overlapping the next entry",
         [&](std::string& b, auto& z) {
             for (const std::size_t at : {z.records[0].at + 20, z.records[0].at + 24,
                                          std::size_t{z.records[0].localOffset} + 18,
                                          std::size_t{z.records[0].localOffset} + 22}) {
                 Put(b, at, 40, 4);
             }
         },
         kReadA, -15},
        {"content byte flipped, extract",
         [&](std::string& b, auto& z) { b[z.records[1].localOffset + 30 + 4 + 4] ^= 1; }, kExtractB,
         -10},
        // The writer loads the entry table when it opens and refuses offsets it cannot
        // reach; nothing is written.
        {"local header offset past the end, update",
         [&](std::string& b, auto&) { Put(b, second + 42, 0x7FFFFFF0, 4); }, kUpdateB, -9},
        {"local header offset past the end, remove",
         [&](std::string& b, auto& z) { Put(b, z.records[0].at + 42, 0x7FFFFFF0, 4); }, kRemoveA,
         -9},
    };
    QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
    for (const auto& c : cases) {
        std::string bytes = original;
        c.mutate(bytes, image);
        const auto path = dir / "bad.zip";
        qobtest::WriteFile(path, bytes);
        int code = 0;
        try {
            QOB::Archive archive(path, true);
            c.call(archive, dir.path());
        } catch (const QOB::Exception& e) {
            code = e.code();
        }
        EXPECT_TRUE(qobtest::ReadFile(path) == bytes) << c.what; // failures write nothing
        EXPECT_EQ(code, c.code) << c.what;
    }
    QOB::SetLogSink(nullptr, nullptr);
}

} // namespace
