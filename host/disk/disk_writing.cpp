#include "host/disk/disk_writing.h"

#include <cassert>

#include "yx/error.h"

namespace kelm::host {

DiskWriting::DiskWriting(CVMDKDisk& disk, DiskLayout const& layout,
                         ContentIDChange& contentIDChange, ExtentFiles& files, ExtentRoom& room,
                         TableLimit& tableLimit)
    : m_disk(disk),
      m_layout(layout),
      m_contentIDChange(contentIDChange),
      m_files(files),
      m_room(room),
      m_tableLimit(tableLimit) {}

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
    m_files.makeReached(positionBytes, bytes);
}

void DiskWriting::write(__int64 positionBytes, void const* buffer, int bytes, Content content) {
    prepareChange(positionBytes, bytes, content);
    m_disk.seek(positionBytes);
    m_disk.write(buffer, bytes);
    if (content == Content::Changes)
        m_hasUnflushedWrites = true;
}

void DiskWriting::writePrepared(__int64 grainIndex, yx::TBuffer<unsigned char> const& data,
                                Content content) {
    assert(m_layout.isWholeGrain(grainIndex));
    __int64 const positionBytes = grainIndex * m_layout.getGrainSizeBytes();
    prepareChange(positionBytes, m_layout.getGrainSizeBytes(), content);
    m_disk.seek(positionBytes);
    m_disk.writePreparedGrainData(data);
}

void DiskWriting::flush() {
    m_disk.flushChanges();
    m_hasUnflushedWrites = false;
}

} // namespace kelm::host
