// Every mutating call either succeeds or leaves the package as it was: whichever write,
// seek or truncate fails, wherever the process dies, whatever limit is hit.
#include "api/package_host.hpp"
#include "archive/archive.hpp"
#include "archive/minizip/io.hpp"
#include "archive/package_file.hpp"
#include "platform/platform.hpp"

#include <qob/qob.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#ifndef _WIN32
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using namespace qobtest;
namespace fs = std::filesystem;
namespace MZ = QOB::MiniZip;

// Counts the writes, seeks and truncates made through it; fails the target-th one, or every
// one from there on (a device gone bad), or ends the process right there.
struct Faults {
    enum class Mode { Count, Fail, FailFrom, Exit };
    Mode mode = Mode::Count;
    long target = 0;
    long calls = 0;

    bool Hit() {
        if (mode == Mode::FailFrom) {
            return ++calls >= target;
        }
        if (++calls != target || mode == Mode::Count) {
            return false;
        }
#ifndef _WIN32
        if (mode == Mode::Exit) {
            _exit(0);
        }
#endif
        return true;
    }
};
Faults g_faults;
const MZ::zlib_filefunc_def g_platform = MZ::PlatformFileFunctions();

class FaultScope {
public:
    FaultScope(Faults::Mode mode, long target) {
        g_faults = Faults{mode, target, 0};
        MZ::zlib_filefunc_def table = g_platform;
        table.zwrite_file = [](void*, void* s, const void* b, std::uint32_t n) -> std::uint32_t {
            return g_faults.Hit() ? 0 : g_platform.zwrite_file(nullptr, s, b, n);
        };
        table.zseek_file = [](void*, void* s, std::uint32_t o, int origin) -> long {
            return g_faults.Hit() ? -1 : g_platform.zseek_file(nullptr, s, o, origin);
        };
        table.ztruncate_file = [](void*, void* s, std::uint32_t size) -> int {
            return g_faults.Hit() ? -5 : g_platform.ztruncate_file(nullptr, s, size);
        };
        MZ::SetFileFunctions(&table);
    }
    ~FaultScope() { MZ::SetFileFunctions(nullptr); }
    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;
};

// Device flushes make these thousands of calls slow and are not what is checked here.
class NoSync : public ::testing::Environment {
public:
    void SetUp() override { QOB::Platform::SetSyncEnabled(false); }
    void TearDown() override { QOB::Platform::SetSyncEnabled(true); }
};
const auto* const g_noSync = ::testing::AddGlobalTestEnvironment(new NoSync);

// Content that outlives the records pointing at it.
struct Contents {
    std::string raw = RandomBytes(300000, 1), proxy = RandomBytes(40000, 2),
                settings = RandomBytes(3000, 3), mask = RandomBytes(9000, 4),
                lcc = RandomBytes(700, 5), settingsSame = RandomBytes(3000, 6),
                settingsBig = RandomBytes(12000, 7), lcc2 = RandomBytes(900, 8);
};
const Contents& Data() {
    static const Contents contents;
    return contents;
}

QobErrorCode_e Create(const fs::path& package) {
    const Contents& d = Data();
    auto args = NewArgs<QOB_CreateArgs>(package);
    QOB_EntryInfo lcc = MemoryEntry("lens.lcc", d.lcc, 0, "LensA");
    args->files.raw = MemoryEntry("IMG_1.CR3", d.raw);
    args->files.proxy = MemoryEntry("IMG_1.jpg", d.proxy);
    args->files.settings = MemoryEntry("IMG_1.xmp", d.settings, 1000);
    args->files.mask = MemoryEntry("IMG_1.msk", d.mask, 2000);
    args->files.uLccCount = 1;
    args->files.pLccs = &lcc;
    const QobErrorCode_e result = QOB_Create(args.get());
    args->files.pLccs = nullptr;
    args->files.uLccCount = 0;
    return result;
}

