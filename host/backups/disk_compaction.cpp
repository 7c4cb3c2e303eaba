#include "host/backups/disk_compaction.h"

#include <algorithm>
#include <set>

#include "host/backups/disk_note.h"
#include "host/backups/disk_parts.h"
#include "host/check/undo_file.h"
#include "host/store/folder_access.h"
#include "host/store/free_space.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

[[noreturn]] void throwCannotCompact(yx::String const& message, yx::CURI const& mainFile) {
    throw yx::CIOError(yx::CIOError::NotAllowed, message,
                       yx::CProps().add("uri", mainFile.toString(true)), nullptr);
}

yx::P<yx::IIOStream> openExtentToCompact(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    return openVMDKFileStream(fileSystem, file, yx::IIOStream::ReadOnly);
}

} // namespace

DiskCompaction::DiskCompaction(yx::IFileSystem* fileSystem, DurableFiles& steps,
                               yx::CURI const& mainFile, DiskCompactionOptions const& options)
    : m_fileSystem(fileSystem),
      m_steps(steps),
      m_mainFile(mainFile.toNormalized()),
      m_options(options) {}

std::vector<CompactedFile> DiskCompaction::run() {
    verifyNothingIsUnfinished();
    openDisk();
    for (DiskExtent const& extent : m_disk->listExtents())
        verifyMayWriteInFolderOf(extent.uri);
    removeLeftovers();
    planFiles();
    verifyRoom();
    compactFiles();
    std::vector<CompactedFile> result;
    for (PlannedFile const& file : m_files) {
        CompactionPlan const& plan = file.plan;
        result.push_back({file.extent.uri, plan.bytesBefore,
                          plan.isWorthwhile() ? plan.bytesAfter : plan.bytesBefore, plan.obstacle});
    }
    return result;
}

/// For writing, which keeps everybody else away and puts right what a power cut has left.
void DiskCompaction::openDisk() {
    if (m_fileSystem->fileExists(m_mainFile)) {
        verifyOwnsFiles(m_fileSystem.get(), readDiskParts(m_fileSystem.get(), m_mainFile),
                        m_options.trust);
    }
    m_disk = std::make_unique<SafeDisk>(m_fileSystem.get(), m_mainFile, yx::IIOStream::ReadWrite,
                                        m_options.password, -1, CVMDKGrainTableCache::kDefaultLimit,
                                        m_options.trust);
    m_key = unwrapDiskKey(*m_disk->getDisk().getDescriptor(), m_mainFile, m_options.password);
    try {
        m_digests = DiskDigests::open(m_fileSystem.get(), *m_disk);
    } catch (yx::CIOError const& error) {
        yx::logWarning(error, "Cannot read the digests of the disk, so stored zeros stay.", "");
        m_areDigestsDamaged = true;
    }
}

void DiskCompaction::verifyNothingIsUnfinished() const {
    yx::String const otherWork = DiskNote::describe(m_fileSystem.get(), m_mainFile);
    if (!otherWork.isEmpty())
        throwCannotCompact(otherWork, m_mainFile);
    if (m_fileSystem->fileExists(UndoFile::nameAtWork(m_mainFile)))
        throwCannotCompact("A repair of the disk did not come to its end.", m_mainFile);
}

void DiskCompaction::removeLeftovers() const {
    for (DiskExtent const& extent : m_disk->listExtents()) {
        yx::CURI const leftover = unfinishedNameOf(extent.uri);
        if (m_fileSystem->fileExists(leftover))
            m_steps.remove(leftover);
    }
}

void DiskCompaction::planFiles() {
    std::set<yx::CURI> seen;
    __int64 totalBytes = 0;
    for (DiskExtent const& extent : m_disk->listExtents()) {
        if (m_fileSystem->fileExists(extent.uri) && seen.insert(extent.uri).second) {
            m_files.push_back({extent, {}});
            totalBytes += openExtentToCompact(m_fileSystem.get(), extent.uri)->getLength();
        }
    }
    TransferProgress progress(m_options.work, totalBytes);
    __int64 doneBytes = 0;
    for (PlannedFile& file : m_files) {
        yx::P<yx::IIOStream> const source =
            openExtentToCompact(m_fileSystem.get(), file.extent.uri);
        file.plan = planCompaction(*source, describe(file.extent),
                                   [&](__int64 bytes) { progress.advanceTo(doneBytes + bytes); });
        doneBytes += file.plan.bytesBefore;
    }
    progress.finish(totalBytes);
}

