// What the package tests do as a host: entries from files or memory, a package info record
// that frees its lists, and the consistency every package must keep.
#pragma once

#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace qobtest {

inline QOB_EntryInfo FileEntry(const std::filesystem::path& path, std::uint32_t reserve = 0,
                               const char* id = "") {
    QOB_EntryInfo entry{};
    std::strcpy(entry.szPath, path.string().c_str());
    std::strcpy(entry.szIdentifier, id);
    entry.uReservedSpace = reserve;
    entry.ePackingType = QOB_PACK_FROM_FILE;
    return entry;
}

inline QOB_EntryInfo MemoryEntry(const char* name, const std::string& bytes,
                                 std::uint32_t reserve = 0, const char* id = "") {
    QOB_EntryInfo entry{};
    std::strcpy(entry.szPath, name);
    std::strcpy(entry.szIdentifier, id);
    entry.uReservedSpace = reserve;
    entry.ePackingType = QOB_PACK_FROM_MEMORY;
    entry.pBuffer = bytes.data();
    entry.uBufferLength = static_cast<std::uint32_t>(bytes.size());
    entry.uStoredSize = entry.uBufferLength;
    return entry;
}

struct Info {
    Info() : record(std::make_unique<QOB_PackageInfo>()) {
        EXPECT_EQ(QOB_Constructor(record.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    }
    ~Info() { QOB_Destructor(record.get(), QOB_OBJECT_PACKAGE_INFO); }
    // Reads into the record as it stands: the library empties it first.
    QobErrorCode_e Read(const std::filesystem::path& file) {
        std::strcpy(record->szPackagePath, file.string().c_str());
        return QOB_GetPackageInfo(record.get());
    }
    QOB_ImageFiles& files() { return record->files; }
    std::unique_ptr<QOB_PackageInfo> record;
};

// Every path of the image's files, as the manifest names them.
inline std::set<std::string> NamedPaths(Info& info) {
    std::set<std::string> paths;
    auto& f = info.files();
    for (const auto* e : {&f.raw, &f.settings, &f.proxy, &f.mask, &f.hair}) {
        paths.insert(e->szPath);
    }
    for (std::uint32_t i = 0; i < f.uLccCount; ++i) {
        paths.insert(f.pLccs[i].szPath);
    }
    for (std::uint32_t i = 0; i < f.uIccCount; ++i) {
        paths.insert(f.pIccs[i].szPath);
    }
    paths.erase("");
    return paths;
}

// The package reads back, every path the manifest names is an entry of the zip, and every
// entry other than the manifests is one the manifest names: an extraction of everything
// yields exactly one file per named path. Names too long to extract on disk (the extracted
// name repeats the stem) skip that last part.
inline void ExpectConsistent(const std::filesystem::path& package, bool extractAll = true) {
    SCOPED_TRACE(package.string());
    Info info;
    ASSERT_EQ(info.Read(package), SUCCESS);
    const std::set<std::string> named = NamedPaths(info);
    auto extract = std::make_unique<QOB_ExtractArgs>();
    QOB_Constructor(extract.get(), QOB_OBJECT_EXTRACT_ARGS);
    std::strcpy(extract->szPackagePath, package.string().c_str());
    for (const std::string& path : named) {
        std::strcpy(extract->szEntryPath, path.c_str());
        std::string buffer(1 << 20, '\0');
        extract->eMode = QOB_EXTRACT_TO_BUFFER;
        extract->pBuffer = buffer.data();
        extract->uBufferSize = static_cast<std::uint32_t>(buffer.size());
        EXPECT_EQ(QOB_Extract(extract.get()), SUCCESS) << "named but missing: " << path;
    }
    if (!extractAll) {
        return;
    }
    TempDir out;
    std::strcpy(extract->szDestination, (out.path() / "all").string().c_str());
    extract->eMode = QOB_EXTRACT_ALL;
    ASSERT_EQ(QOB_Extract(extract.get()), SUCCESS);
    std::size_t files = 0;
    for (const auto& item : std::filesystem::recursive_directory_iterator(out.path())) {
        files += item.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, named.size()) << "entries the manifest does not name";
}

} // namespace qobtest