// QOB_Update with the package's description as read and a new file set.
QobErrorCode_e Update(const fs::path& package, const std::function<void(QOB_ImageFiles&)>& set) {
    auto args = NewArgs<QOB_UpdateArgs>(package);
    std::strcpy(args->info.szPackagePath, package.string().c_str());
    QobErrorCode_e result = QOB_GetPackageInfo(&args->info);
    if (result == SUCCESS) {
        set(args->files);
        result = QOB_Update(args.get());
    }
    QOB_Destructor(&args->info, QOB_OBJECT_PACKAGE_INFO); // the lists the library allocated
    return result;
}

struct Operation {
    const char* name;
    bool creates;
    std::function<QobErrorCode_e(const fs::path&)> run;
};

std::vector<Operation> Operations() {
    const Contents& d = Data();
    return {
        {"create", true, [](const fs::path& p) { return Create(p); }},
        {"in-place settings", false,
         [&d](const fs::path& p) {
             return Update(p, [&d](QOB_ImageFiles& f) {
                 f.settings = MemoryEntry("IMG_1.xmp", d.settingsSame, 1000);
             });
         }},
        {"growing settings and a new profile", false,
         [&d](const fs::path& p) {
             return Update(p, [&d](QOB_ImageFiles& f) {
                 f.settings = MemoryEntry("IMG_1.xmp", d.settingsBig, 1000);
                 static QOB_EntryInfo lcc;
                 lcc = MemoryEntry("lens2.lcc", d.lcc2, 0, "LensB");
                 f.uLccCount = 1;
                 f.pLccs = &lcc;
             });
         }},
        {"remove proxy", false,
         [](const fs::path& p) {
             return QOB_RemoveEntry(p.string().c_str(), "Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg");
         }},
    };
}

// Every entry's name and content, read back checked (CRC-32, zero padding); empty when the
// package does not read back whole or its manifests do not parse.
using Snapshot = std::vector<std::pair<std::string, std::string>>;
Snapshot Take(const fs::path& package) {
    Snapshot snapshot;
    try {
        QOB::Archive archive(package, true);
        for (const auto& entry : archive.List()) {
            const auto bytes = archive.Read(QOB::Path(entry.path));
            snapshot.emplace_back(
                entry.path, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        }
    } catch (...) {
        return {};
    }
    if (QOB_IsQob(package.string().c_str()) != SUCCESS) {
        return {};
    }
    return snapshot;
}

fs::path Beside(const fs::path& package, const char* suffix) {
    fs::path path = package;
    path += suffix;
    return path;
}

// The package before an operation, and what it must be after a successful one.
struct Expectation {
    std::string before; // empty: no file
    Snapshot after;
    long calls = 0;
};

Expectation Prepare(const TempDir& dir, const Operation& op) {
    Expectation expect;
    const fs::path work = dir / "prepare.qob";
    fs::remove(work);
    if (!op.creates) {
        EXPECT_EQ(Create(work), SUCCESS);
        expect.before = ReadFile(work);
    }
    {
        FaultScope count(Faults::Mode::Count, 0);
        EXPECT_EQ(op.run(work), SUCCESS) << op.name;
        expect.calls = g_faults.calls;
    }
    expect.after = Take(work);
    EXPECT_FALSE(expect.after.empty()) << op.name;
    return expect;
}

void Restore(const fs::path& package, const Expectation& expect) {
    std::error_code ignored;
    fs::remove(package, ignored);
    if (!expect.before.empty()) {
        WriteFile(package, expect.before);
    }
}

// Old state byte for byte (no file for a create), or the new one read back whole; and no
// journal or staging file left behind.
void ExpectOldOrNew(const fs::path& package, const Expectation& expect, bool mustBeOld,
                    const std::string& context) {
    const bool exists = fs::exists(package);
    const bool old = expect.before.empty() ? !exists : exists && ReadFile(package) == expect.before;
    if (mustBeOld) {
        EXPECT_TRUE(old) << context;
    }
    if (!old) {
        EXPECT_TRUE(Take(package) == expect.after) << context << ": neither old nor new";
    }
    EXPECT_FALSE(fs::exists(Beside(package, "-journal"))) << context;
    EXPECT_FALSE(fs::exists(Beside(package, "-partial"))) << context;
}

// A failed call leaves the old package, also when the device fails for good and its own
// rollback cannot read the journal: the journal then stays for the next call.
TEST(AtomicCalls, EveryFailedWriteSeekOrTruncateLeavesThePackageAsItWas) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    for (const Operation& op : Operations()) {
        const Expectation expect = Prepare(dir, op);
        ASSERT_GT(expect.calls, 10) << op.name;
        for (const Faults::Mode mode : {Faults::Mode::Fail, Faults::Mode::FailFrom}) {
            const bool once = mode == Faults::Mode::Fail;
            const long step = once ? 1 : std::max(1L, expect.calls / 200);
            for (long n = 1; n <= expect.calls; n += n < expect.calls - 40 ? step : 1) {
                Restore(package, expect);
                QobErrorCode_e result;
                {
                    FaultScope fail(mode, n);
                    result = op.run(package);
                }
                if (!once) {
                    QOB_IsQob(package.string().c_str()); // recovers what was left
                }
                const std::string context = std::string(op.name) +
                                            (once ? " failing call " : " failing from call ") +
                                            std::to_string(n);
                ExpectOldOrNew(package, expect, result != SUCCESS, context);
                if (::testing::Test::HasFailure()) {
                    return;
                }
            }
        }
    }
}

