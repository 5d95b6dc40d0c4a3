// Eight processes making a hundred mixed calls each on one package: afterwards it is a valid
// zip for us and for unzip, every entry reads back, and the manifests name only what the zip
// holds. Runs in a private mount namespace (its own /tmp, so its own machine-wide lock).
#include "archive/archive.hpp"
#include "common/test_files.hpp"

#include <qob/qob.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace qobtest;
namespace fs = std::filesystem;

QOB_EntryInfo FromMemory(const char* name, const std::string& content, std::uint32_t reserve) {
    QOB_EntryInfo entry{};
    std::strcpy(entry.szPath, name);
    entry.uReservedSpace = reserve;
    entry.ePackingType = QOB_PACK_FROM_MEMORY;
    entry.pBuffer = content.data();
    entry.uBufferLength = static_cast<std::uint32_t>(content.size());
    return entry;
}

// One process's calls: settings rewritten in place or outgrowing their space, and reads.
int Worker(const fs::path& package, std::uint32_t seed) {
    auto args = std::make_unique<QOB_UpdateArgs>();
    for (std::uint32_t i = 0; i < 100; ++i) {
        const std::uint32_t pick = (seed * 31 + i * 7) % 4;
        if (pick == 3) {
            if (QOB_IsQob(package.string().c_str()) != SUCCESS) {
                return 1;
            }
            continue;
        }
        QOB_Constructor(args.get(), QOB_OBJECT_UPDATE_ARGS);
        std::strcpy(args->szPackagePath, package.string().c_str());
        std::strcpy(args->info.szPackagePath, package.string().c_str());
        if (QOB_GetPackageInfo(&args->info) != SUCCESS) {
            return 2;
        }
        const std::string settings = RandomBytes(pick == 0 ? 500 : 3000 + (i % 5) * 2000, seed + i);
        args->files.settings = FromMemory("IMG_1.xmp", settings, 100);
        const QobErrorCode_e result = QOB_Update(args.get());
        QOB_Destructor(args.get(), QOB_OBJECT_UPDATE_ARGS);
        if (result != SUCCESS) {
            return 3;
        }
    }
    return 0;
}

TEST(Stress, EightProcessesOnOnePackage) {
    TempDir dir;
    const fs::path package = dir / "p.qob";
    const std::string raw = RandomBytes(200000, 1), proxy = RandomBytes(30000, 2);
    auto create = std::make_unique<QOB_CreateArgs>();
    QOB_Constructor(create.get(), QOB_OBJECT_CREATE_ARGS);
    create->files.raw = FromMemory("IMG_1.CR3", raw, 0);
    create->files.proxy = FromMemory("IMG_1.jpg", proxy, 0);
    std::strcpy(create->szPackagePath, package.string().c_str());
    ASSERT_EQ(QOB_Create(create.get()), SUCCESS);

    std::vector<pid_t> children;
    for (std::uint32_t p = 0; p < 8; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(Worker(package, p * 1000));
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << WEXITSTATUS(status);
    }

    std::set<std::string> names;
    {
        QOB::Archive archive(package, true);
        for (const auto& entry : archive.List()) {
            EXPECT_NO_THROW(archive.Read(QOB::Path(entry.path))) << entry.path;
            names.insert(entry.path);
        }
    }
    EXPECT_EQ(qobtest::Run("unzip -tqq '" + package.string() + "' >/dev/null 2>&1"), 0);
    auto info = std::make_unique<QOB_PackageInfo>();
    QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    std::strcpy(info->szPackagePath, package.string().c_str());
    ASSERT_EQ(QOB_GetPackageInfo(info.get()), SUCCESS);
    for (const QOB_EntryInfo* entry :
         {&info->files.raw, &info->files.settings, &info->files.proxy}) {
        EXPECT_EQ(names.count(entry->szPath), 1u) << entry->szPath;
    }
    EXPECT_EQ(names.size(), 3u + 23u);
    QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    EXPECT_FALSE(fs::exists(fs::path(package.string() + "-journal")));
}

} // namespace
