// Package locks held by someone else: a call waits for them at most the bound, lets go of
// everything meanwhile (so calls on other packages go on), and a call never waits for
// itself. The holder opens the package on its own, as another process would: a lock of
// another open of the file is refused alike within one process.
#include "api/package_host.hpp"
#include "archive/package_busy.hpp"
#include "archive/package_file.hpp"
#include "platform/platform.hpp"

#include <qob/qob.h>
#include <qob/qob_ext.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qobtest;
namespace fs = std::filesystem;
using std::chrono::milliseconds;

const std::string kRaw(4000, 'r'), kSettings(300, 's'), kProxy(200, 'p'), kLcc(500, 'l');
const char* const kProxyEntry = "Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg";

// The last failure's record, kept before the helpers' clean-up calls clear it.
thread_local QOBX_Error t_failure{};
QobErrorCode_e Kept(QobErrorCode_e result) {
    if (result != SUCCESS) {
        QOBX_LastError(&t_failure);
    }
    return result;
}

QobErrorCode_e Create(const fs::path& package) {
    auto args = NewArgs<QOB_CreateArgs>(package);
    QOB_EntryInfo lcc = MemoryEntry("lens.lcc", kLcc, 0, "LensA");
    args->files.raw = MemoryEntry("IMG_1.CR3", kRaw);
    args->files.proxy = MemoryEntry("IMG_1.jpg", kProxy);
    args->files.settings = MemoryEntry("IMG_1.xmp", kSettings, 1000);
    args->files.uLccCount = 1;
    args->files.pLccs = &lcc;
    const QobErrorCode_e result = QOB_Create(args.get());
    args->files.uLccCount = 0;
    args->files.pLccs = nullptr;
    return result;
}

QobErrorCode_e UpdateSettings(const fs::path& package, const std::string& bytes) {
    auto args = NewArgs<QOB_UpdateArgs>(package);
    std::strcpy(args->info.szPackagePath, package.string().c_str());
    QobErrorCode_e result = Kept(QOB_GetPackageInfo(&args->info));
    if (result == SUCCESS) {
        args->files.settings = MemoryEntry("IMG_1.xmp", bytes, 1000);
        result = Kept(QOB_Update(args.get()));
    }
    QOB_Destructor(&args->info, QOB_OBJECT_PACKAGE_INFO);
    return result;
}

QobErrorCode_e ReadInfo(const fs::path& package) {
    Info info;
    return Kept(info.Read(package));
}