// All or nothing includes the host's record: a failed update hands back its description
// (lists included) byte for byte, so the host can retry with the same record.
TEST(AtomicCalls, FailedUpdateLeavesTheHostsRecordAsItWas) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    ASSERT_EQ(Create(package), SUCCESS);
    auto args = NewArgs<QOB_UpdateArgs>(package);
    std::strcpy(args->info.szPackagePath, package.string().c_str());
    ASSERT_EQ(QOB_GetPackageInfo(&args->info), SUCCESS);
    const std::string lcc = RandomBytes(800, 12);
    QOB_EntryInfo added = MemoryEntry("lens2.lcc", lcc, 0, "LensB");
    args->files.uLccCount = 1;
    args->files.pLccs = &added;
    args->files.settings = MemoryEntry("IMG_1.xmp", Data().settingsBig, 1000);
    const auto snapshot = [&] {
        const QOB_ImageFiles& files = args->info.files;
        std::string bytes(reinterpret_cast<const char*>(args.get()), sizeof *args);
        bytes.append(reinterpret_cast<const char*>(files.pLccs),
                     files.uLccCount * sizeof(QOB_EntryInfo));
        bytes.append(reinterpret_cast<const char*>(files.pIccs),
                     files.uIccCount * sizeof(QOB_EntryInfo));
        return bytes;
    };
    const std::string before = snapshot();
    for (const long n : {1L, 4L, 12L, 40L}) {
        {
            FaultScope fail(Faults::Mode::FailFrom, n);
            EXPECT_NE(QOB_Update(args.get()), SUCCESS) << "failing from call " << n;
        }
        EXPECT_TRUE(snapshot() == before) << "failing from call " << n;
    }
    EXPECT_EQ(QOB_Update(args.get()), SUCCESS); // the same record, retried
    EXPECT_EQ(args->info.files.uLccCount, 2u);
    args->files.pLccs = nullptr;
    args->files.uLccCount = 0;
    QOB_Destructor(&args->info, QOB_OBJECT_PACKAGE_INFO);
}

TEST(AtomicCalls, FailingCallsChangeNothing) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    const fs::path plain = dir / "plain.zip";
    ASSERT_EQ(Create(package), SUCCESS);
    QOB::Archive(plain, false)
        .Insert(QOB::Path("a.txt"), reinterpret_cast<const std::byte*>("abc"), 3, 0);
    const std::string huge(70000, 'x');
    struct Case {
        const char* name;
        fs::path path;
        std::function<QobErrorCode_e()> run;
        QobErrorCode_e expected;
    } cases[] = {
        {"remove from a zip without manifests", plain,
         [&] { return QOB_RemoveEntry(plain.string().c_str(), "a.txt"); }, CANNOT_READ_FILE_PCK},
        {"reserved space of 4 GiB", package,
         [&] {
             return Update(package, [&](QOB_ImageFiles& f) {
                 f.proxy = MemoryEntry("IMG_1.jpg", huge, 0xFFFFFFFFu);
             });
         },
         INVALID_PARAMETER},
        {"settings rewritten, then a name too long", package,
         [&] {
             return Update(package, [&](QOB_ImageFiles& f) {
                 f.settings = MemoryEntry("IMG_1.xmp", Data().settingsSame, 1000);
                 f.mask = MemoryEntry(std::string(250, 'm').c_str(), huge);
             });
         },
         INVALID_PARAMETER},
        {"create over an existing package", package, [&] { return Create(package); },
         CANNOT_REMOVE_FILE},
    };
    for (const Case& c : cases) {
        const std::string before = ReadFile(c.path);
        EXPECT_EQ(c.run(), c.expected) << c.name;
        EXPECT_TRUE(ReadFile(c.path) == before) << c.name;
        EXPECT_FALSE(fs::exists(Beside(c.path, "-journal"))) << c.name;
    }
}

