// The machine-wide lock with real processes.
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#if !defined(_WIN32)
#include <atomic>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

#if defined(_WIN32)
const std::string kChild = "qob_lock_child.exe";
#else
const std::string kChild = "./qob_lock_child";
#endif

std::string Quote(const std::filesystem::path& path) {
    return "\"" + path.string() + "\"";
}

#if defined(_WIN32)
// Windows keeps one machine-wide mutex around every call.
TEST(ProcessLock, TwoHoldersNeverInterleave) {
    qobtest::TempDir dir;
    const auto file = dir / "shared.txt";
    auto run = [&](const std::string& tag) {
        EXPECT_EQ(qobtest::Run(kChild + " append " + Quote(file) + " " + tag + " 12"), 0);
    };
    std::thread a(run, "A");
    std::thread b(run, "B");
    a.join();
    b.join();

    std::istringstream lines(qobtest::ReadFile(file));
    std::string tag, previous;
    int index = 0, changes = 0;
    std::map<std::string, int> next;
    while (lines >> tag >> index) {
        EXPECT_EQ(index, next[tag]++) << "lines of one holder out of order";
        if (tag != previous) {
            ++changes;
            previous = tag;
        }
    }
    EXPECT_EQ(next["A"], 12);
    EXPECT_EQ(next["B"], 12);
    EXPECT_EQ(changes, 2) << "the two holders interleaved";
}
#else
// Elsewhere calls share the per-user lock (package locks keep packages apart): a call of a
// second process completes while the first is inside its call, which it cannot leave before
// the signal.
TEST(ProcessLock, CallsOfTwoProcessesRunAtOnce) {
    qobtest::TempDir dir;
    const auto marker = dir / "holding.txt";
    const auto signal = dir / "go.txt";
    std::atomic<bool> holderDone{false};
    std::thread holder([&] {
        EXPECT_EQ(qobtest::Run(kChild + " until " + Quote(marker) + " " + Quote(signal)), 0);
        holderDone = true;
    });
    while (!std::filesystem::exists(marker)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(qobtest::Run(kChild + " append " + Quote(dir / "other.txt") + " B 1"), 0);
    EXPECT_FALSE(holderDone);
    qobtest::WriteFile(signal, "go");
    holder.join();
}
#endif

TEST(ProcessLock, DeadHolderDoesNotBlockTheNextCaller) {
    qobtest::TempDir dir;
    const auto marker = dir / "holding.txt";
    std::thread dying([&] { EXPECT_NE(qobtest::Run(kChild + " die " + Quote(marker)), 0); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!std::filesystem::exists(marker) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(std::filesystem::exists(marker));
    // Starts while the first process still holds the lock, and must get it once that one dies.
    const auto file = dir / "after.txt";
    EXPECT_EQ(qobtest::Run(kChild + " append " + Quote(file) + " C 1"), 0);
    dying.join();
    EXPECT_EQ(qobtest::ReadFile(file), "C 0\n");
}

// A sink that re-enters the library on the thread that holds the lock.
void ReenteringSink(int, const char* text, void* user) {
    auto* depth = static_cast<int*>(user);
    if (*depth == 0 && std::string(text).find("call: QOB_Destructor") != std::string::npos) {
        ++*depth;
        QOB_EntryInfo entry;
        EXPECT_EQ(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
        ++*depth;
    }
}

TEST(ProcessLock, NestedCallsOnOneThreadDoNotDeadlock) {
    int depth = 0;
    QOB_SetLogFn(&ReenteringSink, &depth);
    QOB_EntryInfo entry;
    EXPECT_EQ(QOB_Destructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    QOB_SetLogFn(&qobtest::SilentSink, nullptr);
    EXPECT_EQ(depth, 2);
}

#if !defined(_WIN32)
std::atomic<int> g_inside{0};

// Keeps the calling thread inside its call for a while, once.
void SlowSink(int, const char* text, void*) {
    if (std::string(text).find("call: QOB_Destructor") != std::string::npos) {
        g_inside = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
}

// Two threads inside calls at once (calls share the lock here): the fork waits for both.
TEST(ProcessLock, ChildForkedDuringAnotherThreadsCallCanCall) {
    QOB_SetLogFn(&SlowSink, nullptr);
    auto call = [] {
        QOB_EntryInfo entry;
        EXPECT_EQ(QOB_Destructor(&entry, QOB_OBJECT_ENTRY_INFO), SUCCESS);
    };
    std::thread inside(call);
    std::thread alsoInside(call);
    while (g_inside == 0) {
        std::this_thread::yield();
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20); // a deadlock ends the child, and the test fails
        QOB_EntryInfo entry;
        ::_exit(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO) == SUCCESS ? 0 : 1);
    }
    inside.join();
    alsoInside.join();
    QOB_SetLogFn(&qobtest::SilentSink, nullptr);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}
#endif

} // namespace
