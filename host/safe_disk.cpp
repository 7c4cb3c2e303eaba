#include "host/safe_disk.h"

#include <algorithm>
#include <cstring>

#include "host/file_names.h"
#include "host/slot_repair.h"
#include "kelm/format/constants.h"
#include "yx/lock_file.h"
#include "yx/log.h"
#include "yx/memory_file_system.h"
#include "yx/mt_rand.h"

namespace kelm::host {

namespace {

constexpr int kNoCacheLimit = -1;

/// How the library tells that a parent's grains cannot be passed on as they are.
constexpr char kParentIncompatibleMessage[] = "Parent disk is incompatible with diff disk.";

/// What the error of a lock that nobody holds begins with: its file cannot be made, opened or
/// locked.
constexpr char kLockNotTakenPrefix[] = "Cannot take the lock file: ";

/// What enciphering can add to a prepared grain.
constexpr __int64 kEncipheringSectors = 1;

/// Room for a text descriptor to grow: an encoding line and longer content IDs.
constexpr __int64 kDescriptorRoomBytes = __int64{4} * kSectorSizeBytes;

yx::CURI lockURIOf(yx::CURI const& uri) {
    return uri.getParent() << (uri.getName() + ".lock");
}

/// A reader's lock on a disk that is about to be opened; null where it cannot be had although
/// nobody holds it, as on read-only media.
///
/// A disk that is opened for reading goes on without a lock if there is no lock file, also when the
/// lock was refused and its holder took the file away only then. The next writer would not notice
/// such a reader.
yx::P<yx::CLockFile> takeReaderLock(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    try {
        return yx::makeObject<yx::CLockFile>(fileSystem, lockURIOf(uri), yx::CLockFile::Shared,
                                             false, true);
    } catch (yx::CLockFileError const& error) {
        if (!error.getMessage().wx().StartsWith(kLockNotTakenPrefix))
            throw;
        return nullptr;
    }
}

yx::P<CVMDKDisk> openDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                          yx::IIOStream::Access access, yx::String const& password,
                          int compressionLevel, int readCacheLimit) {
    // Opening for writing would make the main file.
    if (!fileSystem->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    yx::P<CVMDKGrainTableCache> const cache = yx::makeObject<CVMDKGrainTableCache>(
        access == yx::IIOStream::ReadWrite ? kNoCacheLimit : readCacheLimit);
    // Until the disk has its own.
    yx::P<yx::CLockFile> lock;
    if (access == yx::IIOStream::ReadOnly)
        lock = takeReaderLock(fileSystem, uri);
    return yx::makeObject<CVMDKDisk>(fileSystem, uri, access, password, compressionLevel,
                                     cache.get(), nullptr);
}

__int64 calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer) {
    return (preparer.getWorstCaseGrainSizeSectors() + kEncipheringSectors) * kSectorSizeBytes;
}

/// Refuses a disk in one file that could outgrow what its tables can name.
void verifyFitsOneFile(NewDisk const& request) {
    if (request.fileSizeLimitBytes != -1)
        return;
    __int64 const sizeBytes = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(request.sizeBytes);
    __int64 const grainSizeBytes = CVMDKDisk::getGrainSizeSectors() * kSectorSizeBytes;
    if (sizeBytes / grainSizeBytes <= kMaxExtentFileBytes / grainSizeBytes) {
        CVMDKDataPreparer const preparer(CVMDKDisk::getGrainSizeSectors(), request.compressed, 1);
        __int64 const grains = sizeBytes / grainSizeBytes;
        __int64 const grainBytes =
            request.compressed ? calcWorstCaseGrainBytes(preparer) : grainSizeBytes;
        // Tables and directories twice, slot sizes with their markers, and a descriptor's worth.
        __int64 const tableBytes = (grains / kGrainTableEntryCount + 1) * 16 * kSectorSizeBytes;
        constexpr __int64 kFixedBytes = 4 << 20;
        if (grains * grainBytes + tableBytes + kFixedBytes <= kMaxExtentFileBytes)
            return;
    }
    throw yx::CInvalidArgError(
        "SafeDisk::create",
        "A disk of " + yx::toString(sizeBytes) +
            " bytes could outgrow the 2 TiB that one file can hold. Split it over several files.",
        yx::CProps().add("sizeBytes", yx::toString(sizeBytes)));
}

/// Refuses to replace a disk that somebody uses.
void verifyIsNotInUse(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    if (!fileSystem->fileExists(uri))
        return;
    yx::CLockFile const lock(fileSystem, lockURIOf(uri), yx::CLockFile::Exclusive, false, true);
}

/// Brings a file that is closed to the device, whoever wrote it, and its name too. A stream flushes
/// what is on its file only if it wrote there itself.
void syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadWrite);
    unsigned char first = 0;
    stream->read(&first, 1);
    stream->seek(0);
    stream->write(&first, 1, nullptr);
    stream->flush();
    stream->close();
}

