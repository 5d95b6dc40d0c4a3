#include "archive/archive.hpp"
#include "archive/entry_framing.hpp"
#include "archive/zip_handle.hpp"

#include "archive/archive_test_util.hpp"
#include "common/test_files.hpp"
#include "support/log.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

#include <ctime>

namespace {

using namespace qobtest;

// Little-endian fields; widths holds each field's byte count as a digit.
std::string Pack(const std::string& widths, std::initializer_list<std::uint32_t> values) {
    std::string bytes;
    auto value = values.begin();
    for (const char width : widths) {
        for (int i = 0; i < width - '0'; ++i) {
            bytes += static_cast<char>(*value >> (8 * i));
        }
        ++value;
    }
    return bytes;
}

TEST(FramingTest, LocalAndCentralHeadersAtTheByteLevel) {
    TempDir dir;
    const auto path = dir / "f.zip";
    struct Item {
        std::string name, content;
        std::size_t padding;
        std::uint32_t field;
    };
    const Item items[] = {
        {"dir/a.txt", "hello", 7, 5}, {"b.bin", RandomBytes(3000, 1), 0, 0}, {"zero", "", 100, 0}};
    {
        QOB::Archive archive(path, false);
        for (const auto& item : items) {
            archive.Insert(QOB::Path(item.name), Bytes(item.content), item.content.size(),
                           item.padding);
        }
    }
    const std::string bytes = ReadFile(path);
    const auto image = InspectZip(bytes);
    ASSERT_EQ(image.records.size(), 3u);
    std::uint32_t offset = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const Item& item = items[i];
        const auto& r = image.records[i];
        const std::string stored = item.content + std::string(item.padding, '\0');
        const auto size = static_cast<std::uint32_t>(stored.size());
        const auto n = static_cast<std::uint32_t>(item.name.size());
        // The raw content size field, with no header ID or length of its own.
        const std::string tail = item.name + Pack("4", {item.field});
        const auto crc = static_cast<std::uint32_t>(
            crc32(0, reinterpret_cast<const Bytef*>(stored.data()), static_cast<uInt>(size)));
        const std::string local =
            Pack("4222444422", {0x04034B50, 20, 0, 0, r.dosTime, crc, size, size, n, 4}) + tail;
        const std::string central =
            Pack("4222244442222244",
                 {0x02014B50, 0, 20, 0, 0, r.dosTime, crc, size, size, n, 4, 0, 0, 0, 0, offset}) +
            tail;
        EXPECT_EQ(bytes.substr(offset, local.size()), local) << item.name;
        EXPECT_TRUE(bytes.compare(offset + local.size(), size, stored) == 0) << item.name;
        EXPECT_EQ(bytes.substr(r.at, central.size()), central) << item.name;
        offset += static_cast<std::uint32_t>(local.size()) + size;
    }
    EXPECT_EQ(image.directoryOffset, offset);

    QOB::Archive archive(path, true);
    const auto entries = archive.List();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].data_offset, 30u + 9 + 4);
    EXPECT_EQ(entries[0].content_size, 5u);
    EXPECT_EQ(entries[1].content_size, 3000u); // no padding: all of it is content
    // Length 0 with padding also writes 0, so the padding reads back as content.
    EXPECT_EQ(entries[2].content_size, 100u);
    EXPECT_EQ(Text(archive.Read(QOB::Path("zero"))), std::string(100, '\0'));
}

