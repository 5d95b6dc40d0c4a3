// N workers each making the same number of package reads, on one package or on a package of
// their own, from threads and from processes, against an ideal-parallel reference: the same
// amount of CPU work with no library (calibrated in the same run to one read's time). The
// counter "ratio" is the time of N workers over N times the time of one worker doing its
// share alone: 1.0 is fully serial, 1/N fully parallel on N free cores.
#include "bench_scratch.hpp"

#include <qob/qob.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

constexpr int kCallsPerWorker = 300;
constexpr int kMaxWorkers = 4;

enum Kind { OnePackage, OwnPackages, Reference };
enum Spread { Threads, Processes };

std::filesystem::path PackagePath(int index) {
    return qobbench::ScratchDir() / ("parallel_" + std::to_string(index) + ".qob");
}

void MakePackages() {
    static const bool made = [] {
        qobbench::ScratchDir(); // silences the log first
        const std::string raw(256 * 1024, 'r'), settings(4000, 's'), proxy(20000, 'p');
        for (int i = 0; i < kMaxWorkers; ++i) {
            auto args = std::make_unique<QOB_CreateArgs>();
            QOB_Constructor(args.get(), QOB_OBJECT_CREATE_ARGS);
            std::strcpy(args->szPackagePath, PackagePath(i).string().c_str());
            auto entry = [](const char* name, const std::string& bytes) {
                QOB_EntryInfo e{};
                std::strcpy(e.szPath, name);
                e.ePackingType = QOB_PACK_FROM_MEMORY;
                e.pBuffer = bytes.data();
                e.uBufferLength = static_cast<std::uint32_t>(bytes.size());
                e.uStoredSize = e.uBufferLength;
                return e;
            };
            args->files.raw = entry("IMG_1.CR3", raw);
            args->files.settings = entry("IMG_1.xmp", settings);
            args->files.proxy = entry("IMG_1.jpg", proxy);
            if (QOB_Create(args.get()) != SUCCESS) {
                std::abort();
            }
        }
        return true;
    }();
    (void)made;
}

void ReadInfo(const std::filesystem::path& package) {
    auto info = std::make_unique<QOB_PackageInfo>();
    QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    std::strcpy(info->szPackagePath, package.string().c_str());
    if (QOB_GetPackageInfo(info.get()) != SUCCESS) {
        std::abort();
    }
    QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
}

// CPU work with no library and no shared state: a mixing loop.
std::uint64_t Spin(std::uint64_t rounds) {
    std::uint64_t x = 0x9E3779B97F4A7C15ull;
    for (std::uint64_t i = 0; i < rounds; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
    }
    return x;
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Spin rounds that take as long as one read, measured once.
std::uint64_t RoundsPerCall() {
    static const std::uint64_t rounds = [] {
        MakePackages();
        auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kCallsPerWorker; ++i) {
            ReadInfo(PackagePath(0));
        }
        const double perCall = Seconds(start) / kCallsPerWorker;
        start = std::chrono::steady_clock::now();
        constexpr std::uint64_t kTrial = 20'000'000;
        benchmark::DoNotOptimize(Spin(kTrial));
        return static_cast<std::uint64_t>(kTrial * perCall / Seconds(start));
    }();
    return rounds;
}

void Work(Kind kind, int worker) {
    for (int i = 0; i < kCallsPerWorker; ++i) {
        if (kind == Reference) {
            benchmark::DoNotOptimize(Spin(RoundsPerCall()));
        } else {
            ReadInfo(PackagePath(kind == OnePackage ? 0 : worker));
        }
    }
}

double RunWorkers(Kind kind, Spread spread, int workers) {
    const auto start = std::chrono::steady_clock::now();
    if (spread == Threads) {
        std::vector<std::thread> threads;
        for (int w = 0; w < workers; ++w) {
            threads.emplace_back(Work, kind, w);
        }
        for (auto& thread : threads) {
            thread.join();
        }
    } else {
#ifndef _WIN32
        std::vector<pid_t> children;
        for (int w = 0; w < workers; ++w) {
            const pid_t child = ::fork();
            if (child == 0) {
                Work(kind, w);
                ::_exit(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = 0;
            ::waitpid(child, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                std::abort();
            }
        }
#endif
    }
    return Seconds(start);
}

void BM_Parallel(benchmark::State& state) {
    const auto kind = static_cast<Kind>(state.range(0));
    const auto spread = static_cast<Spread>(state.range(1));
    const int workers = static_cast<int>(state.range(2));
    MakePackages();
    RoundsPerCall();
    double ratios = 0;
    for (auto _ : state) {
        const double alone = RunWorkers(kind, spread, 1);
        const double together = RunWorkers(kind, spread, workers);
        state.SetIterationTime(together);
        ratios += together / (workers * alone);
    }
    state.counters["ratio"] = ratios / static_cast<double>(state.iterations());
    static const char* const kKinds[] = {"one package", "own packages", "reference"};
    state.SetLabel(std::string(kKinds[kind]) + (spread == Threads ? ", threads" : ", processes"));
}

void Arguments(benchmark::internal::Benchmark* bench) {
    for (const int spread : {Threads, Processes}) {
#ifdef _WIN32
        if (spread == Processes) {
            continue;
        }
#endif
        for (const int kind : {OnePackage, OwnPackages, Reference}) {
            for (const int workers : {1, 2, 4}) {
                bench->Args({kind, spread, workers});
            }
        }
    }
}

BENCHMARK(BM_Parallel)
    ->Apply(Arguments)
    ->UseManualTime()
    ->Iterations(5)
    ->ArgNames({"kind", "spread", "workers"});

} // namespace
