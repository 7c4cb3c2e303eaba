#include <algorithm>
#include <cstring>

#include "host/disk/safe_disk.h"
#include "host/disk/slot_repair.h"
#include "host/disk/trail_repair.h"
#include "kelm/format/constants.h"
#include "yx/log.h"
#include "yx/memory_file_system.h"

namespace kelm::host {

namespace {

/// Whether a file holds nothing but parts of `whole`, its first sector aside.
bool isPartOf(yx::TBuffer<unsigned char> const& whole, yx::TBuffer<unsigned char> const& part) {
    for (int at = kSectorSizeBytes; at < part.getUsed(); at += kSectorSizeBytes) {
        auto const size =
            static_cast<std::size_t>(std::min<int>(kSectorSizeBytes, part.getUsed() - at));
        if (!yx::isAllZero(part.getData() + at, size) &&
            std::memcmp(part.getData() + at, whole.getData() + at, size) != 0)
            return false;
    }
    return true;
}

} // namespace

/// Brings a file that is closed to the device, whoever wrote it, and its name too. A stream flushes
/// what is on its file only if it wrote there itself.
void SafeDisk::syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadWrite);
    unsigned char first = 0;
    stream->read(&first, 1);
    stream->seek(0);
    stream->write(&first, 1, nullptr);
    stream->flush();
    stream->close();
}

void SafeDisk::recoverFromPowerCut() {
    __int64 startBytes = 0;
    for (Extent& extent : m_extents) {
        DiskExtent const stretch{extent.uri, startBytes, extent.endBytes};
        startBytes = extent.endBytes;
        if (m_createsExtentFilesOnDemand && stretch.startBytes > 0)
            removeIfUnfinished(stretch);
        extent.isThere = m_fileSystem->fileExists(extent.uri);
        if (extent.isThere && m_disk->getCompressed())
            repairSlotsOf(stretch);
    }
}

void SafeDisk::removeIfUnfinished(DiskExtent const& extent) {
    if (!m_fileSystem->fileExists(extent.uri) || !isUnfinished(extent))
        return;
    yx::logWarning("Removing the unfinished extent file '" + extent.uri.toString(true) +
                   "'. It holds no data.");
    m_fileSystem->deleteFile(extent.uri, true);
}

/// Whether a file is a part of an empty extent file, as a power cut or a failing device leaves it
/// while the file is made. Such a file cannot be opened, and it holds no data.
bool SafeDisk::isUnfinished(DiskExtent const& extent) {
    auto const empty = yx::makeObject<yx::CMemoryFileSystem>();
    makeExtentFile(empty.get(), extent);
    yx::TBuffer<unsigned char> const whole = empty->getFile(extent.uri);
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), extent.uri, yx::IIOStream::ReadOnly);
    if (stream->getLength() > whole.getUsed())
        return false;
    yx::TBuffer<unsigned char> part(static_cast<int>(stream->getLength()), -1);
    stream->read(part.getData(), part.getUsed());
    bool const isWhole = part.getUsed() == whole.getUsed() &&
                         std::memcmp(part.getData(), whole.getData(),
                                     static_cast<std::size_t>(whole.getUsed())) == 0;
    return !isWhole && isPartOf(whole, part);
}

void SafeDisk::repairSlotsOf(DiskExtent const& extent) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), extent.uri, yx::IIOStream::ReadWrite);
    if (repairTrail(*stream))
        yx::logWarning("Repaired the end of the extent file '" + extent.uri.toString(true) + "'.");
    ExtentPlace place;
    place.startGrainIndex = extent.startBytes / getGrainSizeBytes();
    __int64 const count = repairSlots(*stream, place);
    if (count > 0) {
        yx::logWarning("Repaired the sizes of " + yx::toString(count) +
                       " slots in the extent file '" + extent.uri.toString(true) + "'.");
    }
    stream->close();
}

void SafeDisk::makeExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent) {
    yx::TBuffer<unsigned char> zeroBuffer(static_cast<int>(getGrainSizeBytes()), -1);
    yx::initMemory(zeroBuffer.getData(), 0, static_cast<std::size_t>(zeroBuffer.getUsed()));
    yx::P<CVMDKDescriptor> const descriptor = m_disk->getDescriptor();
    yx::TBuffer<unsigned char> keyHash;
    if (descriptor->isEncrypted())
        keyHash = descriptor->getYxEncryptionKeyHash();
    createEmptyVMDKSparseExtentFile(fileSystem, extent.uri, m_disk->getCompressed(),
                                    (extent.endBytes - extent.startBytes) / getGrainSizeBytes(),
                                    getGrainSizeBytes() / kSectorSizeBytes, zeroBuffer, nullptr, 0,
                                    keyHash);
}

void SafeDisk::makeExtentFilesOnDemand(__int64 positionBytes, __int64 bytes) {
    if (!m_createsExtentFilesOnDemand)
        return;
    __int64 startBytes = 0;
    for (Extent& extent : m_extents) {
        bool const isReached =
            extent.endBytes > positionBytes && startBytes < positionBytes + bytes;
        if (isReached && !extent.isThere) {
            DiskExtent const stretch{extent.uri, startBytes, extent.endBytes};
            removeIfUnfinished(stretch);
            if (!m_fileSystem->fileExists(extent.uri))
                makeExtentFile(m_fileSystem.get(), stretch);
            syncFile(m_fileSystem.get(), extent.uri);
            extent.isThere = true;
        }
        startBytes = extent.endBytes;
    }
}

} // namespace kelm::host
