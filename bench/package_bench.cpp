// Whole operations through the exports on packages of realistic sizes: reading the package
// info, creating, rewriting the settings in place, removing the proxy or the raw image,
// extracting it all. Fixtures are written once per process into a scratch directory, outside
// the timed region. The changing operations report how many flushes of files and of folders
// each call made (Linux), the figures the power-loss replay in tests/power/ requires.
#include "platform/platform.hpp"
#include "support/log.hpp"

#include <qob/qob.h>

#include "bench_scratch.hpp"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#ifdef __linux__
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
std::atomic<long> g_fileFlushes{0};
std::atomic<long> g_folderFlushes{0};

void CountFlush(int fd) noexcept {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        ++g_folderFlushes;
    } else {
        ++g_fileFlushes;
    }
}
} // namespace

// The library is linked in statically: its flushes come here first, and are counted.
extern "C" int fsync(int fd) {
    CountFlush(fd);
    return static_cast<int>(::syscall(SYS_fsync, fd));
}
extern "C" int fdatasync(int fd) {
    CountFlush(fd);
    return static_cast<int>(::syscall(SYS_fdatasync, fd));
}
#else
namespace {
std::atomic<long> g_fileFlushes{0};
std::atomic<long> g_folderFlushes{0};
} // namespace
#endif

namespace {

namespace fs = std::filesystem;

// The flushes that the timed calls of one benchmark made, per call.
class FlushTally {
public:
    template <typename Call> auto Around(Call&& call) {
        const long files = g_fileFlushes;
        const long folders = g_folderFlushes;
        auto result = call();
        files_ += g_fileFlushes - files;
        folders_ += g_folderFlushes - folders;
        ++calls_;
        return result;
    }
    void Report(benchmark::State& state) const {
        if (calls_ > 0) {
            state.counters["file_flushes"] = static_cast<double>(files_) / calls_;
            state.counters["folder_flushes"] = static_cast<double>(folders_) / calls_;
        }
    }

private:
    long files_ = 0;
    long folders_ = 0;
    long calls_ = 0;
};

constexpr std::uint64_t kMiB = 1024 * 1024;

const fs::path& Space() {
    return qobbench::ScratchDir();
}

// size bytes of cheap pseudo-random content (incompressible enough to look like image data).
void WriteContent(const fs::path& path, std::uint64_t size, std::uint32_t seed) {
    std::vector<std::uint32_t> block(kMiB / 4);
    std::uint32_t state = seed * 2654435761u + 1;
    std::FILE* out = std::fopen(path.string().c_str(), "wb");
    if (out == nullptr) {
        throw std::runtime_error("cannot write " + path.string());
    }
    for (std::uint64_t left = size; left > 0;) {
        for (auto& word : block) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            word = state;
        }
        const std::size_t chunk = static_cast<std::size_t>(std::min<std::uint64_t>(left, kMiB));
        std::fwrite(block.data(), 1, chunk, out);
        left -= chunk;
    }
    std::fclose(out);
}

// Whether the library flushes to the device in the benchmark running now.
bool g_flushes = true;

// Flushes a fixture copy made outside the timed region, even where the library's flushes
// are off: otherwise its write-back would run during the next timed call.
void FlushCopy(const fs::path& path) {
    QOB::Platform::SetSyncEnabled(true);
    QOB::Platform::SyncFile(path);
    QOB::Platform::SetSyncEnabled(g_flushes);
}

QOB_EntryInfo FromFile(const fs::path& path, std::uint32_t reserve = 0, const char* id = "") {
    QOB_EntryInfo entry{};
    std::strcpy(entry.szPath, path.string().c_str());
    std::strcpy(entry.szIdentifier, id);
    entry.uReservedSpace = reserve;
    entry.ePackingType = QOB_PACK_FROM_FILE;
    return entry;
}

constexpr std::uint64_t kSettingsSize = 8 * 1024;

