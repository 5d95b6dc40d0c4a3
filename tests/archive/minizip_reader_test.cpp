// The zip reader: locating entries, archives written by another implementation, shared
// local headers, and archives built to mislead it.
#include "archive/minizip_support.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace minizip_test;

std::string CurrentName(unzFile unz) {
    char name[512] = {};
    unzGetCurrentFileInfo(unz, nullptr, name, sizeof name, nullptr, 0, nullptr, 0);
    return name;
}

TEST(MiniZipReader, LocatesIgnoringCaseBelow256Bytes) {
    MemoryFile file;
    const zlib_filefunc_def table = file.Table();
    const std::string name255(255, 'n');
    const std::string name256(256, 'm');
    file.data = Build({{"Manifest.xml", "a", 0}, {name255, "b", 0}, {name256, "c", 0}});
    unzFile unz = unzOpen2(nullptr, &table);
    ASSERT_NE(unz, nullptr);

    EXPECT_EQ(unzLocateFile(unz, "MANIFEST.XML"), UNZ_OK);
    EXPECT_EQ(CurrentName(unz), "Manifest.xml");
    EXPECT_EQ(unzLocateFile(unz, std::string(255, 'N').c_str()), UNZ_OK);
    EXPECT_EQ(CurrentName(unz), name255);
    EXPECT_EQ(unzLocateFile(unz, name256.c_str()), UNZ_PARAMERROR);
    // Not found: the current entry stays where it was.
    EXPECT_EQ(unzLocateFile(unz, "manifest.xm"), UNZ_END_OF_LIST_OF_FILE);
    EXPECT_EQ(CurrentName(unz), name255);
    // The long name is there for a walk, and comes back truncated into a small buffer.
    ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK);
    char small[8];
    unz_file_info info{};
    ASSERT_EQ(unzGetCurrentFileInfo(unz, &info, small, sizeof small, nullptr, 0, nullptr, 0),
              UNZ_OK);
    EXPECT_EQ(info.size_filename, 256u);
    EXPECT_EQ(std::string(small, sizeof small), "mmmmmmmm");
    EXPECT_EQ(unzGoToNextFile(unz), UNZ_END_OF_LIST_OF_FILE);
    EXPECT_EQ(unzClose(unz), UNZ_OK);
}

TEST(MiniZipReader, ReadsPythonArchives) {
#if defined(_WIN32)
    GTEST_SKIP() << "no host Python under Wine";
#endif
    if (qobtest::Python().empty()) {
        GTEST_SKIP() << "Python not found";
    }
    qobtest::TempDir dir;
    qobtest::WriteFile(dir / "make.py",
                       "import io, struct, sys, zipfile\n"
                       "class Pipe(io.RawIOBase):\n"
                       "    def __init__(self, f): self.f = f\n"
                       "    def writable(self): return True\n"
                       "    def write(self, b): return self.f.write(b)\n"
                       "    def tell(self): raise OSError('unseekable')\n"
                       "    def seekable(self): return False\n"
                       "def fill(z):\n"
                       "    i = zipfile.ZipInfo('stored.txt', (2020, 2, 29, 23, 59, 58))\n"
                       "    i.extra = struct.pack('<HHBI', 0x5455, 5, 1, 1600000000)\n"
                       "    z.writestr(i, b'stored ' * 300)\n"
                       "    z.writestr('deflated.txt', b'deflated ' * 5000, zipfile.ZIP_DEFLATED)\n"
                       "    z.writestr('dir/Empty', b'', zipfile.ZIP_DEFLATED)\n"
                       "    z.comment = b'PK\\x05\\x06 looks like an end record'\n"
                       "d = sys.argv[1]\n"
                       "with zipfile.ZipFile(d + '/seekable.zip', 'w') as z: fill(z)\n"
                       "with open(d + '/stream.zip', 'wb') as f:\n"
                       "    with zipfile.ZipFile(Pipe(f), 'w') as z: fill(z)\n");
    ASSERT_EQ(qobtest::Run(qobtest::Python() + " " + (dir / "make.py").string() + " " +
                           dir.path().string()),
              0);

    const auto repeat = [](const std::string& word, int times) {
        std::string text;
        while (times-- > 0) {
            text += word;
        }
        return text;
    };
    for (const char* name : {"seekable.zip", "stream.zip"}) {
        SCOPED_TRACE(name);
        std::vector<ReadBack> read;
        ASSERT_EQ(ReadMemory(qobtest::ReadFile(dir / name), read, true, 999), UNZ_OK);
        ASSERT_EQ(read.size(), 3u);
        EXPECT_EQ(read[0].data, repeat("stored ", 300));
        EXPECT_EQ(read[0].info.size_file_extra, 9u);
        EXPECT_EQ(read[0].info.tmu_date.tm_year, 2020u);
        EXPECT_EQ(read[0].info.tmu_date.tm_sec, 58u);
        EXPECT_EQ(read[1].data, repeat("deflated ", 5000));
        EXPECT_EQ(read[1].info.compression_method, 8u);
        EXPECT_EQ(read[2].name, "dir/Empty");
        EXPECT_EQ(read[2].data, "");
        const bool descriptors = std::string(name) == "stream.zip";
        EXPECT_EQ((read[1].info.flag & 8) != 0, descriptors);
    }
}

