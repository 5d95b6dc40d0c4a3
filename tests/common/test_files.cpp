#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace qobtest {

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    std::random_device random;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = info != nullptr ? info->name() : "qob";
    path_ = std::filesystem::temp_directory_path() /
            ("qob-test-" + name + "-" + std::to_string(random()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path.string());
    }
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string RandomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 engine(seed);
    std::string bytes(size, '\0');
    for (auto& byte : bytes) {
        byte = static_cast<char>(engine() & 0xFF);
    }
    return bytes;
}

LogCapture::LogCapture(SetSinkFn set) : set_(set) {
    set_(&LogCapture::Sink, this);
    lines.clear(); // drop the "logging is ready" announcement
}

void SilentSink(int, const char*, void*) {}

LogCapture::~LogCapture() {
    set_(&SilentSink, nullptr);
}

void LogCapture::Sink(int level, const char* text, void* user) {
    static_cast<LogCapture*>(user)->lines.push_back({level, text});
}

bool LogCapture::Contains(const std::string& text) const {
    return Count(text) > 0;
}

std::size_t LogCapture::Count(const std::string& text) const {
    std::size_t count = 0;
    for (const auto& line : lines) {
        if (line.text.find(text) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

int Run(const std::string& command) {
    const int status = std::system(command.c_str());
#if defined(_WIN32)
    return status;
#else
    if (status == -1) {
        return -1;
    }
    return (status & 0x7F) == 0 ? (status >> 8) & 0xFF : -1;
#endif
}

std::string Python() {
    return QOB_PYTHON;
}

} // namespace qobtest
