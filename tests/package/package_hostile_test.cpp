// Small hostile packages that once cost seconds and gigabytes: deflate bombs behind manifest
// names, millions of unclosed elements, sizes the file cannot hold, names that shadow or
// collide. Each call runs in a child process with a ceiling on its address space and must
// answer with the expected code.
#include "api/package_host.hpp"
#include "common/raw_zip.hpp"
#include "common/test_files.hpp"
#include "package/manifest_format.hpp"
#include "package/package_builder.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

#if !defined(_WIN32)
#include <fstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCanLimitMemory = false; // the sanitizer reserves terabytes of address space
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kCanLimitMemory = false;
#else
constexpr bool kCanLimitMemory = true;
#endif
#else
constexpr bool kCanLimitMemory = true;
#endif

constexpr std::uint64_t kMemoryCeiling = 256u << 20;

// The call's result; where processes can be forked, from a child whose address space may
// grow by at most kMemoryCeiling and that must finish within a minute.
int Bounded(const std::function<int()>& call) {
#if defined(_WIN32)
    return call();
#else
    const pid_t child = ::fork();
    if (child == 0) {
        if (kCanLimitMemory) {
            std::ifstream status("/proc/self/statm");
            std::uint64_t pages = 0;
            status >> pages;
            const std::uint64_t now = pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
            const rlimit limit{now + kMemoryCeiling, now + kMemoryCeiling};
            ::setrlimit(RLIMIT_AS, &limit);
        }
        ::alarm(30);
        ::_exit(-call() & 0xFF);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "the child died (signal " << WTERMSIG(status) << ")";
    return WIFEXITED(status) ? -WEXITSTATUS(status) : 1;
#endif
}

TEST(PackageHostile, AnsweredWithSmallMemory) {
    using qobtest::RawZip;
    const std::string manifest = qobtest::Manifest();
    enum class Call { Info, Extract };
    struct Case {
        const char* what;
        std::function<void(RawZip&)> build;
        Call call;
        int code;
        const char* log = nullptr; // a line that says why
    };
    const Case cases[] = {
        {"23 manifest bombs sharing one local record",
         [](RawZip& zip) {
             const auto first = zip.AddDeflatedRun(QOB::kManifestNames[0], 256u << 20, " ");
             for (std::size_t row = 1; row < QOB::kManifestNames.size(); ++row) {
                 zip.Alias(QOB::kManifestNames[row], first);
             }
         },
         Call::Info, CANNOT_READ_FILE_PCK, "entry too large: \"manifest.xml\""},
        {"a bomb behind a secondary manifest",
         [&](RawZip& zip) {
             zip.Add("manifest.xml", manifest);
             zip.AddDeflatedRun("manifest50.xml", 64u << 20, " ");
         },
         Call::Info, CANNOT_READ_FILE_PCK, "entry too large: \"manifest50.xml\""},
        {"8 million unclosed elements",
         [](RawZip& zip) { zip.AddDeflatedRun("manifest.xml", 24u << 20, "<a>"); }, Call::Info,
         CANNOT_READ_FILE_PCK, "entry too large"},
        {"250,000 elements under the size cap",
         [](RawZip& zip) {
             std::string text = "<Manifest>";
             for (int i = 0; i < 250000; ++i) {
                 text += "<a/>";
             }
             zip.Add("manifest.xml", text + "</Manifest>", 8);
         },
         Call::Info, CANNOT_READ_FILE_PCK, "xml error at row=1 col=16391"},
        {"a manifest claiming more than the file holds",
         [&](RawZip& zip) { zip.Claim(zip.Add("manifest.xml", manifest), 900000, 900000); },
         Call::Info, CANNOT_READ_FILE_PCK, "UNZ_BADZIPFILE"},
        {"a file claiming nearly 4 GiB inflated",
         [](RawZip& zip) { zip.Claim(zip.Add("a.raw", "tiny", 8), 6, 0xFFFFFF00u); }, Call::Extract,
         CANNOT_READ_FILE_PCK, "UNZ_BADZIPFILE"},
        {"MANIFEST.XML before manifest.xml does not shadow it",
         [&](RawZip& zip) {
             zip.Add("MANIFEST.XML", "<not a manifest");
             zip.Add("manifest.xml", manifest);
             zip.Add("a.raw", "raw");
         },
         Call::Info, SUCCESS},
        {"two entries extracting to one path",
         [](RawZip& zip) {
             zip.Add("a//b/./x.raw", "first");
             zip.Add("a/b/x.raw", "second");
         },
         Call::Extract, INVALID_PARAMETER, "extract to the same path \"a/b/x.raw\""},
    };
    qobtest::TempDir dir;
    QOB_SetLogFn(&qobtest::SilentSink, nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RawZip zip;
        c.build(zip);
        const fs::path file = dir / "hostile.qob";
        qobtest::WriteFile(file, zip.Finish());
        const fs::path out = dir / "out";
        constexpr int kSilent = -99; // the call did not log why
        EXPECT_EQ(Bounded([&] {
                      qobtest::LogCapture log(&QOB_SetLogFn);
                      const int code = c.call == Call::Info ? qobtest::Info().Read(file)
                                                            : qobtest::ExtractAll(file, out);
                      return c.log == nullptr || log.Contains(c.log) ? code : kSilent;
                  }),
                  c.code);
        EXPECT_TRUE(!fs::exists(out) || fs::is_empty(out));
    }
}

} // namespace
