#include "host/disk/safe_disk.h"

#include "host/disk/chain_map.h"
#include "host/disk/chain_members.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/descriptor_room.h"
#include "host/disk/disk_opening.h"
#include "host/disk/disk_record.h"
#include "host/disk/extent_creation.h"
#include "host/disk/sealed_file_system.h"
#include "host/store/file_names.h"
#include "host/store/folder_access.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

void setIfKnown(DiskRecord& record, void (DiskRecord::*set)(std::string const&),
                std::string const& text) {
    if (!text.empty())
        (record.*set)(text);
}

/// What the library does not put into the descriptor of a new disk.
void completeNewDescriptor(CVMDKDisk& disk, NewDisk const& request) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDescriptor();
    writeContentID(*descriptor, descriptor->getContentID());
    DiskRecord record(*descriptor);
    if (request.isToBeFilled)
        record.setState(DiskState::Unfinished);
    if (request.imageBytes != -1)
        record.setImageBytes(request.imageBytes);
    setIfKnown(record, &DiskRecord::setTime, request.time);
    setIfKnown(record, &DiskRecord::setSource, request.source);
    setIfKnown(record, &DiskRecord::setHost, request.host);
    setIfKnown(record, &DiskRecord::setLabel, request.label);
    if (request.keyDerivation && descriptor->isEncrypted()) {
        wrapDiskKey(*descriptor,
                    unwrapDiskKey(*descriptor, disk.getMainFileURI(), request.password),
                    request.password, *request.keyDerivation);
    }
    updateChecksum(*descriptor, disk.getMainFileURI());
    disk.storeDescriptor();
}

/// The main file, then the extent files that are files of their own.
std::vector<yx::CURI> listFilesOf(yx::CURI const& mainFile, DiskLayout const& layout) {
    std::vector<yx::CURI> files{mainFile};
    for (DiskExtent const& extent : layout.getExtents()) {
        if (extent.uri != mainFile)
            files.push_back(extent.uri);
    }
    return files;
}

/// Makes the disk, and returns its files.
std::vector<yx::CURI> makeFiles(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                NewDisk const& request, yx::String const& parentRelPath,
                                unsigned int parentContentID) {
    yx::P<CVMDKDisk> disk;
    try {
        disk = CVMDKDisk::create(fileSystem, uri, request.sizeBytes, request.password,
                                 request.compressed, request.compressionLevel,
                                 request.fileSizeLimitBytes, parentRelPath, parentContentID,
                                 request.createExtentFilesOnDemand);
    } catch (yx::CError const& error) {
        if (!error.getMessage().wx().StartsWith(kTooManyExtentsMessagePrefix))
            throw;
        throw yx::CInvalidArgError("SafeDisk::create",
                                   "The disk would have more files than a descriptor can name, "
                                   "which are some 32768. Split it into larger ones.",
                                   yx::CProps());
    }
    completeNewDescriptor(*disk, request);
    return listFilesOf(disk->getMainFileURI(), DiskLayout(*disk));
}

ExtentRoom::GrainRoom calcGrainRoom(FileGrain const& grain, int compressionLevel) {
    CVMDKDataPreparer const preparer(grain.wholeSizeBytes / kSectorSizeBytes, grain.isCompressed,
                                     compressionLevel);
    return {grain.wholeSizeBytes, calcWorstCaseGrainBytes(preparer)};
}

} // namespace

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                   yx::String const& password, int compressionLevel, int readCacheLimit,
                   DiskTrust const& trust)
    : SafeDisk(yx::makeObject<DiskFileSystem>(fileSystem, uri, access, trust), uri, access,
               password, compressionLevel, readCacheLimit) {
    m_diskFiles->endOpening();
    if (access != yx::IIOStream::ReadWrite)
        return;
    verifyWholeGrainExtents();
    m_extentFiles.verifyExist();
    m_diskFiles->storeOwnName();
    giveDescriptorRoom(m_fileSystem.get(), m_disk->getMainFileURI());
    m_extentFiles.recover();
}