// A raw image of rawSize bytes with a full set of companions: settings, proxy, mask, hair,
// two LCC and two ICC profiles, all from files on disk.
struct Sources {
    explicit Sources(std::uint64_t rawSize) {
        const std::string tag = std::to_string(rawSize);
        const fs::path raw = Space() / ("IMG_" + tag + ".CR3");
        WriteContent(raw, rawSize, 1);
        const auto companion = [&](const std::string& name, std::uint64_t size,
                                   std::uint32_t seed) {
            const fs::path path = Space() / (tag + "_" + name);
            WriteContent(path, size, seed);
            return path;
        };
        args = std::make_unique<QOB_CreateArgs>();
        QOB_Constructor(args.get(), QOB_OBJECT_CREATE_ARGS);
        args->files.raw = FromFile(raw);
        args->files.settings = FromFile(companion("edit.xmp", kSettingsSize, 2), 16 * 1024);
        args->files.proxy = FromFile(companion("preview.jpg", 2 * kMiB, 3));
        args->files.mask = FromFile(companion("mask.msk", 512 * 1024, 4), 64 * 1024);
        args->files.hair = FromFile(companion("hair.hair", 64 * 1024, 5), 16 * 1024);
        lccs[0] = FromFile(companion("a.lcc", 4096, 6), 0, "LensA");
        lccs[1] = FromFile(companion("b.lcc", 4096, 7), 0, "LensB");
        iccs[0] = FromFile(companion("s.icc", 3144, 8), 0, "sRGB");
        iccs[1] = FromFile(companion("p.icc", 560, 9), 0, "DisplayP3");
        args->files.uLccCount = 2;
        args->files.pLccs = lccs;
        args->files.uIccCount = 2;
        args->files.pIccs = iccs;
    }
    Sources(const Sources&) = delete;
    Sources& operator=(const Sources&) = delete;

    QobErrorCode_e Create(const fs::path& package) {
        std::strcpy(args->szPackagePath, package.string().c_str());
        return QOB_Create(args.get());
    }

    std::unique_ptr<QOB_CreateArgs> args;
    QOB_EntryInfo lccs[2];
    QOB_EntryInfo iccs[2];
};

Sources& SourcesOf(std::uint64_t rawSize) {
    static std::map<std::uint64_t, std::unique_ptr<Sources>> cache;
    auto& slot = cache[rawSize];
    if (!slot) {
        slot = std::make_unique<Sources>(rawSize);
    }
    return *slot;
}

// A package made once per raw size, never modified: benchmarks that change a package work
// on a copy.
const fs::path& TemplatePackage(std::uint64_t rawSize) {
    static std::map<std::uint64_t, fs::path> cache;
    auto found = cache.find(rawSize);
    if (found == cache.end()) {
        const fs::path package = Space() / ("template_" + std::to_string(rawSize) + ".qob");
        if (SourcesOf(rawSize).Create(package) != SUCCESS) {
            throw std::runtime_error("cannot create " + package.string());
        }
        found = cache.emplace(rawSize, package).first;
    }
    return found->second;
}

struct Info {
    Info() : record(std::make_unique<QOB_PackageInfo>()) {
        QOB_Constructor(record.get(), QOB_OBJECT_PACKAGE_INFO);
    }
    ~Info() { QOB_Destructor(record.get(), QOB_OBJECT_PACKAGE_INFO); }
    Info(const Info&) = delete;
    Info& operator=(const Info&) = delete;
    QobErrorCode_e Read(const fs::path& package) {
        QOB_Destructor(record.get(), QOB_OBJECT_PACKAGE_INFO);
        QOB_Constructor(record.get(), QOB_OBJECT_PACKAGE_INFO);
        std::strcpy(record->szPackagePath, package.string().c_str());
        return QOB_GetPackageInfo(record.get());
    }
    std::unique_ptr<QOB_PackageInfo> record;
};