TEST(AtomicCalls, IncompleteJournalIsDiscardedUntouched) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    ASSERT_EQ(Create(package), SUCCESS);
    const std::string before = ReadFile(package);
    for (const std::string& journal :
         {std::string(), std::string("QOBJRNL"), std::string("QOBJRNL") + std::string(25, '\1')}) {
        WriteFile(Beside(package, "-journal"), journal);
        LogCapture log(&QOB_SetLogFn);
        EXPECT_EQ(QOB_IsQob(package.string().c_str()), SUCCESS);
        EXPECT_FALSE(fs::exists(Beside(package, "-journal")));
        EXPECT_EQ(log.Count("rolled back"), 0u);
        EXPECT_TRUE(ReadFile(package) == before);
    }
}

// A change waits while someone outside this process's call lock (another user's or
// session's call) holds the package, and then runs whole. Waiting cannot be told from
// slowness, but a change that finishes while the package is held is certainly wrong.
TEST(AtomicCalls, ChangeWaitsForAnotherHolderOfThePackage) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    ASSERT_EQ(Create(package), SUCCESS);
    const std::string before = ReadFile(package);
    std::atomic<bool> done{false};
    QobErrorCode_e result = SUCCESS;
    std::thread change;
    {
        const QOB::PackageFile reader(package, QOB::PackageFile::Purpose::Read);
        change = std::thread([&] {
            result =
                QOB_RemoveEntry(package.string().c_str(), "Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg");
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(done);
        EXPECT_TRUE(ReadFile(package) == before);
    }
    change.join();
    EXPECT_EQ(result, SUCCESS);
    EXPECT_FALSE(ReadFile(package) == before);
}

#ifndef _WIN32

std::size_t OpenDescriptors() {
    const auto entries = fs::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(entries), fs::end(entries)));
}

// A read that refuses a journal fails after it has locked the package: it must let go of the
// lock and its descriptor, or the next change of this process waits for itself forever.
TEST(AtomicCalls, RefusedJournalLeavesNoLockBehind) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    ASSERT_EQ(Create(package), SUCCESS);
    const std::string magic("QOBJRNL\0", 8);
    const std::string versionOne = magic + std::string("\1\0\0\0", 4) + std::string(8, '\0');
    const std::string damaged = magic + std::string("\2\0\0\0", 4) + std::string(36, '\0');
    for (const std::string& journal : {versionOne, damaged}) {
        WriteFile(Beside(package, "-journal"), journal);
        const std::size_t open = OpenDescriptors();
        EXPECT_NE(QOB_IsQob(package.string().c_str()), SUCCESS);
        ASSERT_EQ(OpenDescriptors(), open);
    }
    fs::remove(Beside(package, "-journal"));
    EXPECT_EQ(QOB_RemoveEntry(package.string().c_str(), "Quillmarsh/Cache/Proxies/IMG_1.CR3.jpg"),
              SUCCESS);
}

// Runs op in a child that ends itself at the exitAt-th write, seek or truncate (0: never).
pid_t RunInChild(const Operation& op, const fs::path& package, long exitAt) {
    const pid_t child = fork();
    if (child == 0) {
        FaultScope die(exitAt > 0 ? Faults::Mode::Exit : Faults::Mode::Count, exitAt);
        op.run(package);
        _exit(0);
    }
    return child;
}