SafeDisk::SafeDisk(yx::P<DiskFileSystem> const& diskFiles, yx::CURI const& uri,
                   yx::IIOStream::Access access, yx::String const& password, int compressionLevel,
                   int readCacheLimit)
    : m_diskFiles(diskFiles),
      m_fileSystem(yx::makeObject<SyncWatch>(diskFiles.get())),
      m_disk(openLockedDisk(m_fileSystem.get(), uri, access, password, compressionLevel,
                            readCacheLimit)),
      m_access(access),
      m_hasParent(!m_disk->getParentDiskMainURI().isEmpty()),
      m_layout(*m_disk),
      m_grains(m_fileSystem.get(), *m_disk, m_layout),
      m_contentIDChange(*m_disk),
      m_digestRemoval(*m_diskFiles),
      m_extentFiles(m_fileSystem.get(), m_disk->getMainFileURI(), m_layout,
                    m_disk->getDescriptor()->getYxCreateExtentFilesOnDemand(), keyHashOf(*m_disk)),
      m_room(
          m_fileSystem.get(), m_layout,
          [this, compressionLevel](DiskExtent const& extent) {
              return calcGrainRoom(m_grains.at(extent.startBytes), compressionLevel);
          },
          [this] { m_disk->flushChanges(); }),
      m_tableLimit(*m_disk, [this] { flush(); }),
      m_storedView(m_fileSystem.get(), m_disk->getMainFileURI(), password),
      m_reading(*m_disk, m_layout, m_grains, m_tableLimit, &m_unflushed, &m_storedView),
      m_preparedReading(m_layout, m_grains, m_reading),
      m_strictReading(*m_disk, m_layout, m_grains, m_tableLimit),
      m_strictPreparedReading(m_layout, m_grains, m_strictReading),
      m_writing(*m_disk, m_layout, *m_fileSystem, m_contentIDChange, m_digestRemoval, m_extentFiles,
                m_room, m_tableLimit, m_unflushed, m_storedView),
      m_zeroWriting(*m_disk, m_layout, m_grains, m_strictReading, m_writing),
      m_independence(*m_disk, m_layout, m_grains, m_strictReading, m_strictPreparedReading,
                     m_writing, m_zeroWriting) {}

std::unique_ptr<SafeDisk> SafeDisk::create(FileGuard* files, yx::CURI const& uri,
                                           NewDisk const& request) {
    verifyCanBeMade(uri, request);
    verifyMayWriteInFolderOf(uri);
    yx::String parentRelPath;
    unsigned int parentContentID = kNoParentContentID;
    // Open until the disk is made, so that nobody changes them meanwhile.
    std::vector<std::unique_ptr<SafeDisk>> parents;
    for (yx::CURI next = request.parent; !next.isEmpty() && parents.size() <= kMaxChainLength;
         next = parents.back()->getDisk().getParentDiskMainURI()) {
        parents.push_back(
            std::make_unique<SafeDisk>(files, next, yx::IIOStream::ReadOnly, request.password, -1,
                                       CVMDKGrainTableCache::kDefaultLimit, request.trust));
        files->protect(parents.back()->listFiles());
    }
    if (!parents.empty()) {
        parentContentID = parents.front()->getDisk().getDescriptor()->getContentID();
        parentRelPath = makeFileReference(uri.getParent(), request.parent);
    }
    verifyIsNotInUse(files, uri);
    // Until its descriptor says that it is unfinished, nobody may take it for a disk.
    yx::P<SealedFileSystem> const sealed = yx::makeObject<SealedFileSystem>(files, uri);
    DiskTrust trust = request.trust;
    trust.unfinished = UnfinishedDisks::Itself;
    yx::P<DiskFileSystem> const diskFiles = yx::makeObject<DiskFileSystem>(
        sealed.get(), uri, yx::IIOStream::ReadWrite, trust, files->getLocks());
    for (yx::CURI const& file :
         makeFiles(diskFiles.get(), uri, request, parentRelPath, parentContentID)) {
        if (diskFiles->fileExists(file))
            syncFile(diskFiles.get(), file);
    }
    sealed->unseal();
    // Opened anew, for the cache without limit.
    return std::unique_ptr<SafeDisk>(new SafeDisk(diskFiles, uri, yx::IIOStream::ReadWrite,
                                                  request.password, request.compressionLevel,
                                                  CVMDKGrainTableCache::kNoLimit));
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

void SafeDisk::storeDescriptor() {
    yx::CURI const& mainFile = m_disk->getMainFileURI();
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), mainFile, yx::IIOStream::ReadOnly);
    yx::P<CVMDKDescriptor> const stored =
        CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
    stream->close();
    if (getChecksumState(*stored, mainFile) == ChecksumState::Valid)
        updateChecksum(*m_disk->getDescriptor(), mainFile);
    giveDescriptorRoomFor(m_fileSystem.get(), mainFile, *m_disk->getDescriptor());
    m_disk->storeDescriptor();
}

