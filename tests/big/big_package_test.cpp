// Packages past 2 GiB: file positions that a 32-bit long takes as negative (Windows), and an
// entry larger than one read call of the zip layer can return. The raw image is a sparse file,
// so only the package and one extracted copy take disk space, and both go at the end.
#include "api/package_host.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>

namespace {

namespace fs = std::filesystem;
using qobtest::Info;
using qobtest::MemoryEntry;

constexpr std::uint64_t kRawSize = 0xA0000000; // 2.5 GiB
constexpr std::uint64_t kTwoGiB = std::uint64_t{1} << 31;
const std::string kHead = "raw image head";
const std::string kTail = "raw image tail";

// A sparse file of kRawSize bytes: kHead, zeros, kTail.
void WriteSparseRaw(const fs::path& path) {
    qobtest::WriteFile(path, kHead);
    fs::resize_file(path, kRawSize);
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(kRawSize - kTail.size()));
    out.write(kTail.data(), static_cast<std::streamsize>(kTail.size()));
    ASSERT_TRUE(out.good());
}

void ExpectRawBytes(const char* bytes, const char* where) {
    EXPECT_EQ(std::string(bytes, kHead.size()), kHead) << where;
    EXPECT_EQ(std::string(bytes + kRawSize - kTail.size(), kTail.size()), kTail) << where;
    // The zeros across the 2 GiB boundary, where a round of reading ends.
    const char* middle = bytes + kTwoGiB - 4096;
    EXPECT_TRUE(std::all_of(middle, middle + 8192, [](char c) { return c == 0; })) << where;
}

// Extracts one entry into a buffer of the given size; empty on failure.
std::unique_ptr<char[]> ExtractToBuffer(const fs::path& package, const char* entry,
                                        std::uint64_t size) {
    auto args = qobtest::NewArgs<QOB_ExtractArgs>(package);
    std::strcpy(args->szEntryPath, entry);
    args->eMode = QOB_EXTRACT_TO_BUFFER;
    auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(size));
    args->pBuffer = buffer.get();
    args->uBufferSize = static_cast<std::uint32_t>(size);
    const QobErrorCode_e result = QOB_Extract(args.get());
    EXPECT_EQ(result, SUCCESS) << "extract " << entry;
    return result == SUCCESS ? std::move(buffer) : nullptr;
}

TEST(BigPackage, CreateReadUpdateExtractPastTwoGiB) {
    qobtest::TempDir dir;
    const fs::path raw = dir / "IMG_0001.CR3";
    WriteSparseRaw(raw);
    const fs::path package = dir / "big.qob";
    const std::string settings(3000, 's');
    const std::string lcc = "lens cast calibration";
    const std::string icc = "colour profile";

    auto create = qobtest::NewArgs<QOB_CreateArgs>(package);
    create->files.raw = qobtest::FileEntry(raw);
    create->files.settings = MemoryEntry("edit.xmp", settings, 1000);
    QOB_EntryInfo lccs[] = {MemoryEntry("a.lcc", lcc, 0, "LCC-1")};
    QOB_EntryInfo iccs[] = {MemoryEntry("d.icc", icc, 0, "ICC-1")};
    create->files.uLccCount = 1;
    create->files.pLccs = lccs;
    create->files.uIccCount = 1;
    create->files.pIccs = iccs;
    ASSERT_EQ(QOB_Create(create.get()), SUCCESS);
    ASSERT_GT(fs::file_size(package), kRawSize);
    ASSERT_EQ(QOB_IsQob(package.string().c_str()), SUCCESS);

    // Everything behind the raw image sits past 2 GiB.
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    const QOB_ImageFiles& files = info.record->files;
    EXPECT_EQ(files.raw.uStoredSize, kRawSize);
    ASSERT_EQ(files.uLccCount, 1u);
    for (const QOB_EntryInfo* entry :
         std::initializer_list<const QOB_EntryInfo*>{&files.settings, files.pLccs, files.pIccs}) {
        EXPECT_GT(entry->uDataOffset, kTwoGiB) << entry->szPath;
    }
    QOB_EntryInfo found{};
    ASSERT_EQ(QOB_GetLensCastCalibInfo(package.string().c_str(), "LCC-1", &found), SUCCESS);
    EXPECT_EQ(found.uDataOffset, files.pLccs[0].uDataOffset);
    if (auto bytes = ExtractToBuffer(package, files.pLccs[0].szPath, lcc.size())) {
        EXPECT_EQ(std::string(bytes.get(), lcc.size()), lcc);
    }

    // An edit past 2 GiB stays in place.
    const std::string edited(3500, 'e');
    const std::uint32_t settingsOffset = files.settings.uDataOffset;
    QOB_ImageFiles change{};
    change.settings = MemoryEntry("edit.xmp", edited);
    ASSERT_EQ(qobtest::UpdateFrom(info, package, change), SUCCESS);
    ASSERT_EQ(info.Read(package), SUCCESS);
    EXPECT_EQ(files.settings.uDataOffset, settingsOffset);
    if (auto bytes = ExtractToBuffer(package, files.settings.szPath, edited.size())) {
        EXPECT_EQ(std::string(bytes.get(), edited.size()), edited);
    }

    // The raw image in one buffer: more than one read round of the zip layer.
    if (auto bytes = ExtractToBuffer(package, files.raw.szPath, kRawSize)) {
        ExpectRawBytes(bytes.get(), "buffer");
    }

    // Every file to a directory.
    const fs::path out = dir / "out";
    ASSERT_EQ(qobtest::ExtractAll(package, out), SUCCESS);
    fs::remove(package);
    const fs::path extracted = out / "IMG_0001.CR3";
    ASSERT_EQ(fs::file_size(extracted), kRawSize);
    std::ifstream in(extracted, std::ios::binary);
    std::string head(kHead.size(), '\0'), tail(kTail.size(), '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    in.seekg(static_cast<std::streamoff>(kRawSize - kTail.size()));
    in.read(tail.data(), static_cast<std::streamsize>(tail.size()));
    EXPECT_EQ(head, kHead);
    EXPECT_EQ(tail, kTail);
}

} // namespace
