// The I/O table over the platform's files: open modes, 32-bit positioning and the
// truncate results that the removal code relies on.
#include "archive/minizip/io.hpp"
#include "common/test_files.hpp"

#include <gtest/gtest.h>

namespace {

using namespace QOB::MiniZip;

TEST(MiniZipPlatformIo, FileFunctions) {
    qobtest::TempDir dir;
    const std::string path = (dir / "file.bin").string();
    const zlib_filefunc_def io = PlatformFileFunctions();
    const auto open = [&](int mode) { return io.zopen_file(io.opaque, path.c_str(), mode); };

    EXPECT_EQ(open(kOpenRead | kOpenExisting), nullptr); // missing file
    EXPECT_EQ(open(kOpenRead | kOpenWrite | kOpenExisting), nullptr);
    EXPECT_EQ(io.zerror_file(io.opaque, nullptr), -1);
    EXPECT_EQ(io.ztruncate_file(io.opaque, nullptr, 0), -7);

    void* stream = open(kOpenRead | kOpenWrite | kOpenCreate);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(io.zwrite_file(io.opaque, stream, "0123456789", 10), 10u);
    EXPECT_EQ(io.ztell_file(io.opaque, stream), 10);
    // From the end the 32-bit offset is signed: 0xFFFFFFFD moves back by 3.
    EXPECT_EQ(io.zseek_file(io.opaque, stream, 0xFFFFFFFDu, kSeekEnd), 0);
    EXPECT_EQ(io.ztell_file(io.opaque, stream), 7);
    char buffer[16] = {};
    EXPECT_EQ(io.zread_file(io.opaque, stream, buffer, sizeof buffer), 3u); // short at the end
    EXPECT_EQ(std::string(buffer), "789");
    EXPECT_EQ(io.zerror_file(io.opaque, stream), 0); // the end of a file is no error
    EXPECT_EQ(io.zseek_file(io.opaque, stream, 0xFFFFFFF0u, kSeekCur), -1); // before the start
    EXPECT_NE(io.zerror_file(io.opaque, stream), 0);
    EXPECT_EQ(io.zseek_file(io.opaque, stream, 0, 3), -1); // no such origin

    // Cutting restores the position, even one beyond the new end.
    EXPECT_EQ(io.ztruncate_file(io.opaque, stream, 10), 0);
    EXPECT_EQ(io.ztell_file(io.opaque, stream), 10);
    EXPECT_EQ(io.ztruncate_file(io.opaque, stream, 4), 0);
    EXPECT_EQ(io.ztell_file(io.opaque, stream), 10);
    EXPECT_EQ(io.zseek_file(io.opaque, stream, 0, kSeekEnd), 0);
    EXPECT_EQ(io.ztell_file(io.opaque, stream), 4);
    EXPECT_EQ(io.zclose_file(io.opaque, stream), 0);
    EXPECT_EQ(qobtest::ReadFile(dir / "file.bin"), "0123");

    // Opening an existing file keeps it; creating empties it.
    stream = open(kOpenRead | kOpenWrite | kOpenExisting);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(io.zclose_file(io.opaque, stream), 0);
    EXPECT_EQ(qobtest::ReadFile(dir / "file.bin"), "0123");
    stream = open(kOpenRead | kOpenWrite | kOpenCreate);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(io.zclose_file(io.opaque, stream), 0);
    EXPECT_EQ(qobtest::ReadFile(dir / "file.bin"), "");
    EXPECT_EQ(io.zopen_file(io.opaque, path.c_str(), 0), nullptr); // no usable mode
}

} // namespace
