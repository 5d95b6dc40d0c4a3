// Any bytes as a package: open, list, read and extract every entry. Every failure must be
// a QOB::Exception (or, for entry names that are no UTF-8 or cannot be files, a system
// error), never a crash, a hang or an allocation the input does not explain.
#include "archive/archive.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>

namespace {

// One scratch directory per process, removed at exit.
struct WorkDir {
    WorkDir() {
        QOB::SetLogSink([](int, const char*, void*) {}, nullptr);
        path = std::filesystem::temp_directory_path() /
               ("qob-archive-fuzz-" + std::to_string(std::random_device()()));
        std::filesystem::create_directories(path);
    }
    ~WorkDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
};

// Only names that stay below the output directory are extracted.
bool StaysInside(const std::string& sanitized) {
    const std::filesystem::path path(sanitized);
    if (sanitized.empty() || path.is_absolute() || path.has_root_name()) {
        return false;
    }
    for (const auto& part : path) {
        if (part == "..") {
            return false;
        }
    }
    return true;
}

void Exercise(const std::filesystem::path& file, const std::filesystem::path& out) {
    QOB::Archive archive(file, true);
    for (const QOB::Entry& entry : archive.List()) {
        try {
            const QOB::Path path(entry.path);
            archive.Read(path);
            if (StaysInside(path.Sanitized())) {
                // By its own record, as whole-package extraction does.
                archive.Extract(entry, out,
                                std::filesystem::path(path.Sanitized()).lexically_normal());
            }
        } catch (const QOB::Exception&) {
        } catch (const std::system_error&) {
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const WorkDir work;
    const auto& dir = work.path;
    const auto file = dir / "input.zip";
    const auto out = dir / "out";
    {
        std::ofstream stream(file, std::ios::binary | std::ios::trunc);
        stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    try {
        Exercise(file, out);
    } catch (const QOB::Exception&) {
    } catch (const std::system_error&) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(out, ignored);
    std::filesystem::remove(file, ignored);
    return 0;
}