QobErrorCode_e FindLcc(const fs::path& package) {
    QOB_EntryInfo entry;
    EXPECT_EQ(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    return Kept(QOB_GetLensCastCalibInfo(package.string().c_str(), "LensA", &entry));
}

QobErrorCode_e RemoveProxy(const fs::path& package) {
    return Kept(QOB_RemoveEntry(package.string().c_str(), kProxyEntry));
}

// A lock on the package through an open of its own.
class Hold {
public:
    Hold(const fs::path& package, bool exclusive) {
        int error = 0;
        folder_.reset(QOB::Platform::FolderOpen(package.parent_path(), error));
        stream_.reset(QOB::Platform::FileOpenIn(folder_.get(), package.filename().string(),
                                                QOB::Platform::OpenAs::ReadWrite, error));
        lock_ = stream_ ? QOB::Platform::FileLockOn(stream_.get(), exclusive, error) : nullptr;
        EXPECT_NE(lock_, nullptr) << "error " << error;
    }
    ~Hold() { Release(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    void Release() {
        QOB::Platform::FileLockRelease(lock_);
        lock_ = nullptr;
    }

private:
    QOB::FolderPtr folder_;
    QOB::StreamPtr stream_;
    QOB::Platform::FileLock* lock_ = nullptr;
};

class PackageBusyTest : public ::testing::Test {
protected:
    void SetUp() override { QOB::SetBusyBound(milliseconds(100)); }
    void TearDown() override { QOB::SetBusyBound(milliseconds(5000)); }
    TempDir dir_;
};

TEST_F(PackageBusyTest, CallsEndBusyWithinTheBoundOrSucceed) {
    struct Case {
        const char* name;
        bool exclusive; // what the other holder has
        std::function<QobErrorCode_e(const fs::path&)> call;
        bool changes;
        QobErrorCode_e expected;
    };
    const std::vector<Case> cases = {
        {"read beside a reader", false, ReadInfo, false, SUCCESS},
        {"lcc lookup beside a reader", false, FindLcc, false, SUCCESS},
        {"update beside a reader", false,
         [](const fs::path& p) { return UpdateSettings(p, std::string(300, 'S')); }, true,
         CANNOT_OPEN_FILE_PCK},
        {"remove beside a reader", false, RemoveProxy, true, CANNOT_OPEN_FILE_PCK},
        {"read beside a writer", true, ReadInfo, false, CANNOT_OPEN_FILE_PCK},
        {"lcc lookup beside a writer", true, FindLcc, false, CANNOT_OPEN_FILE_PCK},
        {"remove beside a writer", true, RemoveProxy, true, CANNOT_OPEN_FILE_PCK},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path package = dir_ / (std::string(c.name) + ".qob");
        ASSERT_EQ(Create(package), SUCCESS);
        const std::string before = ReadFile(package);
        {
            Hold hold(package, c.exclusive);
            EXPECT_EQ(c.call(package), c.expected);
            if (c.expected != SUCCESS) {
                const QOBX_Error& error = t_failure;
                EXPECT_EQ(std::string(error.message), "package is busy: " + package.string());
                EXPECT_EQ(std::string(error.subject), package.string());
                EXPECT_NE(error.systemError, 0);
            }
            EXPECT_EQ(ReadFile(package), before);
        }
        // Once let go of, the same call does what it was asked.
        EXPECT_EQ(c.call(package), SUCCESS);
        EXPECT_EQ(ReadFile(package) != before, c.changes);
        ExpectConsistent(package, false);
    }
}

TEST_F(PackageBusyTest, BusyReadLeavesTheHostsRecordAsItWas) {
    const fs::path package = dir_ / "p.qob";
    ASSERT_EQ(Create(package), SUCCESS);
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    Hold hold(package, true);
    EXPECT_EQ(info.Read(package), CANNOT_OPEN_FILE_PCK);
    EXPECT_EQ(info.files().uLccCount, 1u);
    EXPECT_STREQ(info.files().raw.szPath, "IMG_1.CR3");
}

std::atomic<int> g_busyLines{0};
void CountBusy(int, const char* text, void*) {
    if (std::strstr(text, "package is busy") != nullptr) {
        ++g_busyLines;
    }
}

// The waiting call backs off without its locks: under the cross-process lock of every
// platform (Windows' machine-wide mutex included) a call on another package completes
// meanwhile, and the waiting one then succeeds once the holder lets go.
TEST_F(PackageBusyTest, ACallWaitingForOnePackageDoesNotHoldUpAnother) {
    QOB::SetBusyBound(milliseconds(30000));
    const fs::path a = dir_ / "a.qob", b = dir_ / "b.qob";
    ASSERT_EQ(Create(a), SUCCESS);
    ASSERT_EQ(Create(b), SUCCESS);
    Hold hold(a, true);
    g_busyLines = 0;
    QOB_SetLogFn(&CountBusy, nullptr);
    std::atomic<bool> done{false};
    QobErrorCode_e waited = INTERNAL_INCONSISTENCY;
    std::thread waiting([&] {
        waited = ReadInfo(a);
        done = true;
    });
    while (g_busyLines == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(UpdateSettings(b, std::string(300, 'B')), SUCCESS);
    EXPECT_EQ(ReadInfo(b), SUCCESS);
    EXPECT_FALSE(done) << "the call on a gave up while a was held";
    hold.Release();
    waiting.join();
    QOB_SetLogFn(&SilentSink, nullptr);
    EXPECT_EQ(waited, SUCCESS);
}

// No call waits for a lock it holds itself, and calls taking two packages in opposite orders
// on two threads never stop each other: each call holds one package at a time.
TEST_F(PackageBusyTest, NoCallDeadlocks) {
    const fs::path a = dir_ / "a.qob", b = dir_ / "b.qob";
    ASSERT_EQ(Create(a), SUCCESS);
    ASSERT_EQ(Create(b), SUCCESS);
    // Nested opens: a removal reads the package it holds, a lookup reads through the frame.
    EXPECT_EQ(RemoveProxy(a), SUCCESS);
    EXPECT_EQ(FindLcc(a), SUCCESS);

    QOB::SetBusyBound(milliseconds(30000));
    auto run = [](const fs::path& first, const fs::path& second, char fill,
                  std::vector<QobErrorCode_e>& results) {
        for (int i = 0; i < 20; ++i) {
            results.push_back(UpdateSettings(first, std::string(300 + i, fill)));
            results.push_back(ReadInfo(second));
            results.push_back(FindLcc(first));
        }
    };
    std::vector<QobErrorCode_e> one, two;
    std::thread forward(run, a, b, 'F', std::ref(one));
    std::thread backward(run, b, a, 'R', std::ref(two));
    forward.join();
    backward.join();
    for (const auto* results : {&one, &two}) {
        EXPECT_EQ(std::count(results->begin(), results->end(), SUCCESS),
                  static_cast<std::ptrdiff_t>(results->size()));
    }
    ExpectConsistent(a, false);
    ExpectConsistent(b, false);
}

} // namespace