// Two central records that share one local header both read its data.
TEST(MiniZipReader, SharedLocalHeaderReadsTwice) {
    std::string zip = Build({{"a.txt", "same bytes", 4}, {"b.txt", "same bytes", 4}});
    const std::size_t directory = Le(zip, zip.size() - 22 + 16);
    const std::size_t second = directory + 46 + 5 + 4;
    SetLe(zip, second + 42, 0);
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(zip, read), UNZ_OK);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[1].name, "b.txt");
    EXPECT_EQ(read[1].data, read[0].data);
}

// An archive behind other bytes (a self-extractor stub, say): stored offsets count from
// the archive's start, and the writer keeps them that way.
TEST(MiniZipReader, ArchiveBehindAPrefix) {
    MemoryFile file;
    file.data = std::string(1000, '#') + Build({{"a", "alpha", 3}});
    const zlib_filefunc_def table = file.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, nullptr, &table);
    ASSERT_NE(zip, nullptr);
    ASSERT_EQ(AddPadded(zip, {"b", "beta", 0}), ZIP_OK);
    ASSERT_EQ(zipReplaceFileInZip(zip, "a", "al", 2), ZIP_OK);
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
    EXPECT_EQ(file.data, std::string(1000, '#') + Build({{"a", "al", 6}, {"b", "beta", 0}}));
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(file.data, read), UNZ_OK);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[1].data, "beta");
}

// Opens, walks and reads everything, then opens for editing, removes and replaces; every
// step may fail, none may crash, hang or touch memory it should not. The reading result,
// and whether the writer accepted the archive.
int Exercise(const std::string& bytes, bool* writerOpened = nullptr) {
    std::vector<ReadBack> read;
    const int result = ReadMemory(bytes, read, true, 500);
    MemoryFile file;
    file.data = bytes;
    const zlib_filefunc_def table = file.Table();
    zipFile zip = zipOpen2(nullptr, APPEND_STATUS_ADDINZIP, nullptr, &table);
    if (writerOpened != nullptr) {
        *writerOpened = zip != nullptr;
    }
    if (zip != nullptr) {
        zipRemoveFileInZip(zip, "first");
        zipReplaceFileInZip(zip, "second", "x", 1);
        zipClose(zip, nullptr);
    }
    return result;
}

struct Patch {
    std::size_t at;
    std::uint32_t value;
    int width = 4;
};

std::string Patched(std::string bytes, std::initializer_list<Patch> patches) {
    for (const Patch& patch : patches) {
        SetLe(bytes, patch.at, patch.value, patch.width);
    }
    return bytes;
}

TEST(MiniZipHostile, DamagedDirectoriesAreRefused) {
    const std::string good = Build({{"first", "1111", 10}, {std::string(60, 'L'), "2222", 0}});
    const std::size_t end = good.size() - 22;
    const std::size_t directory = Le(good, end + 16);
    ASSERT_EQ(Exercise(good), UNZ_OK);
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"directory cut short", good.substr(0, directory + 50)},
        {"offset past the end", Patched(good, {{end + 16, 0xFFFFFF00u}})},
        {"size past the end", Patched(good, {{end + 12, 0x7FFFFFFFu}})},
        {"size too small for the count", Patched(good, {{end + 12, 30}})},
        {"huge entry count", Patched(good, {{end + 8, 0xFFFF, 2}, {end + 10, 0xFFFF, 2}})},
        {"counts disagree", Patched(good, {{end + 8, 1, 2}})},
        {"name past the directory", Patched(good, {{directory + 28, 0xFFF0, 2}})},
        // the walk ends in an error at the third entry
        {"one entry too many", Patched(good, {{end + 8, 3, 2}, {end + 10, 3, 2}})},
    };
    for (const auto& [what, bytes] : cases) {
        SCOPED_TRACE(what);
        bool writerOpened = true;
        EXPECT_LT(Exercise(bytes, &writerOpened), 0);
        EXPECT_FALSE(writerOpened);
    }
}