// (a) One full read of the package info: 23 manifests, two LCC and two ICC profiles.
void BM_GetPackageInfo(benchmark::State& state) {
    const fs::path& package = TemplatePackage(kMiB);
    Info info;
    for (auto _ : state) {
        if (info.Read(package) != SUCCESS) {
            state.SkipWithError("QOB_GetPackageInfo failed");
            break;
        }
        benchmark::DoNotOptimize(info.record->files.uLccCount);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetPackageInfo)->Unit(benchmark::kMicrosecond);

// (b) Creating a package around a 100 MB raw image with every companion...
void BM_Create(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    Sources& sources = SourcesOf(rawSize);
    const fs::path package = Space() / "created.qob";
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove(package);
        state.ResumeTiming();
        if (sources.Create(package) != SUCCESS) {
            state.SkipWithError("QOB_Create failed");
            break;
        }
    }
    fs::remove(package);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rawSize));
}
BENCHMARK(BM_Create)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// ...against the least any packer has to do: read the raw image once and checksum it.
// Rates here are per wall-clock second: the work is mostly file I/O.
void BM_ReadAndCrc32Baseline(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const std::string raw = SourcesOf(rawSize).args->files.raw.szPath;
    std::vector<unsigned char> buffer(kMiB);
    for (auto _ : state) {
        std::FILE* in = std::fopen(raw.c_str(), "rb");
        uLong crc = crc32(0L, Z_NULL, 0);
        std::size_t got = 0;
        while ((got = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
            crc = crc32(crc, buffer.data(), static_cast<uInt>(got));
        }
        std::fclose(in);
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rawSize));
}
BENCHMARK(BM_ReadAndCrc32Baseline)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// A second reference that also writes every byte once, as a package file must.
void BM_CopyWithCrc32Baseline(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const std::string raw = SourcesOf(rawSize).args->files.raw.szPath;
    const fs::path copy = Space() / "copied.bin";
    std::vector<unsigned char> buffer(kMiB);
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove(copy);
        state.ResumeTiming();
        std::FILE* in = std::fopen(raw.c_str(), "rb");
        std::FILE* out = std::fopen(copy.string().c_str(), "wb");
        uLong crc = crc32(0L, Z_NULL, 0);
        std::size_t got = 0;
        while ((got = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
            crc = crc32(crc, buffer.data(), static_cast<uInt>(got));
            std::fwrite(buffer.data(), 1, got, out);
        }
        std::fclose(out);
        std::fclose(in);
        benchmark::DoNotOptimize(crc);
    }
    fs::remove(copy);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rawSize));
}
BENCHMARK(BM_CopyWithCrc32Baseline)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// (c) Rewriting the settings file with content of the same size: in place, so a 200 MB
// package must cost what a 2 MB one does.
void BM_UpdateSettingsInPlace(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const fs::path package = Space() / "update.qob";
    fs::copy_file(TemplatePackage(rawSize), package, fs::copy_options::overwrite_existing);
    Info info;
    if (info.Read(package) != SUCCESS) {
        state.SkipWithError("QOB_GetPackageInfo failed");
        return;
    }
    const fs::path settings[2] = {Space() / "settings_a.xmp", Space() / "settings_b.xmp"};
    WriteContent(settings[0], kSettingsSize, 11);
    WriteContent(settings[1], kSettingsSize, 12);
    const auto sizeBefore = fs::file_size(package);
    auto update = std::make_unique<QOB_UpdateArgs>();
    QOB_Constructor(update.get(), QOB_OBJECT_UPDATE_ARGS);
    std::strcpy(update->szPackagePath, package.string().c_str());
    std::size_t turn = 0;
    FlushTally flushes;
    for (auto _ : state) {
        state.PauseTiming();
        // The host's description as read; no list grows, so the copy shares its lists safely.
        std::memcpy(&update->info, info.record.get(), sizeof(QOB_PackageInfo));
        update->files = QOB_ImageFiles{};
        update->files.settings = FromFile(settings[turn++ % 2]);
        state.ResumeTiming();
        if (flushes.Around([&] { return QOB_Update(update.get()); }) != SUCCESS) {
            state.SkipWithError("QOB_Update failed");
            break;
        }
    }
    std::memset(&update->info, 0, sizeof(QOB_PackageInfo)); // its lists belong to info
    if (fs::file_size(package) != sizeBefore) {
        state.SkipWithError("the settings were not rewritten in place");
    }
    flushes.Report(state);
    state.counters["package_MiB"] = static_cast<double>(sizeBefore) / kMiB;
    fs::remove(package);
}
BENCHMARK(BM_UpdateSettingsInPlace)->Arg(2)->Arg(100)->Arg(200)->Unit(benchmark::kMicrosecond);

// (c') Settings that outgrow their reserved space: removed, compacting what follows, and
// inserted again at the end. Each round starts from a fresh copy, made outside the timing.
void BM_UpdateSettingsGrowing(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const fs::path& source = TemplatePackage(rawSize);
    Info info;
    if (info.Read(source) != SUCCESS) {
        state.SkipWithError("QOB_GetPackageInfo failed");
        return;
    }
    const fs::path settings = Space() / "settings_big.xmp";
    WriteContent(settings, 4 * kSettingsSize, 13);
    const fs::path package = Space() / "grow.qob";
    auto update = std::make_unique<QOB_UpdateArgs>();
    QOB_Constructor(update.get(), QOB_OBJECT_UPDATE_ARGS);
    std::strcpy(update->szPackagePath, package.string().c_str());
    FlushTally flushes;
    for (auto _ : state) {
        state.PauseTiming();
        fs::copy_file(source, package, fs::copy_options::overwrite_existing);
        FlushCopy(package); // the copy's own flush is not the update's
        std::memcpy(&update->info, info.record.get(), sizeof(QOB_PackageInfo));
        update->files = QOB_ImageFiles{};
        update->files.settings = FromFile(settings);
        state.ResumeTiming();
        if (flushes.Around([&] { return QOB_Update(update.get()); }) != SUCCESS) {
            state.SkipWithError("QOB_Update failed");
            break;
        }
    }
    std::memset(&update->info, 0, sizeof(QOB_PackageInfo)); // its lists belong to info
    flushes.Report(state);
    fs::remove(package);
}
BENCHMARK(BM_UpdateSettingsGrowing)->Arg(100)->Iterations(10)->Unit(benchmark::kMillisecond);

