// Reads a package whose primary manifest is arbitrary text through the query exports, as a
// host would: package info (and its release), the package test and an LCC look-up. Whatever
// the text says, every call must return a result code and leave a record that holds
// NUL-terminated fields and lists that match their counts.
#include "archive/archive.hpp"
#include "archive/path.hpp"
#include "support/log.hpp"

#include <qob/qob.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void Quiet(int /*level*/, const char* /*text*/, void* /*user*/) {}

// One scratch directory per process (named by the start time, so that parallel fuzzing
// jobs do not meet), removed when the process ends normally.
class Scratch {
public:
    Scratch() {
        QOB::SetLogSink(&Quiet, nullptr);
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        dir_ = fs::temp_directory_path() / ("qob_package_info_fuzz_" + std::to_string(stamp));
        fs::create_directories(dir_);
        package_ = dir_ / "fuzz.qob";
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    const fs::path& package() const { return package_; }

private:
    fs::path dir_;
    fs::path package_;
};

bool Terminated(const char* field, std::size_t size) {
    return std::memchr(field, '\0', size) != nullptr;
}

void CheckEntry(const QOB_EntryInfo& entry) {
    Check(Terminated(entry.szPath, sizeof entry.szPath));
    Check(Terminated(entry.szSecondPath, sizeof entry.szSecondPath));
    Check(Terminated(entry.szIdentifier, sizeof entry.szIdentifier));
    Check(entry.uBufferLength == entry.uStoredSize);
}

void CheckInfo(const QOB_PackageInfo& info) {
    for (const auto& text : info.szManifests) {
        Check(Terminated(text, sizeof text));
    }
    const QOB_ImageFiles& files = info.files;
    for (const QOB_EntryInfo* entry :
         {&files.raw, &files.settings, &files.proxy, &files.mask, &files.hair}) {
        CheckEntry(*entry);
    }
    Check((files.uLccCount == 0) == (files.pLccs == nullptr));
    Check((files.uIccCount == 0) == (files.pIccs == nullptr));
    for (std::uint32_t i = 0; i < files.uLccCount; ++i) {
        CheckEntry(files.pLccs[i]);
    }
    for (std::uint32_t i = 0; i < files.uIccCount; ++i) {
        CheckEntry(files.pIccs[i]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Scratch scratch;
    const fs::path& file = scratch.package();
    const std::string path = file.string();
    {
        std::error_code ignored;
        fs::remove(file, ignored);
        QOB::Archive archive(file, false);
        const std::byte raw[] = {std::byte{'r'}, std::byte{'a'}, std::byte{'w'}};
        archive.Insert(QOB::Path("a.raw"), raw, sizeof raw, 0);
        // The archive wants a pointer even for no content; the replay passes null for an
        // empty file.
        const auto* text = size > 0 ? reinterpret_cast<const std::byte*>(data) : raw;
        archive.Insert(QOB::Path("manifest.xml"), text, size, QOB_MANIFEST_SIZE);
    }

    const auto info = std::make_unique<QOB_PackageInfo>();
    Check(QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO) == SUCCESS);
    Check(path.size() < sizeof info->szPackagePath);
    std::memcpy(info->szPackagePath, path.c_str(), path.size() + 1);
    const QobErrorCode_e read = QOB_GetPackageInfo(info.get());
    Check(read <= SUCCESS);
    if (read == SUCCESS) {
        CheckInfo(*info);
    }
    Check(QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO) == SUCCESS);

    const QobErrorCode_e isQob = QOB_IsQob(path.c_str());
    Check(isQob <= SUCCESS);

    QOB_EntryInfo entry;
    Check(QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO) == SUCCESS);
    const QobErrorCode_e lcc = QOB_GetLensCastCalibInfo(path.c_str(), "L1", &entry);
    Check(lcc <= SUCCESS);
    CheckEntry(entry);
    // The look-up reads the package the same way: it can only succeed where reading did.
    Check(lcc != SUCCESS || read == SUCCESS);
    return 0;
}