/// A value that is written with as many digits as `contentID`, and is neither that nor one of the
/// two that mean no disk.
unsigned int drawContentIDLike(unsigned int contentID) {
    std::size_t const digits = yx::toHexString(contentID).toStdString().size();
    for (;;) {
        yx::CMutexLock const lock(yx::CMTRand::getGlobalInstanceMutex().get());
        unsigned int const drawn = yx::CMTRand::getGlobal()->rand32() >> (32 - 4 * digits);
        if (drawn != 0 && drawn != kNoParentContentID && drawn != contentID &&
            yx::toHexString(drawn).toStdString().size() == digits)
            return drawn;
    }
}

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

/// A record from an enciphered disk ends with its data. Stored like that, in another enciphered
/// disk, it would be enciphered without the padding that belongs to a record.
void padToSector(yx::TBuffer<unsigned char>& data) {
    int const surplusBytes = data.getUsed() % kSectorSizeBytes;
    if (surplusBytes == 0)
        return;
    int const sizeBytes = data.getUsed();
    int const paddingBytes = kSectorSizeBytes - surplusBytes;
    data.setUsed(sizeBytes + paddingBytes);
    yx::initMemory(data.getData() + sizeBytes, 0, static_cast<std::size_t>(paddingBytes));
}

void verifyName(yx::CURI const& uri) {
    auto const refuse = [&uri](char const* message) {
        throw yx::CInvalidArgError("SafeDisk::create", message,
                                   yx::CProps().add("uri", uri.toString(true)));
    };
    // A guard takes such a file for a lock file, which it lets everybody touch.
    if (uri.getExtension() == ".lock")
        refuse("The name of a disk must not end in '.lock'.");
    yx::String const name = uri.getName();
    bool const storable = name.wx().find_first_of("\"\n\r") == wxString::npos &&
                          isReferenceTo(uri.getParent(), name, uri);
    if (!storable)
        refuse("A disk cannot have this name, since its descriptor could not name its files.");
}

} // namespace

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                   yx::String const& password, int compressionLevel, int readCacheLimit)
    : SafeDisk(fileSystem,
               openDisk(fileSystem, uri, access, password, compressionLevel, readCacheLimit)) {
    if (access != yx::IIOStream::ReadWrite)
        return;
    verifyWholeGrainExtents();
    verifyExtentFilesExist();
    giveDescriptorRoom();
    recoverFromPowerCut();
}

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::P<CVMDKDisk> const& disk)
    : m_fileSystem(fileSystem),
      m_disk(disk),
      m_hasParent(!disk->getParentDiskMainURI().isEmpty()),
      m_createsExtentFilesOnDemand(disk->getDescriptor()->getYxCreateExtentFilesOnDemand()),
      m_preparer(disk->createDataPreparer()) {
    m_worstCaseGrainBytes = calcWorstCaseGrainBytes(*m_preparer);
    collectExtents();
    // It is changed here, by `changeContentID`.
    m_disk->setContentIDUpdatesEnabled(false);
}