ExtentToCompact DiskCompaction::describe(DiskExtent const& extent) {
    ExtentToCompact described{extent.getStartGrainIndex(), m_key, {}};
    if (!m_disk->hasParent() && !m_areDigestsDamaged) {
        __int64 const grainSizeBytes = m_disk->getFileGrain(extent.startBytes).wholeSizeBytes;
        described.mayDropZeros = [this, startBytes = extent.startBytes,
                                  grainSizeBytes](__int64 grain) {
            return mayDropZeros(startBytes + grain * grainSizeBytes, grainSizeBytes);
        };
    }
    return described;
}

/// Digests that are up to date say which grains the disk holds.
bool DiskCompaction::mayDropZeros(__int64 diskPositionBytes, __int64 grainSizeBytes) {
    if (!m_digests.areUpToDate())
        return true;
    if (grainSizeBytes != m_disk->getGrainSizeBytes())
        return false;
    try {
        return !m_digests.file->find(diskPositionBytes / grainSizeBytes);
    } catch (yx::CIOError const& error) {
        error.nop();
        return false;
    }
}

void DiskCompaction::verifyRoom() const {
    for (PlannedFile const& file : m_files) {
        if (!file.plan.isWorthwhile())
            continue;
        yx::CURI const folder = file.extent.uri.getParent();
        std::optional<__int64> const freeBytes = getFreeBytes(folder);
        if (!freeBytes || file.plan.bytesAfter <= *freeBytes)
            continue;
        throw yx::CIOError(yx::CIOError::NoSpace,
                           "There is not enough room for the compacted file.",
                           yx::CProps()
                               .add("uri", folder.toString(true))
                               .add("neededBytes", yx::toString(file.plan.bytesAfter))
                               .add("freeBytes", yx::toString(*freeBytes)),
                           nullptr);
    }
}

void DiskCompaction::compactFiles() {
    std::vector<PlannedFile const*> worthwhile;
    __int64 totalBytes = 0;
    for (PlannedFile const& file : m_files) {
        if (!file.plan.isWorthwhile())
            continue;
        worthwhile.push_back(&file);
        totalBytes += 2 * file.plan.bytesAfter;
    }
    if (worthwhile.empty())
        return;
    // Its lock is the one that all look at first.
    std::stable_partition(worthwhile.begin(), worthwhile.end(), [this](PlannedFile const* file) {
        return file->extent.uri != m_mainFile;
    });
    m_steps.remove(UndoFile::nameWhenDone(m_mainFile));
    TransferProgress progress(m_options.work, totalBytes);
    for (PlannedFile const* file : worthwhile) {
        compactFile(*file, progress);
        m_doneBytes += 2 * file->plan.bytesAfter;
    }
    progress.finish(totalBytes);
}

void DiskCompaction::compactFile(PlannedFile const& file, TransferProgress& progress) {
    yx::P<yx::IIOStream> const source = openExtentToCompact(m_fileSystem.get(), file.extent.uri);
    m_steps.remake(file.extent.uri, [&](yx::CURI const& newFile) {
        yx::P<yx::IIOStream> target =
            openVMDKFileStream(m_fileSystem.get(), newFile, yx::IIOStream::ReadWrite);
        writeCompacted(*source, file.plan, *target,
                       [&](__int64 bytes) { progress.advanceTo(m_doneBytes + bytes); });
        target->close();
        target = openVMDKFileStream(m_fileSystem.get(), newFile, yx::IIOStream::ReadOnly);
        verifyCompacted(*source, file.plan, *target, [&](__int64 bytes) {
            progress.advanceTo(m_doneBytes + file.plan.bytesAfter + bytes);
        });
        target->close();
    });
}

} // namespace kelm::host
