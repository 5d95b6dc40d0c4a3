// The scratch directory every benchmark program writes its fixtures into: made once per
// process with the library's log silenced, removed with its content when the program ends.
#pragma once

#include "support/log.hpp"

#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>

namespace qobbench {

inline const std::filesystem::path& ScratchDir() {
    struct Scratch {
        Scratch() {
            QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
            const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
            dir = std::filesystem::temp_directory_path() / ("qob_bench_" + std::to_string(stamp));
            std::filesystem::create_directories(dir);
        }
        ~Scratch() {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        }
        std::filesystem::path dir;
    };
    static const Scratch scratch;
    return scratch.dir;
}

} // namespace qobbench