std::unique_ptr<SafeDisk> SafeDisk::create(FileGuard* files, yx::CURI const& uri,
                                           NewDisk const& request) {
    verifyFitsOneFile(request);
    verifyName(uri);
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
    std::unique_ptr<SafeDisk> disk(
        new SafeDisk(files, openDisk(files, uri, yx::IIOStream::ReadWrite, request.password,
                                     request.compressionLevel, kNoCacheLimit)));
    for (yx::CURI const& file : disk->listFiles()) {
        if (files->fileExists(file))
            syncFile(files, file);
    }
    return disk;
}

void SafeDisk::collectExtents() {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    m_disk->getDescriptor()->getExtentEntries(infos);
    yx::CURI const folder = m_disk->getMainFileURI().getParent();
    __int64 endBytes = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        if (endBytes % getGrainSizeBytes() != 0)
            m_extentsAreWholeGrains = false;
        endBytes += info->getSizeSectors() * kSectorSizeBytes;
        m_extents.push_back({endBytes, vmdkFileReferenceToURI(folder, info->getFilename()), -1,
                             !m_createsExtentFilesOnDemand || m_extents.empty()});
    }
}

void SafeDisk::verifyWholeGrainExtents() {
    // Here positions are cut into grains by the disk, there by each extent.
    if (!m_extentsAreWholeGrains) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The disk cannot be written to, since not all of its extents are whole "
                           "numbers of grains.",
                           yx::CProps().add("uri", m_disk->getMainFileURI().toString(true)),
                           nullptr);
    }
}

void SafeDisk::verifyExtentFilesExist() {
    if (m_createsExtentFilesOnDemand)
        return;
    for (Extent const& extent : m_extents) {
        if (!m_fileSystem->fileExists(extent.uri)) {
            throw yx::CIOError(yx::CIOError::NotFound, "An extent file of the disk is missing.",
                               yx::CProps().add("uri", extent.uri.toString(true)), nullptr);
        }
    }
}

void SafeDisk::giveDescriptorRoom() {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), m_disk->getMainFileURI(), yx::IIOStream::ReadWrite);
    CVMDKDescriptorAccessor accessor(stream.get(), yx::IIOStream::ReadWrite);
    if (accessor.getEmbeddedInSparseExtentFile())
        return;
    CVMDKDescriptor asStored = *accessor.getDescriptor();
    asStored.setEncodingUTF8();
    asStored.setContentID(0xFFFFFFFF);
    auto const storedBytes = static_cast<__int64>(asStored.toString().toStdString().size());
    if (storedBytes < stream->getLength())
        return;
    stream->setLength(storedBytes + kDescriptorRoomBytes);
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
    if (!descriptor->getYxEncryptionAlgorithm().isEmpty())
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

void SafeDisk::changeContentID() {
    if (m_hasNewContentID)
        return;
    yx::P<CVMDKDescriptor> const descriptor = m_disk->getDescriptor();
    unsigned int const oldContentID = descriptor->getContentID();
    descriptor->setContentID(drawContentIDLike(oldContentID));
    try {
        m_disk->storeDescriptor();
    } catch (...) {
        descriptor->setContentID(oldContentID);
        throw;
    }
    m_hasNewContentID = true;
}

std::vector<yx::CURI> SafeDisk::listFiles() {
    std::vector<yx::CURI> files{m_disk->getMainFileURI()};
    for (Extent const& extent : m_extents) {
        if (extent.uri != files.front())
            files.push_back(extent.uri);
    }
    return files;
}

std::vector<DiskExtent> SafeDisk::listExtents() const {
    std::vector<DiskExtent> extents;
    __int64 startBytes = 0;
    for (Extent const& extent : m_extents) {
        extents.push_back({extent.uri, startBytes, extent.endBytes});
        startBytes = extent.endBytes;
    }
    return extents;
}

