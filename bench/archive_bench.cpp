// Archive operations on large packages. Packages are built outside the timed loops; the
// read-and-CRC baseline shows what Insert costs beyond touching every byte once.
#include "archive/archive.hpp"
#include "support/log.hpp"

#include "bench_scratch.hpp"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = 1024 * 1024;
constexpr std::size_t kEntry = 16 * 1024;

const fs::path& Dir() {
    return qobbench::ScratchDir();
}

std::vector<std::byte> Noise(std::size_t size, std::uint32_t seed) {
    std::vector<std::byte> bytes(size);
    std::mt19937 engine(seed);
    for (std::size_t i = 0; i + 4 <= size; i += 4) {
        const std::uint32_t word = engine();
        for (std::size_t k = 0; k < 4; ++k) {
            bytes[i + k] = static_cast<std::byte>(word >> (8 * k));
        }
    }
    return bytes;
}

// A 100 MB file of noise, written once.
const fs::path& Source() {
    static const fs::path path = [] {
        const fs::path file = Dir() / "source.bin";
        const auto block = Noise(kMiB, 1);
        std::ofstream out(file, std::ios::binary);
        for (int i = 0; i < 100; ++i) {
            out.write(reinterpret_cast<const char*>(block.data()),
                      static_cast<std::streamsize>(block.size()));
        }
        return file;
    }();
    return path;
}

// A package of about total_mib MiB: the 16 KiB entry "target" first (reserving another
// 16 KiB), then 10 MiB filler entries.
fs::path Package(std::size_t total_mib) {
    const fs::path path = Dir() / ("package-" + std::to_string(total_mib) + ".zip");
    if (fs::exists(path)) {
        return path;
    }
    QOB::Archive archive(path, false);
    const auto target = Noise(kEntry, 2);
    archive.Insert(QOB::Path("target"), target.data(), target.size(), kEntry);
    const std::size_t filler_mib = std::min<std::size_t>(total_mib, 10);
    const auto filler = Noise(filler_mib * kMiB, 3);
    for (std::size_t done = 0, i = 0; done + filler_mib <= total_mib; done += filler_mib, ++i) {
        archive.Insert(QOB::Path("filler/" + std::to_string(i)), filler.data(), filler.size(), 0);
    }
    return path;
}

void BM_ReadAndCrcSource(benchmark::State& state) {
    const fs::path& source = Source();
    std::vector<char> buffer(65536);
    for (auto _ : state) {
        std::ifstream in(source, std::ios::binary);
        uLong crc = crc32(0, nullptr, 0);
        while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
               in.gcount() > 0) {
            crc = crc32(crc, reinterpret_cast<const Bytef*>(buffer.data()),
                        static_cast<uInt>(in.gcount()));
        }
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(fs::file_size(source)));
}

void BM_Insert100MB(benchmark::State& state) {
    const fs::path& source = Source();
    const fs::path path = Dir() / "insert.zip";
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove(path);
        state.ResumeTiming();
        QOB::Archive archive(path, false);
        archive.Insert(QOB::Path("raw/source.bin"), source, 65536);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(fs::file_size(source)));
}

// The reserved space makes the cost independent of the package size.
void BM_Update16KiB(benchmark::State& state) {
    const fs::path path = Package(static_cast<std::size_t>(state.range(0)));
    const auto content = Noise(kEntry, 4);
    QOB::Archive archive(path, true);
    for (auto _ : state) {
        archive.Update(QOB::Path("target"), content.data(), content.size());
    }
}

// Removing the first entry moves everything behind it.
void BM_RemoveFirst(benchmark::State& state) {
    const fs::path original = Package(static_cast<std::size_t>(state.range(0)));
    const fs::path path = Dir() / "remove.zip";
    for (auto _ : state) {
        state.PauseTiming();
        fs::copy_file(original, path, fs::copy_options::overwrite_existing);
        state.ResumeTiming();
        QOB::Archive archive(path, true);
        archive.Remove(QOB::Path("target"));
    }
    state.SetBytesProcessed(state.iterations() *
                            static_cast<std::int64_t>(fs::file_size(original)));
}

void BM_List30(benchmark::State& state) {
    const fs::path path = Dir() / "list.zip";
    if (!fs::exists(path)) {
        QOB::Archive archive(path, false);
        const auto content = Noise(4096, 5);
        for (int i = 0; i < 30; ++i) {
            archive.Insert(QOB::Path("Settings/entry" + std::to_string(i) + ".xml"), content.data(),
                           content.size(), 16384);
        }
    }
    QOB::Archive archive(path, true);
    for (auto _ : state) {
        benchmark::DoNotOptimize(archive.List());
    }
}

BENCHMARK(BM_ReadAndCrcSource)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Insert100MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Update16KiB)->Arg(2)->Arg(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RemoveFirst)->Arg(200)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_List30)->Unit(benchmark::kMicrosecond);

} // namespace