TEST(FramingTest, TimeStampsAndTheSizeLimit) {
    TempDir dir;
    const auto path = dir / "t.zip";
    {
        QOB::MiniZip::Handle handle(path, false);
        std::tm time{};
        time.tm_year = 124; // years since 1900
        time.tm_mon = 1;
        time.tm_mday = 29;
        time.tm_hour = 13;
        time.tm_min = 45;
        time.tm_sec = 59;
        void* zip = handle.Zip();
        QOB::WriteBegin(zip, QOB::Path("since1900"), time, 1, 0);
        QOB::WriteEnd(zip, 0);
        time.tm_year = 2024; // a full year gives the same DOS year
        QOB::WriteBegin(zip, QOB::Path("full"), time, 0, 0);
        QOB::WriteEnd(zip, 0);
        const std::string before = ReadFile(path);
        EXPECT_EQ(Failure([&] { QOB::WriteBegin(zip, QOB::Path("huge"), time, 0x100000000u, 1); }),
                  "[INTERNAL_INCONSISTENCY] entry too large");
        // A length that fits its field but not the file is refused before anything is
        // written, as is a reserved space that would take the file past 4 GiB.
        EXPECT_EQ(Failure([&] { QOB::WriteBegin(zip, QOB::Path("max"), time, 0xFFFFFFFFu, 1); }),
                  "[INVALID_PARAMETER] package would grow past 4 GiB: 4294967602 bytes");
        EXPECT_EQ(Failure([&] { QOB::WriteBegin(zip, QOB::Path("pad"), time, 1, 0xFFFFFFFFu); }),
                  "[INVALID_PARAMETER] package would grow past 4 GiB: 4294967602 bytes");
        EXPECT_TRUE(ReadFile(path) == before);
    }
    QOB::Archive archive(path, true);
    const auto entries = archive.List();
    ASSERT_EQ(entries.size(), 2u);
    for (const auto& entry : entries) {
        const std::tm& t = entry.time;
        EXPECT_EQ(entry.dos_time >> 25, 44u); // 1980 + 44
        EXPECT_EQ(std::vector({t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                               t.tm_wday + t.tm_yday + t.tm_isdst}),
                  std::vector({2024, 1, 29, 13, 45, 58, 0}));
    }
}

TEST(FramingTest, IntoContentSizeRules) {
    struct Case {
        std::string field;
        std::uint64_t allocated, expected;
        const char* line;
    };
    using namespace std::string_literals;
    const Case cases[] = {
        {""s, 9, 9, "[QOB][WARN ] IntoContentSize: field len expected=4 actual=0"},
        {"\1\0\0"s, 9, 9, "[QOB][WARN ] IntoContentSize: field len expected=4 actual=3"},
        {"\0\0\0\0"s, 9, 9, "[QOB][TRACE] IntoContentSize: content size is zero"},
        {"\x10\0\0\0"s, 9, 9, "[QOB][WARN ] IntoContentSize: content=16 exceeds allocated=9"},
        {"\x09\0\0\0"s, 9, 9, "[QOB][TRACE] IntoContentSize: content=9 allocated=9 padding=0"},
        {"\0\1\1\0"s, 70000, 65792,
         "[QOB][TRACE] IntoContentSize: content=65792 allocated=70000 padding=4208"},
    };
    for (const auto& c : cases) {
        const auto* begin = reinterpret_cast<const std::byte*>(c.field.data());
        LogCapture log(&QOB::SetLogSink);
        EXPECT_EQ(QOB::IntoContentSize({begin, begin + c.field.size()}, c.allocated), c.expected);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, c.line);
    }
}

// Padding is checked in rounds of 65,536 bytes: one full round, then one of a single byte.
TEST(FramingTest, ReadingChecksThePadding) {
    TempDir dir;
    const auto path = dir / "p.zip";
    const std::string content = RandomBytes(1000, 2);
    {
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("p65536"), Bytes(content), content.size(), 65536);
        archive.Insert(QOB::Path("p65537"), Bytes(content), content.size(), 65537);
    }
    std::string bytes = ReadFile(path);
    // The very last padding byte of the second entry.
    bytes[InspectZip(bytes).directoryOffset - 1] = '\x01';
    WriteFile(path, bytes);
    QOB::Archive archive(path, true);
    EXPECT_TRUE(Text(archive.Read(QOB::Path("p65536"))) == content);
    EXPECT_EQ(Failure([&] { archive.Read(QOB::Path("p65537")); }),
              "[INTERNAL_INCONSISTENCY] non-zero padding");
}

} // namespace
