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
#include <type_traits>

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

// A call record constructed, with the package path filled in.
template <typename Args> std::unique_ptr<Args> NewArgs(const std::filesystem::path& package) {
    constexpr QOB_ObjectType type = std::is_same_v<Args, QOB_CreateArgs> ? QOB_OBJECT_CREATE_ARGS
                                    : std::is_same_v<Args, QOB_UpdateArgs>
                                        ? QOB_OBJECT_UPDATE_ARGS
                                        : QOB_OBJECT_EXTRACT_ARGS;
    auto args = std::make_unique<Args>();
    EXPECT_EQ(QOB_Constructor(args.get(), type), SUCCESS);
    std::strcpy(args->szPackagePath, package.string().c_str());
    return args;
}

inline QobErrorCode_e ExtractAll(const std::filesystem::path& package,
                                 const std::filesystem::path& destination) {
    auto args = NewArgs<QOB_ExtractArgs>(package);
    std::strcpy(args->szDestination, destination.string().c_str());
    args->eMode = QOB_EXTRACT_ALL;
    return QOB_Extract(args.get());
}

// QOB_Update from the host's description, which then holds (and owns) what the call returned.
inline QobErrorCode_e UpdateFrom(Info& current, const std::filesystem::path& package,
                                 const QOB_ImageFiles& files) {
    auto update = NewArgs<QOB_UpdateArgs>(package);
    update->files = files;
    std::memcpy(&update->info, current.record.get(), sizeof(QOB_PackageInfo));
    const QobErrorCode_e result = QOB_Update(update.get());
    std::memcpy(current.record.get(), &update->info, sizeof(QOB_PackageInfo));
    return result;
}

// Every file the manifest names, in record order.
template <typename Fn> void ForEachNamed(Info& info, Fn&& fn) {
    auto& f = info.files();
    for (const auto* e : {&f.raw, &f.settings, &f.proxy, &f.mask, &f.hair}) {
        if (e->szPath[0] != '\0') {
            fn(*e);
        }
    }
    for (std::uint32_t i = 0; i < f.uLccCount + f.uIccCount; ++i) {
        fn(i < f.uLccCount ? f.pLccs[i] : f.pIccs[i - f.uLccCount]);
    }
}

inline std::set<std::string> NamedPaths(Info& info) {
    std::set<std::string> paths;
    ForEachNamed(info, [&](const QOB_EntryInfo& e) { paths.insert(e.szPath); });
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
    auto extract = NewArgs<QOB_ExtractArgs>(package);
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
    ASSERT_EQ(ExtractAll(package, out / "all"), SUCCESS);
    std::size_t files = 0;
    for (const auto& item : std::filesystem::recursive_directory_iterator(out.path())) {
        files += item.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, named.size()) << "entries the manifest does not name";
}

} // namespace qobtest