void SafeDisk::markComplete() {
    flush();
    DiskRecord record(*m_disk->getDescriptor());
    if (record.getState() == DiskState::Complete)
        return;
    record.setState(DiskState::Complete);
    try {
        m_disk->storeDescriptor();
    } catch (...) {
        record.setState(DiskState::Unfinished);
        throw;
    }
}

std::vector<yx::CURI> SafeDisk::listFiles() {
    return listFilesOf(m_disk->getMainFileURI(), m_layout);
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
        m_writing.write(positionBytes, buffer, bytes, DiskWriting::Content::Changes);
        return;
    }
    auto const* source = static_cast<unsigned char const*>(buffer);
    m_grains.forEachPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        if (yx::isAllZero(source, static_cast<std::size_t>(size)))
            m_zeroWriting.writeInGrain(partBytes, size);
        else
            m_writing.write(partBytes, source, size, DiskWriting::Content::Changes);
        source += size;
    });
}

void SafeDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    m_writing.verifyMayWrite(positionBytes, bytes);
    m_grains.forEachPart(positionBytes, bytes, [this](__int64 partBytes, int size) {
        m_zeroWriting.writeInGrain(partBytes, size);
    });
}

void SafeDisk::writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data) {
    __int64 const positionBytes = grainIndex * getGrainSizeBytes();
    m_writing.verifyMayWrite(positionBytes, 0);
    m_writing.reserveRoom(positionBytes, getGrainSizeBytes());
    if (grainIndex < getGrainCount() && isWholeGrain(grainIndex)) {
        m_writing.writePrepared(grainIndex, data, DiskWriting::Content::Changes);
    } else {
        // The library refuses it, in its words.
        m_disk->seek(positionBytes);
        m_disk->writePreparedGrainData(data);
    }
}

void SafeDisk::writeEncipheredGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data) {
    __int64 const positionBytes = grainIndex * getGrainSizeBytes();
    m_writing.verifyMayWrite(positionBytes, 0);
    m_writing.reserveRoom(positionBytes, getGrainSizeBytes());
    if (grainIndex < getGrainCount() && isWholeGrain(grainIndex)) {
        m_writing.writeEnciphered(grainIndex, data, DiskWriting::Content::Changes);
    } else {
        // The library refuses it, in its words.
        m_disk->seek(positionBytes);
        m_disk->writeEncipheredGrainData(data);
    }
}

void SafeDisk::mergeChain(int maxMapTables) {
    if (m_access != yx::IIOStream::ReadOnly || !m_hasParent || m_isMerged)
        return;
    m_isMerged = true;
    try {
        m_grains.useMap(
            ChainMap::tryMake(m_fileSystem.get(), listChainMembers(*this), maxMapTables));
    } catch (yx::CError const& error) {
        // Such as a parent that is in use. Whoever opens it meets that again.
        error.nop();
    }
}

bool SafeDisk::tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    return m_preparedReading.tryRead(grainIndex, data);
}

void SafeDisk::makeGrainIndependentOfParent(__int64 grainIndex) {
    if (m_hasParent)
        m_independence.makeGrainIndependent(grainIndex);
}

void SafeDisk::holdGrain(__int64 grainIndex) {
    if (m_hasParent)
        m_independence.holdGrain(grainIndex);
}

void SafeDisk::holdPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared) {
    if (m_hasParent)
        m_independence.holdPreparedGrain(grainIndex, prepared);
}

void SafeDisk::holdEncipheredGrain(__int64 grainIndex,
                                   yx::TBuffer<unsigned char> const& enciphered) {
    if (m_hasParent)
        m_independence.holdEncipheredGrain(grainIndex, enciphered);
}

} // namespace kelm::host