// (d) Removing one entry from a package: the proxy, stored right behind the raw image, or the
// raw image itself, the first entry, behind which every other entry moves up. Each round
// needs a fresh copy, made outside the timed region: a fixed, small round count.
void RemoveEntry(benchmark::State& state, bool raw) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const fs::path& source = TemplatePackage(rawSize);
    Info info;
    if (info.Read(source) != SUCCESS) {
        state.SkipWithError("QOB_GetPackageInfo failed");
        return;
    }
    const std::string entry = raw ? info.record->files.raw.szPath : info.record->files.proxy.szPath;
    const fs::path package = Space() / "remove.qob";
    FlushTally flushes;
    for (auto _ : state) {
        state.PauseTiming();
        fs::copy_file(source, package, fs::copy_options::overwrite_existing);
        FlushCopy(package); // the copy's own flush is not the removal's
        state.ResumeTiming();
        if (flushes.Around([&] {
                return QOB_RemoveEntry(package.string().c_str(), entry.c_str());
            }) != SUCCESS) {
            state.SkipWithError("QOB_RemoveEntry failed");
            break;
        }
    }
    state.counters["package_MiB"] = static_cast<double>(fs::file_size(source)) / kMiB;
    flushes.Report(state);
    fs::remove(package);
}

void BM_RemoveProxy(benchmark::State& state) {
    RemoveEntry(state, false);
}
BENCHMARK(BM_RemoveProxy)->Arg(100)->Arg(200)->Iterations(6)->Unit(benchmark::kMillisecond);

void BM_RemoveRaw(benchmark::State& state) {
    RemoveEntry(state, true);
}
BENCHMARK(BM_RemoveRaw)->Arg(100)->Iterations(6)->Unit(benchmark::kMillisecond);

// (e) Extracting every file of a package with a 100 MB raw image into an empty directory.
void BM_ExtractAll(benchmark::State& state) {
    const std::uint64_t rawSize = static_cast<std::uint64_t>(state.range(0)) * kMiB;
    const fs::path& package = TemplatePackage(rawSize);
    const fs::path destination = Space() / "extracted";
    auto args = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(args.get(), QOB_OBJECT_EXTRACT_ARGS);
    std::strcpy(args->szPackagePath, package.string().c_str());
    std::strcpy(args->szDestination, destination.string().c_str());
    args->eMode = QOB_EXTRACT_ALL;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(destination);
        fs::create_directories(destination);
        state.ResumeTiming();
        if (QOB_Extract(args.get()) != SUCCESS) {
            state.SkipWithError("QOB_Extract failed");
            break;
        }
    }
    fs::remove_all(destination);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fs::file_size(package)));
}
BENCHMARK(BM_ExtractAll)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// The changing operations again without the device flushes at the commit points: the
// difference to the figures above is what durability costs on this disk.
template <void (*Operation)(benchmark::State&)> void WithoutFlush(benchmark::State& state) {
    g_flushes = false;
    QOB::Platform::SetSyncEnabled(false);
    Operation(state);
    QOB::Platform::SetSyncEnabled(true);
    g_flushes = true;
}
BENCHMARK(WithoutFlush<BM_Create>)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(WithoutFlush<BM_UpdateSettingsInPlace>)
    ->Arg(2)
    ->Arg(100)
    ->Arg(200)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(WithoutFlush<BM_UpdateSettingsGrowing>)
    ->Arg(100)
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(WithoutFlush<BM_RemoveProxy>)->Arg(100)->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(WithoutFlush<BM_RemoveRaw>)->Arg(100)->Iterations(6)->Unit(benchmark::kMillisecond);

} // namespace