__int64 SafeDisk::getGrainCount() const {
    return (getSizeBytes() + getGrainSizeBytes() - 1) / getGrainSizeBytes();
}

bool SafeDisk::isWholeGrain(__int64 grainIndex) const {
    return m_extentsAreWholeGrains && (grainIndex + 1) * getGrainSizeBytes() <= getSizeBytes();
}

int SafeDisk::grainBytesAt(__int64 grainStartBytes) const {
    return static_cast<int>(std::min(getGrainSizeBytes(), getSizeBytes() - grainStartBytes));
}

void SafeDisk::reserveRoom(__int64 positionBytes, __int64 bytes) {
    __int64 const endBytes = positionBytes + bytes;
    auto extent = std::upper_bound(
        m_extents.begin(), m_extents.end(), positionBytes,
        [](__int64 position, Extent const& candidate) { return position < candidate.endBytes; });
    for (; extent != m_extents.end() && positionBytes < endBytes; ++extent) {
        __int64 const partEndBytes = std::min(endBytes, extent->endBytes);
        __int64 const grains = (partEndBytes - positionBytes) / getGrainSizeBytes() + 2;
        reserveRoomInExtent(*extent, grains * m_worstCaseGrainBytes);
        positionBytes = partEndBytes;
    }
}

void SafeDisk::reserveRoomInExtent(Extent& extent, __int64 growthBytes) {
    __int64 const limitBytes = kMaxExtentFileBytes - __int64{kTrailSectors} * kSectorSizeBytes;
    if (extent.lengthBoundBytes >= 0 && extent.lengthBoundBytes + growthBytes <= limitBytes) {
        extent.lengthBoundBytes += growthBytes;
        return;
    }
    // The bound counts every write as a new grain; near the limit only the file itself can tell.
    m_disk->flushChanges();
    extent.lengthBoundBytes = -1;
    // A file that is made on demand is measured once it is there, with its tables.
    if (!m_fileSystem->fileExists(extent.uri))
        return;
    unsigned int reserved = 0;
    extent.lengthBoundBytes =
        m_fileSystem->openFile(extent.uri, yx::IIOStream::ReadOnly, &reserved)->getLength();
    if (extent.lengthBoundBytes + growthBytes > limitBytes) {
        throw yx::CIOError(
            yx::CIOError::NoSpace,
            "The file could grow beyond the 2 TiB that one file of a disk can hold. Copy the disk "
            "to one that is split over several files.",
            yx::CProps()
                .add("uri", extent.uri.toString(true))
                .add("length", yx::toString(extent.lengthBoundBytes)),
            nullptr);
    }
    extent.lengthBoundBytes += growthBytes;
}

void SafeDisk::read(__int64 positionBytes, void* buffer, int bytes) {
    m_disk->seek(positionBytes);
    m_disk->read(buffer, bytes);
}

void SafeDisk::writePlain(__int64 positionBytes, void const* buffer, int bytes) {
    changeContentID();
    makeExtentFilesOnDemand(positionBytes, bytes);
    m_disk->seek(positionBytes);
    m_disk->write(buffer, bytes);
    m_haveUnflushedWrites = true;
}

