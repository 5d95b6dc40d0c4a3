// QOB_Constructor and QOB_Destructor: bad types, and who owns the lists.
#include "common/test_files.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// The list pointers sit 4 bytes off their natural alignment in the packed records: read them
// by value, never bind a reference to them.
QOB_EntryInfo* Loaded(QOB_EntryInfo* pointer) {
    return pointer;
}

TEST(RecordLifecycle, BadTypesAreRefusedAndLeaveTheRecordAlone) {
    std::vector<unsigned char> bytes(sizeof(QOB_EntryInfo), 0x5A);
    for (int type : {6, -1, 100}) {
        SCOPED_TRACE(type);
        qobtest::LogCapture log(&QOB_SetLogFn);
        EXPECT_EQ(QOB_Constructor(bytes.data(), static_cast<QOB_ObjectType>(type)),
                  INVALID_PARAMETER);
        EXPECT_TRUE(log.Contains("[INVALID_PARAMETER] invalid QOB_ObjectType variant"));
        EXPECT_EQ(QOB_Destructor(bytes.data(), static_cast<QOB_ObjectType>(type)),
                  INVALID_PARAMETER);
    }
    EXPECT_EQ(bytes, std::vector<unsigned char>(sizeof(QOB_EntryInfo), 0x5A));
    EXPECT_EQ(QOB_Constructor(nullptr, static_cast<QOB_ObjectType>(6)), INVALID_POINTER);
}

TEST(RecordLifecycle, DestructorFreesPackageInfoListsOnce) {
    auto info = std::make_unique<QOB_PackageInfo>();
    ASSERT_EQ(QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    // Lists as the library hands them out: allocated with the C allocator.
    info->files.uLccCount = 2;
    info->files.pLccs = static_cast<QOB_EntryInfo*>(std::calloc(2, sizeof(QOB_EntryInfo)));
    info->files.uIccCount = 1;
    info->files.pIccs = static_cast<QOB_EntryInfo*>(std::calloc(1, sizeof(QOB_EntryInfo)));
    ASSERT_EQ(QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    EXPECT_EQ(info->files.uLccCount, 0u);
    EXPECT_EQ(Loaded(info->files.pLccs), nullptr);
    EXPECT_EQ(info->files.uIccCount, 0u);
    EXPECT_EQ(Loaded(info->files.pIccs), nullptr);
    // The second call sees counts of 0: harmless (a double free would show under ASan).
    EXPECT_EQ(QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);

    // Count 0 with a pointer: left untouched.
    QOB_EntryInfo sentinel;
    info->files.pLccs = &sentinel;
    EXPECT_EQ(QOB_Destructor(info.get(), QOB_OBJECT_PACKAGE_INFO), SUCCESS);
    EXPECT_EQ(Loaded(info->files.pLccs), &sentinel);

    // Other record types never release lists: those belong to the host.
    auto args = std::make_unique<QOB_CreateArgs>();
    ASSERT_EQ(QOB_Constructor(args.get(), QOB_OBJECT_CREATE_ARGS), SUCCESS);
    args->files.uLccCount = 1;
    args->files.pLccs = &sentinel;
    EXPECT_EQ(QOB_Destructor(args.get(), QOB_OBJECT_CREATE_ARGS), SUCCESS);
    EXPECT_EQ(Loaded(args->files.pLccs), &sentinel);
    EXPECT_EQ(args->files.uLccCount, 1u);
}

} // namespace
