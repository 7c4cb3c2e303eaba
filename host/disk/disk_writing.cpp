#include "host/disk/disk_writing.h"

#include <cassert>

#include "yx/error.h"

namespace kelm::host {

DiskWriting::DiskWriting(CVMDKDisk& disk, DiskLayout const& layout, SyncWatch const& syncWatch,
                         ContentIDChange& contentIDChange, DigestRemoval& digestRemoval,
                         ExtentFiles& files, ExtentRoom& room, TableLimit& tableLimit,
                         UnflushedGrains& unflushed, StoredView& storedView)
    : m_disk(disk),
      m_layout(layout),
      m_syncWatch(syncWatch),
      m_contentIDChange(contentIDChange),
      m_digestRemoval(digestRemoval),
      m_files(files),
      m_room(room),
      m_tableLimit(tableLimit),
      m_unflushed(unflushed),
      m_storedView(storedView) {}

void DiskWriting::verifyMayWrite(__int64 positionBytes, __int64 bytes) {
    m_disk.seek(positionBytes);
    if (bytes > m_layout.getSizeBytes() - positionBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                           yx::CProps()
                               .add("mainFileURI", m_disk.getMainFileURI().toString(true))
                               .add("position", yx::toString(positionBytes))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    // A write of nothing is refused where a write is, and else does nothing.
    m_disk.write(nullptr, 0);
}

void DiskWriting::reserveRoom(__int64 positionBytes, __int64 bytes) {
    m_tableLimit.keep();
    m_room.reserve(positionBytes, bytes);
}

void DiskWriting::prepareChange(__int64 positionBytes, __int64 bytes, Content content) {
    assert(positionBytes >= 0 && positionBytes + bytes <= m_layout.getSizeBytes());
    if (content == Content::Changes)
        m_contentIDChange.ensureDone();
    else
        m_digestRemoval.ensureDone();
    m_files.makeReached(positionBytes, bytes);
}

/// Puts the disk to a place. That brings the changes of the grain before it to the file, and may
/// fail; the grain here is then unchanged, and counts as stored.
void DiskWriting::beginChangeOfGrain(__int64 positionBytes) {
    m_disk.seek(positionBytes);
    m_disk.isGrainWrittenAndIndependentOfParent();
    m_unflushed.add(positionBytes / m_layout.getGrainSizeBytes());
}

void DiskWriting::write(__int64 positionBytes, void const* buffer, int bytes, Content content) {
    prepareChange(positionBytes, bytes, content);
    auto const* source = static_cast<unsigned char const*>(buffer);
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        beginChangeOfGrain(partBytes);
        if (content == Content::Changes)
            m_hasUnflushedWrites = true;
        m_disk.write(source, size);
        source += size;
    });
}

void DiskWriting::beginWholeGrain(__int64 grainIndex, Content content) {
    assert((grainIndex + 1) * m_layout.getGrainSizeBytes() <= m_layout.getSizeBytes());
    __int64 const positionBytes = grainIndex * m_layout.getGrainSizeBytes();
    prepareChange(positionBytes, m_layout.getGrainSizeBytes(), content);
    beginChangeOfGrain(positionBytes);
}

void DiskWriting::writePrepared(__int64 grainIndex, yx::TBuffer<unsigned char> const& data,
                                Content content) {
    beginWholeGrain(grainIndex, content);
    m_disk.writePreparedGrainData(data);
}

void DiskWriting::writeEnciphered(__int64 grainIndex, yx::TBuffer<unsigned char> const& data,
                                  Content content) {
    beginWholeGrain(grainIndex, content);
    m_disk.writeEncipheredGrainData(data);
}

void DiskWriting::flush() {
    try {
        m_syncWatch.verifyNoneFailed();
        m_disk.flushChanges();
    } catch (...) {
        m_unflushed.noteFailure();
        throw;
    }
    // A stream that was left may have met the failure without a word.
    m_syncWatch.verifyNoneFailed();
    m_hasUnflushedWrites = false;
    m_unflushed.clear();
    m_storedView.close();
    assert(m_unflushed.isEmpty());
}

} // namespace kelm::host