void SafeDisk::verifyMayWrite(__int64 positionBytes, __int64 bytes) {
    m_disk->seek(positionBytes);
    if (bytes > getSizeBytes() - positionBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                           yx::CProps()
                               .add("mainFileURI", m_disk->getMainFileURI().toString(true))
                               .add("position", yx::toString(positionBytes))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    // A write of nothing is refused where a write is, and else does nothing.
    m_disk->write(nullptr, 0);
}

void SafeDisk::write(__int64 positionBytes, void const* buffer, int bytes) {
    verifyMayWrite(positionBytes, bytes);
    reserveRoom(positionBytes, bytes);
    if (!m_hasParent) {
        writePlain(positionBytes, buffer, bytes);
        return;
    }
    auto const* source = static_cast<unsigned char const*>(buffer);
    while (bytes > 0) {
        __int64 const inGrain = positionBytes % getGrainSizeBytes();
        int const step = static_cast<int>(std::min<__int64>(bytes, getGrainSizeBytes() - inGrain));
        if (yx::isAllZero(source, static_cast<std::size_t>(step)))
            writeZerosToGrain(positionBytes, step);
        else
            writePlain(positionBytes, source, step);
        positionBytes += step;
        source += step;
        bytes -= step;
    }
}

void SafeDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    verifyMayWrite(positionBytes, bytes);
    while (bytes > 0) {
        __int64 const inGrain = positionBytes % getGrainSizeBytes();
        int const step = static_cast<int>(std::min<__int64>(bytes, getGrainSizeBytes() - inGrain));
        writeZerosToGrain(positionBytes, step);
        positionBytes += step;
        bytes -= step;
    }
}

void SafeDisk::writeZerosToGrain(__int64 positionBytes, int bytes) {
    __int64 const grainIndex = positionBytes / getGrainSizeBytes();
    if (!isGrainWritten(grainIndex))
        return;
    __int64 const grainStartBytes = grainIndex * getGrainSizeBytes();
    int const grainBytes = grainBytesAt(grainStartBytes);
    m_grain.setUsed(static_cast<int>(getGrainSizeBytes()));
    unsigned char* const grain = m_grain.getData();
    unsigned char* const range = grain + (positionBytes - grainStartBytes);
    auto const rangeSize = static_cast<std::size_t>(bytes);
    read(grainStartBytes, grain, grainBytes);
    if (yx::isAllZero(range, rangeSize))
        return;
    yx::initMemory(range, 0, rangeSize);
    reserveRoom(positionBytes, bytes);
    changeContentID();
    if (!m_hasParent || !yx::isAllZero(grain, static_cast<std::size_t>(grainBytes)))
        writePlain(positionBytes, range, bytes);
    else if (isWholeGrain(grainIndex))
        storeZeroGrain(grainIndex);
    else
        zeroShortGrain(grainStartBytes, grainBytes);
}

void SafeDisk::storeZeroGrain(__int64 grainIndex) {
    if (!m_preparedZeroGrain) {
        int const grainSizeBytes = static_cast<int>(getGrainSizeBytes());
        yx::P<yx::TBuffer<unsigned char>> const zeroGrain =
            yx::makeObject<yx::TBuffer<unsigned char>>(grainSizeBytes, -1);
        yx::initMemory(zeroGrain->getData(), 0, static_cast<std::size_t>(grainSizeBytes));
        yx::P<yx::TBuffer<unsigned char>> const aux = yx::makeObject<yx::TBuffer<unsigned char>>();
        m_preparedZeroGrain = m_preparer->prepareGrainData(zeroGrain.get(), 0, aux.get());
    }
    m_preparer->patchGrainIndexInPreparedGrainData(*m_preparedZeroGrain, grainIndex);
    makeExtentFilesOnDemand(grainIndex * getGrainSizeBytes(), 1);
    m_disk->seek(grainIndex * getGrainSizeBytes());
    m_disk->writePreparedGrainData(*m_preparedZeroGrain);
}

void SafeDisk::zeroShortGrain(__int64 grainStartBytes, int grainBytes) {
    unsigned char* const grain = m_grain.getData();
    read(grainStartBytes, grain, grainBytes);
    // Prepared data are for whole grains only. What the grain holds now gives it a place, where
    // zeros are stored like anything else; a power cut between leaves the old content.
    writePlain(grainStartBytes, grain, grainBytes);
    m_disk->flushChanges();
    yx::initMemory(grain, 0, static_cast<std::size_t>(grainBytes));
    writePlain(grainStartBytes, grain, grainBytes);
}

