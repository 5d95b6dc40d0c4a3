// Work on packages built to be expensive: extracting 65,535 entries (linear: each entry is
// read by its own record), and reading the package info of a manifest bomb (refused before
// it is inflated).
#include "archive/minizip/zip.hpp"
#include "support/log.hpp"

#include <qob/qob.h>

#include "bench_scratch.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace QOB::MiniZip;

const fs::path& Dir() {
    return qobbench::ScratchDir();
}

// Entries written through the zip layer in one session: one central directory at the end.
fs::path Build(const std::string& name, int count, const std::string& content, int method) {
    const fs::path file = Dir() / name;
    if (fs::exists(file)) {
        return file;
    }
    zipFile zip = zipOpen2(file.string().c_str(), APPEND_STATUS_CREATE, nullptr, nullptr);
    for (int i = 0; i < count; ++i) {
        const std::string entry =
            count == 1 ? "manifest.xml" : "d" + std::to_string(i % 64) + "/f" + std::to_string(i);
        zip_fileinfo info{};
        zipOpenNewFileInZip3(zip, entry.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, method, 9,
                             0, -15, 8, 0, nullptr, 0);
        zipWriteInFileInZip(zip, content.data(), static_cast<unsigned>(content.size()));
        zipCloseFileInZip(zip);
    }
    zipClose(zip, nullptr);
    return file;
}

void BM_ExtractAllEntries(benchmark::State& state) {
    const fs::path package = Build("many.qob", static_cast<int>(state.range(0)), "", 0);
    auto args = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(args.get(), QOB_OBJECT_EXTRACT_ARGS);
    std::strcpy(args->szPackagePath, package.string().c_str());
    const fs::path out = Dir() / "out";
    std::strcpy(args->szDestination, out.string().c_str());
    for (auto _ : state) {
        if (QOB_Extract(args.get()) != SUCCESS) {
            state.SkipWithError("extraction failed");
            break;
        }
        state.PauseTiming();
        fs::remove_all(out);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ExtractAllEntries)
    ->Arg(4096)
    ->Arg(65535)
    ->Iterations(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// A 256 MiB manifest deflated into a quarter megabyte: refused from its central record.
void BM_PackageInfoOfManifestBomb(benchmark::State& state) {
    const fs::path package = Build("bomb.qob", 1, std::string(256u << 20, ' '), 8);
    auto info = std::make_unique<QOB_PackageInfo>();
    QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    std::strcpy(info->szPackagePath, package.string().c_str());
    for (auto _ : state) {
        if (QOB_GetPackageInfo(info.get()) != CANNOT_READ_FILE_PCK) {
            state.SkipWithError("the bomb was not refused");
            break;
        }
    }
}
BENCHMARK(BM_PackageInfoOfManifestBomb)->Unit(benchmark::kMicrosecond);

} // namespace
