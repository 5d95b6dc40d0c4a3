// QOB_Update: merges a new set of companion files into a package and rewrites its manifests.
#include "api/operations.hpp"
#include "api/package_files.hpp"
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
#include "support/utf8_path.hpp"

#include <string>

namespace QOB {
namespace {

struct UpdateContext {
    Archive& archive;
    std::string base;
};

// One companion: an absent new file leaves the package's file of that kind as it was.
void UpdateEntry(const UpdateContext& context, QOB_EntryInfo& current,
                 const QOB_EntryInfo& incoming, EntryKind kind, bool listItem, bool compact) {
    if (ValidateData(incoming) != SUCCESS) {
        return;
    }
    const std::string entryPath = InternalEntryPath(incoming, kind, context.base);
    if (!CopyToField(current.szPath, entryPath.c_str())) {
        throw Exception(INVALID_PARAMETER, "entryPath too long");
    }
    if (listItem && !CopyToField(current.szIdentifier, incoming.szIdentifier)) {
        throw Exception(INVALID_PARAMETER, "fileIdSrc too long");
    }
    // The new entry is the source, and its reserved space is what the host asks to keep
    // behind the content if the entry has to be inserted again (masks shrink back this way).
    UpdateFileInPackage(context.archive, incoming, Path(entryPath), compact);
}

// Appends count zeroed slots to a list of the working description; returns the list. The
// pointer fields of the packed records may sit off their natural alignment, so they are
// passed by value and assigned by the caller.
QOB_EntryInfo* GrowList(std::uint32_t& count, QOB_EntryInfo* entries, std::uint32_t added) {
    if (added == 0) {
        return entries;
    }
    entries = ResizeEntryList(entries, count, count + added);
    count += added;
    return entries;
}

} // namespace

void QOB_Update_Unlocked(QOB_UpdateArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Update_Unlocked");
    if (args == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RequireValid(*args);
    Transaction transaction(PathFromUtf8(args->szPackagePath), Transaction::Kind::Change);
    Archive archive(PathFromUtf8(args->szPackagePath), true);
    const UpdateContext context{archive, std::string(ImageBaseName(args->info.files.raw))};

    QOB_ImageFiles& current = args->info.files;
    const QOB_ImageFiles& incoming = args->files;
    const std::uint32_t oldLccs = current.uLccCount;
    const std::uint32_t oldIccs = current.uIccCount;
    current.pLccs = GrowList(current.uLccCount, current.pLccs, incoming.uLccCount);
    current.pIccs = GrowList(current.uIccCount, current.pIccs, incoming.uIccCount);

    UpdateEntry(context, current.proxy, incoming.proxy, EntryKind::Proxy, false, false);
    UpdateEntry(context, current.settings, incoming.settings, EntryKind::Settings, false, false);
    for (std::uint32_t i = 0; i < incoming.uLccCount; ++i) {
        UpdateEntry(context, current.pLccs[oldLccs + i], incoming.pLccs[i], EntryKind::Lcc, true,
                    false);
    }
    for (std::uint32_t i = 0; i < incoming.uIccCount; ++i) {
        UpdateEntry(context, current.pIccs[oldIccs + i], incoming.pIccs[i], EntryKind::Icc, true,
                    false);
    }
    // Masks give space back when they shrink a lot; the others keep theirs.
    UpdateEntry(context, current.mask, incoming.mask, EntryKind::Mask, false, true);
    UpdateEntry(context, current.hair, incoming.hair, EntryKind::Hair, false, true);

    GenerateManifestInMem(&args->info);
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        PutManifestInZip(archive, ManifestText(args->info, row), kManifestNames[row], false);
    }
    archive.Close();
    transaction.Commit();
}

} // namespace QOB