void SafeDisk::writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data) {
    __int64 const positionBytes = grainIndex * getGrainSizeBytes();
    verifyMayWrite(positionBytes, 0);
    reserveRoom(positionBytes, getGrainSizeBytes());
    if (isWholeGrain(grainIndex)) {
        changeContentID();
        makeExtentFilesOnDemand(positionBytes, 1);
    }
    m_disk->seek(positionBytes);
    m_disk->writePreparedGrainData(data);
}

bool SafeDisk::isGrainWritten(__int64 grainIndex) {
    // Several grains of the file may lie under this one; only reading tells.
    if (!m_extentsAreWholeGrains)
        return true;
    m_disk->seek(grainIndex * getGrainSizeBytes());
    return m_disk->isGrainWritten();
}

bool SafeDisk::isGrainWrittenHere(__int64 grainIndex) {
    m_disk->seek(grainIndex * getGrainSizeBytes());
    return m_disk->isGrainWrittenAndIndependentOfParent();
}

void SafeDisk::flush() {
    m_disk->flushChanges();
    m_haveUnflushedWrites = false;
}

void SafeDisk::makeGrainIndependentOfParent(__int64 grainIndex) {
    if (!m_hasParent)
        return;
    // A grain with unwritten changes and no place of its own would lose them.
    if (m_haveUnflushedWrites)
        flush();
    if (isGrainWrittenHere(grainIndex) || !isGrainWritten(grainIndex))
        return;
    reserveRoom(grainIndex * getGrainSizeBytes(), 1);
    makeExtentFilesOnDemand(grainIndex * getGrainSizeBytes(), 1);
    // The content stays the same, and so does the content ID: its children still know the disk.
    // `CVMDKDisk::makeGrainIndependentOfParent` would take a record from an enciphered parent
    // without its padding.
    if (!tryReadPreparedGrain(grainIndex, m_parentsGrain)) {
        copyPlainFromParent(grainIndex);
        return;
    }
    m_preparer->patchGrainIndexInPreparedGrainData(m_parentsGrain, grainIndex);
    m_disk->seek(grainIndex * getGrainSizeBytes());
    m_disk->writePreparedGrainData(m_parentsGrain);
}

bool SafeDisk::tryPreparedOp(__int64 grainIndex, std::function<void()> const& operation) {
    if (!isWholeGrain(grainIndex))
        return false;
    // Every further grain of such a parent would fail likewise.
    if (!m_parentIsOfOneForm && !isGrainWrittenHere(grainIndex))
        return false;
    try {
        operation();
        return true;
    } catch (yx::CIOError& error) {
        // The parent ends within the grain.
        if (m_hasParent && error.getIOCode() == yx::CIOError::NotAllowed)
            return false;
        throw;
    } catch (yx::CError& error) {
        if (error.getMessage() != kParentIncompatibleMessage)
            throw;
        m_parentIsOfOneForm = false;
        return false;
    }
}

bool SafeDisk::tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    bool const done = tryPreparedOp(grainIndex, [&] {
        m_disk->seek(grainIndex * getGrainSizeBytes());
        m_disk->readPreparedGrainData(data);
    });
    if (done)
        padToSector(data);
    return done;
}

void SafeDisk::copyPlainFromParent(__int64 grainIndex) {
    __int64 const grainStartBytes = grainIndex * getGrainSizeBytes();
    int const grainBytes = grainBytesAt(grainStartBytes);
    m_grain.setUsed(static_cast<int>(getGrainSizeBytes()));
    read(grainStartBytes, m_grain.getData(), grainBytes);
    if (!yx::isAllZero(m_grain.getData(), static_cast<std::size_t>(grainBytes))) {
        // Not noted as unwritten, which would flush for each grain: nothing is lost with these
        // bytes.
        m_disk->seek(grainStartBytes);
        m_disk->write(m_grain.getData(), grainBytes);
    } else if (isWholeGrain(grainIndex)) {
        storeZeroGrain(grainIndex);
    }
}

} // namespace kelm::host