TEST(MiniZipHostile, DamagedEntriesAreRefused) {
    const std::string good = Build({{"first", "1111", 10}, {"second", "2222", 0}});
    const std::size_t central = Le(good, good.size() - 22 + 16) + 46 + 5 + 4;
    const std::size_t local = 34 + 5 + 14; // both of the second entry
    const std::uint32_t huge = 0x10000000;
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"local header past the end", Patched(good, {{central + 42, 0xFFFFFFF0u}})},
        {"sizes past the end",
         Patched(
             good,
             {{central + 20, huge}, {central + 24, huge}, {local + 18, huge}, {local + 22, huge}})},
        {"local sizes differ", Patched(good, {{local + 22, 2}})},
        {"local name length differs", Patched(good, {{local + 26, 5, 2}})},
        {"local extra past the end", Patched(good, {{local + 28, 0xFFFF, 2}})},
        {"bad local signature", Patched(good, {{local, 0}})},
        {"encrypted", Patched(good, {{central + 8, 1, 2}, {local + 6, 1, 2}})},
        {"unknown method", Patched(good, {{central + 10, 12, 2}, {local + 8, 12, 2}})},
        {"wrong CRC", Patched(good, {{local + 40, '3', 1}})},
    };
    for (const auto& [what, bytes] : cases) {
        SCOPED_TRACE(what);
        EXPECT_LT(Exercise(bytes), 0);
    }
}

// A deflated entry whose directory claims a size its data does not produce.
TEST(MiniZipHostile, DeflateSizeClaimsAreChecked) {
    const std::string content(100000, 'z');
    const std::string good = Build({{"first", content, 0}}, Z_DEFLATED_METHOD);
    const std::size_t directory = Le(good, good.size() - 22 + 16);
    const auto claiming = [&](std::uint32_t size) {
        std::string bytes = good;
        SetLe(bytes, 22, size);
        SetLe(bytes, directory + 24, size);
        return bytes;
    };
    std::vector<ReadBack> read;
    ASSERT_EQ(ReadMemory(good, read), UNZ_OK);
    EXPECT_EQ(ReadMemory(claiming(0xFFFFFFF0u), read), UNZ_BADZIPFILE);   // refused at open
    EXPECT_EQ(ReadMemory(claiming(100000 + 1000), read), UNZ_BADZIPFILE); // stream ends early
    EXPECT_EQ(ReadMemory(claiming(100000 - 1000), read), UNZ_BADZIPFILE); // stream goes on

    // Cut compressed data: the stream runs out of input.
    std::string cut = good;
    const std::uint32_t compressed = Le(good, 18);
    SetLe(cut, 18, compressed / 2);
    SetLe(cut, directory + 20, compressed / 2);
    EXPECT_EQ(ReadMemory(cut, read), UNZ_BADZIPFILE);
}

TEST(MiniZipHostile, RandomDamageNeverCrashes) {
    std::vector<std::string> seeds = {
        Build({{"first", "1111", 10}, {"second", "22", 3}, {"third", "", 0}}),
        Build({{"first", std::string(3000, 'a'), 0}, {"second", "bb", 0}}, Z_DEFLATED_METHOD),
    };
    std::mt19937 random(12345);
    for (int round = 0; round < 600; ++round) {
        std::string bytes = seeds[static_cast<std::size_t>(round) % seeds.size()];
        const int flips = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < flips; ++i) {
            bytes[random() % bytes.size()] = static_cast<char>(random() & 0xFF);
        }
        if (round % 50 == 0) {
            bytes.resize(random() % bytes.size());
        }
        Exercise(bytes);
    }
}

} // namespace
