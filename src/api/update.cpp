// QOB_Update: merges a new set of companion files into a package and rewrites its manifests.
#include "api/operations.hpp"
#include "api/package_files.hpp"
#include "api/record_validation.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "archive/transaction.hpp"
#include "package/current_info.hpp"
#include "package/entry_list.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_writer.hpp"
#include "package/package_content.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/utf8_path.hpp"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace QOB {
namespace {

// One companion of the new file set that has content, with its name inside the package.
// Slot is its place in the working description: the single entry of its kind, or for a
// profile its index among the new ones.
struct Step {
    const QOB_EntryInfo* incoming;
    EntryKind kind;
    std::uint32_t slot;
    bool compact;
    std::string entryPath;
};

// Names every companion before anything is written, so that a name the package could not
// hold refuses the whole call. An absent new file leaves the package's file of that kind as
// it was.
void Plan(std::vector<Step>& steps, const QOB_EntryInfo& incoming, EntryKind kind,
          std::string_view base, std::uint32_t slot = 0, bool compact = false) {
    if (ValidateData(incoming) != SUCCESS) {
        return;
    }
    steps.push_back({&incoming, kind, slot, compact, InternalEntryPath(incoming, kind, base)});
}

QOB_EntryInfo& Slot(QOB_ImageFiles& current, const Step& step, std::uint32_t oldLccs,
                    std::uint32_t oldIccs) {
    switch (step.kind) {
    case EntryKind::Proxy:
        return current.proxy;
    case EntryKind::Settings:
        return current.settings;
    case EntryKind::Lcc:
        return current.pLccs[oldLccs + step.slot];
    case EntryKind::Icc:
        return current.pIccs[oldIccs + step.slot];
    case EntryKind::Mask:
        return current.mask;
    case EntryKind::Hair:
        return current.hair;
    case EntryKind::Raw:
        break;
    }
    throw Exception(INTERNAL_INCONSISTENCY, "invalid entry type");
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

// A heap copy of the host's description, lists included, that the call works on: the host's
// record is only replaced once the change is committed, so a failure leaves it as it was.
struct WorkingInfoDeleter {
    void operator()(QOB_PackageInfo* info) const noexcept {
        FreeEntryList(info->files.pLccs);
        FreeEntryList(info->files.pIccs);
        delete info;
    }
};
using WorkingInfo = std::unique_ptr<QOB_PackageInfo, WorkingInfoDeleter>;

QOB_EntryInfo* CopyList(const QOB_EntryInfo* entries, std::uint32_t count) {
    if (count == 0) {
        return nullptr; // an empty list is a null one, as the host's record has it
    }
    QOB_EntryInfo* copy = AllocateEntryList(count);
    std::memcpy(copy, entries, static_cast<std::size_t>(count) * sizeof(QOB_EntryInfo));
    return copy;
}

WorkingInfo CopyInfo(const QOB_PackageInfo& info) {
    WorkingInfo copy(new QOB_PackageInfo);
    std::memcpy(copy.get(), &info, sizeof info);
    copy->files.pLccs = nullptr;
    copy->files.pIccs = nullptr;
    copy->files.pLccs = CopyList(info.files.pLccs, info.files.uLccCount);
    copy->files.pIccs = CopyList(info.files.pIccs, info.files.uIccCount);
    return copy;
}

// Hands the committed description to the host, releasing the lists it replaces.
void HandBack(WorkingInfo work, QOB_PackageInfo& info) noexcept {
    QOB_EntryInfo* lccs = info.files.pLccs;
    QOB_EntryInfo* iccs = info.files.pIccs;
    std::memcpy(&info, work.get(), sizeof info);
    work->files.pLccs = nullptr;
    work->files.pIccs = nullptr;
    FreeEntryList(lccs);
    FreeEntryList(iccs);
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
    // Optimistic concurrency: a description read before another call changed the package
    // (or one of another package, or one never read) would write manifests that disagree
    // with the zip. Refused before anything is written; the host reads again and retries.
    if (!DescribesPackage(archive, args->info)) {
        throw Exception(INVALID_PARAMETER,
                        "current info does not describe the package as it is now: read the "
                        "package again with QOB_GetPackageInfo");
    }
    WorkingInfo work = CopyInfo(args->info);
    QOB_PackageInfo& info = *work;
    const std::string base(ImageBaseName(info.files.raw));
    QOB_ImageFiles& current = info.files;
    const QOB_ImageFiles& incoming = args->files;

    // Fixed order: proxy, settings, each new LCC, each new ICC, then the masks, which give
    // space back when they shrink a lot.
    std::vector<Step> steps;
    Plan(steps, incoming.proxy, EntryKind::Proxy, base);
    Plan(steps, incoming.settings, EntryKind::Settings, base);
    for (std::uint32_t i = 0; i < incoming.uLccCount; ++i) {
        Plan(steps, incoming.pLccs[i], EntryKind::Lcc, base, i);
    }
    for (std::uint32_t i = 0; i < incoming.uIccCount; ++i) {
        Plan(steps, incoming.pIccs[i], EntryKind::Icc, base, i);
    }
    Plan(steps, incoming.mask, EntryKind::Mask, base, 0, true);
    Plan(steps, incoming.hair, EntryKind::Hair, base, 0, true);

    const std::uint32_t oldLccs = current.uLccCount;
    const std::uint32_t oldIccs = current.uIccCount;
    current.pLccs = GrowList(current.uLccCount, current.pLccs, incoming.uLccCount);
    current.pIccs = GrowList(current.uIccCount, current.pIccs, incoming.uIccCount);
    for (const Step& step : steps) {
        QOB_EntryInfo& slot = Slot(current, step, oldLccs, oldIccs);
        if (!CopyToField(slot.szPath, step.entryPath.c_str())) {
            throw Exception(INVALID_PARAMETER, "entryPath too long");
        }
        const bool profile = step.kind == EntryKind::Lcc || step.kind == EntryKind::Icc;
        if (profile && !CopyToField(slot.szIdentifier, step.incoming->szIdentifier)) {
            throw Exception(INVALID_PARAMETER, "fileIdSrc too long");
        }
    }
    // Every manifest is generated before the first byte is written, so a manifest that
    // would not fit stops the call with the package untouched.
    GenerateManifestInMem(&info);

    for (const Step& step : steps) {
        // The new entry is the source, and its reserved space is what the host asks to keep
        // behind the content if the entry has to be inserted again (masks shrink this way).
        UpdateFileInPackage(archive, *step.incoming, Path(step.entryPath), step.compact);
    }
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        PutManifestInZip(archive, ManifestText(info, row), kManifestNames[row], false);
    }
    archive.Close();
    transaction.Commit();
    HandBack(std::move(work), args->info);
}

} // namespace QOB