// After a death, the next call finds the old package or the new one whole, and a journal
// left behind is rolled back, or its change completed, with one WARN line. Returns whether
// it was completed.
bool ExpectRecovered(const fs::path& package, const Expectation& expect,
                     const std::string& context) {
    const bool hot = fs::exists(Beside(package, "-journal"));
    LogCapture log(&QOB_SetLogFn);
    QOB_IsQob(package.string().c_str());
    ExpectOldOrNew(package, expect, false, context);
    const std::size_t completed = log.Count("completed an interrupted change of package");
    EXPECT_LE(log.Count("rolled back an interrupted change of package") + completed, hot ? 1u : 0u)
        << context;
    return completed > 0;
}

TEST(AtomicCalls, ProcessDeathAtEveryWriteSeekOrTruncate) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    for (const Operation& op : Operations()) {
        const Expectation expect = Prepare(dir, op);
        const long step = std::max(1L, expect.calls / 300);
        int completed = 0;
        // Sampled, but each of the commit's last steps.
        for (long n = 1; n <= expect.calls; n += n < expect.calls - 40 ? step : 1) {
            Restore(package, expect);
            const pid_t child = RunInChild(op, package, n);
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            completed += ExpectRecovered(package, expect,
                                         std::string(op.name) + " dying at " + std::to_string(n));
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
        // A removal shortens the package only after its change is committed: a death
        // between the two is finished by the next open.
        if (std::string(op.name) == "remove proxy") {
            EXPECT_GT(completed, 0);
        }
    }
}

TEST(AtomicCalls, SigkillAtRandomMoments) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    std::mt19937 random(20261122);
    for (const Operation& op : Operations()) {
        const Expectation expect = Prepare(dir, op);
        // How long the operation takes here, to spread the kills over all of it.
        Restore(package, expect);
        const auto start = std::chrono::steady_clock::now();
        int status = 0;
        waitpid(RunInChild(op, package, 0), &status, 0);
        const auto span = std::chrono::duration_cast<std::chrono::microseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count();
        std::uniform_int_distribution<long> delay(0, std::max<long>(span, 100));
        int changed = 0;
        for (int round = 0; round < 60; ++round) {
            Restore(package, expect);
            const pid_t child = RunInChild(op, package, 0);
            usleep(static_cast<useconds_t>(delay(random)));
            kill(child, SIGKILL);
            ASSERT_EQ(waitpid(child, &status, 0), child);
            changed += fs::exists(package) && ReadFile(package) != expect.before;
            ExpectRecovered(package, expect,
                            std::string(op.name) + " killed, round " + std::to_string(round));
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
        RecordProperty(op.name, changed);
    }
}

