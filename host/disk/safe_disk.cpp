#include "host/disk/safe_disk.h"

#include "host/disk/descriptor_room.h"
#include "host/disk/disk_opening.h"
#include "host/disk/extent_creation.h"
#include "host/store/file_names.h"
#include "kelm/format/constants.h"

namespace kelm::host {

using Content = DiskWriting::Content;

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                   yx::String const& password, int compressionLevel, int readCacheLimit)
    : SafeDisk(yx::makeObject<SyncWatch>(fileSystem), uri, access, password, compressionLevel,
               readCacheLimit) {}

SafeDisk::SafeDisk(yx::P<SyncWatch> const& files, yx::CURI const& uri, yx::IIOStream::Access access,
                   yx::String const& password, int compressionLevel, int readCacheLimit)
    : SafeDisk(files,
               openLockedDisk(files.get(), uri, access, password, compressionLevel, readCacheLimit),
               password) {
    if (access != yx::IIOStream::ReadWrite)
        return;
    verifyWholeGrainExtents();
    m_extentFiles.verifyExist();
    giveDescriptorRoom(m_fileSystem.get(), m_disk->getMainFileURI());
    m_extentFiles.recover();
}

SafeDisk::SafeDisk(yx::P<SyncWatch> const& files, yx::P<CVMDKDisk> const& disk,
                   yx::String const& password)
    : m_fileSystem(files),
      m_disk(disk),
      m_hasParent(!disk->getParentDiskMainURI().isEmpty()),
      m_layout(*disk),
      m_contentIDChange(*disk),
      m_extentFiles(files.get(), disk->getMainFileURI(), m_layout,
                    disk->getDescriptor()->getYxCreateExtentFilesOnDemand(), keyHashOf(*disk)),
      m_room(files.get(), m_layout, calcWorstCaseGrainBytes(*disk->createDataPreparer()),
             [this] { m_disk->flushChanges(); }),
      m_tableLimit(*disk, [this] { flush(); }),
      m_storedView(files.get(), disk->getMainFileURI(), password),
      m_reading(*disk, m_layout, m_tableLimit, &m_unflushed, &m_storedView),
      m_preparedReading(*disk, m_layout, m_reading),
      m_strictReading(*disk, m_layout, m_tableLimit),
      m_strictPreparedReading(*disk, m_layout, m_strictReading),
      m_writing(*disk, m_layout, *files, m_contentIDChange, m_extentFiles, m_room, m_tableLimit,
                m_unflushed, m_storedView),
      m_zeroWriting(*disk, m_layout, m_strictReading, m_writing),
      m_independence(*disk, m_layout, m_strictReading, m_strictPreparedReading, m_writing,
                     m_zeroWriting) {}

std::unique_ptr<SafeDisk> SafeDisk::create(FileGuard* files, yx::CURI const& uri,
                                           NewDisk const& request) {
    verifyCanBeMade(uri, request);
    yx::String parentRelPath;
    unsigned int parentContentID = kNoParentContentID;
    // Open until the disk is made, so that nobody changes them meanwhile.
    std::vector<std::unique_ptr<SafeDisk>> parents;
    for (yx::CURI next = request.parent; !next.isEmpty() && parents.size() <= kMaxChainLength;
         next = parents.back()->getDisk().getParentDiskMainURI()) {
        parents.push_back(
            std::make_unique<SafeDisk>(files, next, yx::IIOStream::ReadOnly, request.password));
        files->protect(parents.back()->listFiles());
    }
    if (!parents.empty()) {
        parentContentID = parents.front()->getDisk().getDescriptor()->getContentID();
        parentRelPath = makeFileReference(uri.getParent(), request.parent);
    }
    verifyIsNotInUse(files, uri);
    CVMDKDisk::create(files, uri, request.sizeBytes, request.password, request.compressed,
                      request.compressionLevel, request.fileSizeLimitBytes, parentRelPath,
                      parentContentID, request.createExtentFilesOnDemand);
    // Opened anew, for the cache without limit.
    yx::P<SyncWatch> const watched = yx::makeObject<SyncWatch>(files);
    std::unique_ptr<SafeDisk> disk(
        new SafeDisk(watched,
                     openLockedDisk(watched.get(), uri, yx::IIOStream::ReadWrite, request.password,
                                    request.compressionLevel, CVMDKGrainTableCache::kNoLimit),
                     request.password));
    for (yx::CURI const& file : disk->listFiles()) {
        if (watched->fileExists(file))
            syncFile(watched.get(), file);
    }
    return disk;
}

void SafeDisk::verifyWholeGrainExtents() const {
    // Here positions are cut into grains by the disk, there by each extent.
    if (!m_layout.areExtentsWholeGrains()) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The disk cannot be written to, since not all of its extents are whole "
                           "numbers of grains.",
                           yx::CProps().add("uri", m_disk->getMainFileURI().toString(true)),
                           nullptr);
    }
}

std::vector<yx::CURI> SafeDisk::listFiles() {
    std::vector<yx::CURI> files{m_disk->getMainFileURI()};
    for (DiskExtent const& extent : m_layout.getExtents()) {
        if (extent.uri != files.front())
            files.push_back(extent.uri);
    }
    return files;
}

void SafeDisk::read(__int64 positionBytes, void* buffer, int bytes) {
    m_reading.read(positionBytes, buffer, bytes);
}

void SafeDisk::write(__int64 positionBytes, void const* buffer, int bytes) {
    m_writing.verifyMayWrite(positionBytes, bytes);
    if (bytes < 1)
        return;
    m_writing.reserveRoom(positionBytes, bytes);
    if (!m_hasParent) {
        m_writing.write(positionBytes, buffer, bytes, Content::Changes);
        return;
    }
    auto const* source = static_cast<unsigned char const*>(buffer);
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        if (yx::isAllZero(source, static_cast<std::size_t>(size)))
            m_zeroWriting.writeInGrain(partBytes, size);
        else
            m_writing.write(partBytes, source, size, Content::Changes);
        source += size;
    });
}

void SafeDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    m_writing.verifyMayWrite(positionBytes, bytes);
    m_layout.forEachGrainPart(positionBytes, bytes, [this](__int64 partBytes, int size) {
        m_zeroWriting.writeInGrain(partBytes, size);
    });
}

void SafeDisk::writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data) {
    __int64 const positionBytes = grainIndex * getGrainSizeBytes();
    m_writing.verifyMayWrite(positionBytes, 0);
    m_writing.reserveRoom(positionBytes, getGrainSizeBytes());
    if (isWholeGrain(grainIndex)) {
        m_writing.writePrepared(grainIndex, data, Content::Changes);
    } else {
        // The library refuses it, in its words.
        m_disk->seek(positionBytes);
        m_disk->writePreparedGrainData(data);
    }
}

bool SafeDisk::tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    return m_preparedReading.tryRead(grainIndex, data);
}

void SafeDisk::makeGrainIndependentOfParent(__int64 grainIndex) {
    if (m_hasParent)
        m_independence.makeGrainIndependent(grainIndex);
}

} // namespace kelm::host
