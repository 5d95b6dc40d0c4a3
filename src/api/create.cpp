// QOB_Create: a new package from a raw image and its companion files, then all manifests.
#include "api/operations.hpp"
#include "api/package_files.hpp"
#include "api/package_info_ptr.hpp"
#include "api/record_validation.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "archive/transaction.hpp"
#include "package/entry_list.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_writer.hpp"
#include "package/package_content.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/progress.hpp"
#include "support/utf8_path.hpp"

#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace QOB {
namespace {

// The working description: the host's entries copied, lists in arrays of our own.
PackageInfoPtr ConvertPackingInfo(const QOB_CreateArgs& args) {
    PackageInfoPtr info(new QOB_PackageInfo());
    QOB_ImageFiles& files = info->files;
    const QOB_ImageFiles& source = args.files;
    files.raw = source.raw;
    files.settings = source.settings;
    files.proxy = source.proxy;
    files.mask = source.mask;
    files.hair = source.hair;
    files.uLccCount = source.uLccCount;
    if (source.uLccCount > 0) {
        files.pLccs = AllocateEntryList(source.uLccCount);
        std::memcpy(files.pLccs, source.pLccs, source.uLccCount * sizeof(QOB_EntryInfo));
    }
    files.uIccCount = source.uIccCount;
    if (source.uIccCount > 0) {
        files.pIccs = AllocateEntryList(source.uIccCount);
        std::memcpy(files.pIccs, source.pIccs, source.uIccCount * sizeof(QOB_EntryInfo));
    }
    return info;
}

// One file to add and its name inside the package. Every name is formed and checked, and
// every manifest generated, before the package file exists: a name the package could not
// hold, or a manifest that would not fit, stops the call before anything is written.
struct PlannedFile {
    const QOB_EntryInfo* source;
    std::string entryPath;
};

// Plans source under its internal name and records that name in target. False when the
// source has no content to add (no such file, empty buffer).
bool Plan(std::vector<PlannedFile>& plan, const QOB_EntryInfo& source, QOB_EntryInfo& target,
          EntryKind kind, std::string_view base) {
    if (ValidateData(source) != SUCCESS) {
        target.szPath[0] = '\0'; // the manifests must not name a file the package lacks
        return false;
    }
    std::string entryPath = InternalEntryPath(source, kind, base);
    if (!CopyToField(target.szPath, entryPath.c_str())) {
        throw Exception(INVALID_PARAMETER, "entryPath too long");
    }
    plan.push_back({&source, std::move(entryPath)});
    return true;
}

// Why a file to pack from is not there: the system's reason, or that it is a folder.
std::error_code SourceProblem(const QOB_EntryInfo& source) {
    if (source.ePackingType != QOB_PACK_FROM_FILE || source.szPath[0] == '\0') {
        return {};
    }
    std::error_code cause;
    const std::filesystem::file_status status =
        std::filesystem::status(PathFromUtf8(source.szPath), cause);
    if (!cause && std::filesystem::is_directory(status)) {
        cause = std::make_error_code(std::errc::is_a_directory);
    }
    return cause;
}

// The bytes of content the create copies, for progress: what the host's files hold now.
std::uint64_t ContentBytes(const std::vector<PlannedFile>& plan) {
    std::uint64_t total = 0;
    for (const PlannedFile& file : plan) {
        if (file.source->ePackingType == QOB_PACK_FROM_MEMORY) {
            total += file.source->uBufferLength;
            continue;
        }
        std::error_code unknown;
        const std::uintmax_t size =
            std::filesystem::file_size(PathFromUtf8(file.source->szPath), unknown);
        total += unknown ? 0 : size;
    }
    return total;
}

} // namespace

void QOB_Create_Unlocked(const QOB_CreateArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Create_Unlocked");
    if (args == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RequireValid(*args);
    PackageInfoPtr info = ConvertPackingInfo(*args);

    const QOB_ImageFiles& from = args->files;
    QOB_ImageFiles& to = info->files;
    const std::string base(ImageBaseName(from.raw));
    std::vector<PlannedFile> plan;
    if (!Plan(plan, from.raw, to.raw, EntryKind::Raw, base)) {
        throw Exception(FILE_NOT_FOUND, "failed to add raw image to package",
                        SourceProblem(from.raw), from.raw.szPath);
    }
    // Every companion is optional: one that is absent is skipped.
    Plan(plan, from.proxy, to.proxy, EntryKind::Proxy, base);
    Plan(plan, from.settings, to.settings, EntryKind::Settings, base);
    for (std::uint32_t i = 0; i < from.uLccCount; ++i) {
        Plan(plan, from.pLccs[i], to.pLccs[i], EntryKind::Lcc, base);
    }
    for (std::uint32_t i = 0; i < from.uIccCount; ++i) {
        Plan(plan, from.pIccs[i], to.pIccs[i], EntryKind::Icc, base);
    }
    Plan(plan, from.mask, to.mask, EntryKind::Mask, base);
    Plan(plan, from.hair, to.hair, EntryKind::Hair, base);

    GenerateManifestInMem(info.get());

    ProgressScope progress(ProgressWanted() ? ContentBytes(plan) : 0);
    Transaction transaction(PathFromUtf8(args->szPackagePath), Transaction::Kind::Create);
    Archive archive(PathFromUtf8(args->szPackagePath), false);
    for (const PlannedFile& file : plan) {
        AddFileToPackage(archive, *file.source, Path(file.entryPath));
    }
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        PutManifestInZip(archive, ManifestText(*info, row), kManifestNames[row], true);
    }
    archive.Close();
    transaction.Commit();
    progress.Finish();
}

} // namespace QOB