// A package near 4 GiB (sparse: all-zero writes become holes) and a file-size limit: calls
// that cannot fit fail before or while writing, and the package stays as it was.
TEST(AtomicCalls, SizeLimits) {
    TempDir dir;
    const fs::path package = dir / "big.qob";
    const fs::path raw = dir / "IMG_2.CR3";
    { std::ofstream sparse(raw, std::ios::binary); }
    fs::resize_file(raw, 0xFFFFFFFFull - 1000000);
    {
        MZ::zlib_filefunc_def table = g_platform;
        table.zwrite_file = [](void*, void* s, const void* b, std::uint32_t n) -> std::uint32_t {
            const auto* bytes = static_cast<const char*>(b);
            // Only the raw image's copy rounds are this large: they go to the end of the file,
            // where a hole reads as the zeros it stands for.
            if (n >= 65536 && std::all_of(bytes, bytes + n, [](char c) { return c == 0; })) {
                return g_platform.zseek_file(nullptr, s, n, MZ::kSeekCur) == 0 ? n : 0;
            }
            return g_platform.zwrite_file(nullptr, s, b, n);
        };
        MZ::SetFileFunctions(&table);
        auto args = NewArgs<QOB_CreateArgs>(package);
        args->files.raw = FileEntry(raw);
        const QobErrorCode_e created = QOB_Create(args.get());
        MZ::SetFileFunctions(nullptr);
        ASSERT_EQ(created, SUCCESS);
    }
    fs::remove(raw);
    const std::string proxy = RandomBytes(700000, 11);
    const auto sizeBefore = fs::file_size(package);
    LogCapture log(&QOB_SetLogFn);
    EXPECT_EQ(
        Update(package, [&](QOB_ImageFiles& f) { f.proxy = MemoryEntry("IMG_2.jpg", proxy); }),
        INVALID_PARAMETER);
    EXPECT_TRUE(log.Contains("package would grow past 4 GiB"));
    EXPECT_EQ(fs::file_size(package), sizeBefore);
    EXPECT_EQ(QOB_IsQob(package.string().c_str()), SUCCESS);
    fs::remove(package);

    // The entry count field ends at 65,535: one more entry is refused, not lost.
    const fs::path full = dir / "full.zip";
    WriteFile(dir / "fill.py", "import sys, zipfile\n"
                               "with zipfile.ZipFile(sys.argv[1], 'w') as z:\n"
                               "    for i in range(65534): z.writestr(str(i), '')\n");
    ASSERT_EQ(
        qobtest::Run(Python() + " '" + (dir / "fill.py").string() + "' '" + full.string() + "'"),
        0);
    const auto* byte = reinterpret_cast<const std::byte*>("x");
    QOB::Archive(full, true).Insert(QOB::Path("last"), byte, 1, 0);
    const std::string fullBefore = ReadFile(full);
    std::string refused;
    try {
        QOB::Archive(full, true).Insert(QOB::Path("one more"), byte, 1, 0);
    } catch (const std::exception& e) {
        refused = e.what();
    }
    EXPECT_EQ(refused, "[INVALID_PARAMETER] package cannot hold more than 65535 entries");
    EXPECT_TRUE(ReadFile(full) == fullBefore);

    // A file-size limit just above the package: the growing update hits it mid-way.
    const fs::path small = dir / "small.qob";
    ASSERT_EQ(Create(small), SUCCESS);
    const std::string before = ReadFile(small);
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{before.size() + 4000, before.size() + 4000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const QobErrorCode_e result = Operations()[2].run(small);
        _exit(result == SUCCESS ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(ReadFile(small) == before);
    EXPECT_FALSE(fs::exists(Beside(small, "-journal")));
}

// Eight processes of a hundred calls each on one package (settings rewritten in place or
// outgrowing their space, and reads): afterwards it is a valid zip for us and for unzip,
// every entry reads back, and the manifests name what the zip holds.
// Eight processes of one user (one lock), then eight as if of eight users: each with a lock
// of its own, so only the package's own lock keeps their changes and reads apart.
TEST(AtomicCalls, EightProcessesOnOnePackage) {
    for (const bool ownLocks : {false, true}) {
        SCOPED_TRACE(ownLocks ? "a lock per process" : "one lock");
        TempDir dir;
        const fs::path package = dir / "p.qob";
        ASSERT_EQ(Create(package), SUCCESS);
        const std::size_t entries = Take(package).size();
        std::vector<pid_t> children;
        for (std::uint32_t p = 0; p < 8; ++p) {
            const fs::path runtime = dir / ("run" + std::to_string(p));
            fs::create_directory(runtime);
            fs::permissions(runtime, fs::perms::owner_all);
            const pid_t child = fork();
            if (child == 0) {
                if (ownLocks) {
                    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
                }
                for (std::uint32_t i = 0; i < 100; ++i) {
                    const std::string settings =
                        RandomBytes((p + i) % 3 == 0 ? 500 : 3000 + i * 50, i);
                    const QobErrorCode_e result =
                        (p + i) % 4 == 3 ? QOB_IsQob(package.string().c_str())
                                         : Update(package, [&](QOB_ImageFiles& f) {
                                               f.settings = MemoryEntry("IMG_1.xmp", settings, 100);
                                           });
                    if (result != SUCCESS) {
                        _exit(1);
                    }
                }
                _exit(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        EXPECT_EQ(Take(package).size(), entries);
        EXPECT_EQ(qobtest::Run("unzip -tqq '" + package.string() + "' >/dev/null 2>&1"), 0);
        ExpectConsistent(package);
    }
}

#endif

} // namespace
