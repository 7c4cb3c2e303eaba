#pragma once

#include <memory>
#include <vector>

#include "host/disk/content_id_change.h"
#include "host/disk/digest_removal.h"
#include "host/disk/disk_file_system.h"
#include "host/disk/disk_layout.h"
#include "host/disk/disk_reading.h"
#include "host/disk/disk_writing.h"
#include "host/disk/extent_files.h"
#include "host/disk/extent_room.h"
#include "host/disk/file_guard.h"
#include "host/disk/new_disk.h"
#include "host/disk/parent_independence.h"
#include "host/disk/prepared_reading.h"
#include "host/disk/table_limit.h"
#include "host/disk/zero_writing.h"
#include "kelm/kelm.h"

namespace kelm::host {

/// The most parents that a chain can have.
constexpr std::size_t kMaxChainLength = CVMDKParentDiskDataProvider::kMaxChainDepth;

/// A disk as a host should use it: by positions, and without the traps of the bare library. For
/// disks of others, use `CVMDKDisk`. This class only opens a disk and puts its parts together. The
/// header of each part has the details:
///
/// - `ExtentFiles`: no extent file is missing or half made.
/// - `ExtentRoom`: no extent file outgrows 2 TiB.
/// - `DiskState`: a disk that was not filled to its end is not taken for a whole one.
/// - `updateChecksum`: a damaged descriptor is told from a sound one.
/// - `ContentIDChange`: children and digests notice a change, whatever a power cut leaves.
/// - `DigestRemoval`: digests that a change would make incomplete without a new content ID go first.
/// - `TableLimit`: no changed grain table is lost, and memory has a bound.
/// - `ZeroWriting`: zeros hide what a parent has there.
/// - `ParentIndependence`: no unwritten change is lost to the parent's data.
/// - `giveDescriptorRoom`: the first write does not fail on a text descriptor without room.
/// - `openLockedDisk`: nobody reads a disk that is being written.
/// - `SyncWatch`: no flush says that all is well after a sync has failed.
/// - `DiskReading`: what is stored can be read while a full device refuses changes.
/// - `ChainGrains`: nothing is taken as a whole where the grains of a disk or of a parent differ.
///
/// A power cut harms nothing that was flushed, and a new disk is on the device with all its files
/// before it is handed out.
///
/// All files are reached through a `DiskFileSystem`: the disk is the file that was named, its files
/// are locked themselves, and a descriptor leads to nothing outside of its folder.
///
/// URIs should be those of `uriFromArgument`, so that every user of a disk names the same lock
/// file. Errors are those of `CVMDKDisk` unless said otherwise. Serves one thread at a time.
class SafeDisk {
public:
    /// Opens a disk. A main file that does not exist is `CIOError` `NotFound`, also for writing; a
    /// missing extent file of a disk to be written to is `NotFound` with that file's "uri". A disk
    /// in which an extent but the last is no whole number of grains is `NotSupported` for writing.
    /// `readCacheLimit` is the most grain tables that a disk opened for reading keeps; one that is
    /// opened for writing keeps up to `kMaxTablesInMemory`. What `trust` does not admit is refused
    /// as `DiskReach` says, and so it is in the parents.
    SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
             yx::String const& password, int compressionLevel = -1,
             int readCacheLimit = CVMDKGrainTableCache::kDefaultLimit, DiskTrust const& trust = {});

    /// Makes a disk through `files` and opens it for writing. An existing file in the place of one
    /// of the disk's files is `CIOError` `AlreadyExists`, unless `files` may overwrite. What
    /// `verifyCanBeMade` refuses is `CInvalidArgError`, and so is a splitting into more files than
    /// a descriptor can name; a folder that cannot be written to is refused as
    /// `verifyMayWriteInFolderOf` does. Even where `files` may overwrite, an
    /// existing disk that is in use is `CLockFileError`, and a file of one of the parents is
    /// `NotAllowed`. The guard takes away what was made, unless `FileGuard::keep` is called once
    /// the disk is as it should be. The disk must be closed before the guard ends. If the program
    /// or the machine ends in the middle, what is left is no disk, or all of this one.
    static std::unique_ptr<SafeDisk> create(FileGuard* files, yx::CURI const& uri,
                                            NewDisk const& request);

    SafeDisk(SafeDisk const&) = delete;
    SafeDisk& operator=(SafeDisk const&) = delete;
    ~SafeDisk() = default;

    /// The disk itself, for all that needs no care: reading and asking.
    CVMDKDisk& getDisk() { return *m_disk; }

    /// The size of the disk, and that of its grains.
    __int64 getSizeBytes() const { return m_layout.getSizeBytes(); }
    __int64 getGrainSizeBytes() const { return m_layout.getGrainSizeBytes(); }

    /// How many grains the disk has; the last one may be cut short.
    __int64 getGrainCount() const { return m_layout.getGrainCount(); }

    /// Whether this is a child disk.
    bool hasParent() const { return m_hasParent; }

    /// The grain of a file that holds a byte of the disk; see `ChainGrains`.
    FileGrain getFileGrain(__int64 positionBytes) { return m_grains.at(positionBytes); }

    /// Whether the grain can be stored in prepared form: see `FileGrain::isGrainOfDisk`.
    bool isWholeGrain(__int64 grainIndex) {
        return m_grains.at(grainIndex * getGrainSizeBytes()).isGrainOfDisk;
    }

    /// Makes a disk opened for writing keep at most so many grain tables; see `TableLimit::set`.
    void limitTables(int maxTables) { m_tableLimit.set(maxTables); }

    /// Reads or writes exactly `bytes` bytes at `positionBytes`. Writing a count below 1, of zeros
    /// too, changes nothing.
    void read(__int64 positionBytes, void* buffer, int bytes);
    void write(__int64 positionBytes, void const* buffer, int bytes);

    /// Makes the range read as zeros, taking no space where it does already.
    void writeZeros(__int64 positionBytes, __int64 bytes);

    /// Stores a whole grain that `CVMDKDisk::createDataPreparer` prepared for its index.
    void writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data);

    /// The same for one that `CVMDKDisk::createGrainCipher` has enciphered for its index then.
    void writeEncipheredGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data);

    /// See `PreparedReading::tryRead`.
    bool tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

    /// See `PreparedReading::tryReadEnciphered`.
    int tryReadEncipheredGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
        return m_preparedReading.tryReadEnciphered(grainIndex, data);
    }

    /// From now on finds the holder of a grain in one look, however long the chain is: the grain
    /// tables of the chain are merged as they are needed, into a `ChainMap` of at most
    /// `maxMapTables` tables. What is read and what fails stays the same. Does nothing for a disk
    /// that is opened for writing or has no parent, and for a chain that `ChainMap` does not serve.
    void mergeChain(int maxMapTables = kDefaultMapTables);

    /// Of 512 grains and 4 KiB each, so 16 MiB.
    static constexpr int kDefaultMapTables = 4096;

    /// See `DiskReading`.
    bool isWritten(__int64 positionBytes, __int64 bytes) {
        return m_reading.isWritten(positionBytes, bytes);
    }
    bool isWrittenHere(__int64 positionBytes, __int64 bytes) {
        return m_reading.isWrittenHere(positionBytes, bytes);
    }
    __int64 countUnwrittenBytes(__int64 positionBytes, __int64 maxBytes) {
        return m_reading.countUnwrittenBytes(positionBytes, maxBytes);
    }
    bool isPassedOn(__int64 positionBytes, __int64 bytes) {
        return m_reading.isPassedOn(positionBytes, bytes);
    }
    __int64 countBytesNotHere(__int64 positionBytes, __int64 maxBytes) {
        return m_reading.countBytesNotHere(positionBytes, maxBytes);
    }
    bool isGrainWritten(__int64 grainIndex) { return m_reading.isGrainWritten(grainIndex); }
    bool isGrainWrittenHere(__int64 grainIndex) { return m_reading.isGrainWrittenHere(grainIndex); }

    /// Comes before each change of what grains hold that is made past this object, straight in the
    /// disk's files: gives the disk its new content ID, as `write` does. For a disk opened for
    /// writing. See `DirectWriting`.
    void beginDirectChange() { m_contentIDChange.ensureDone(); }

    /// See `ParentIndependence`. Does nothing on a disk without a parent.
    void makeGrainIndependentOfParent(__int64 grainIndex);

    /// See `ParentIndependence`. Does nothing on a disk without a parent.
    void holdGrain(__int64 grainIndex);
    void holdPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared);
    void holdEncipheredGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& enciphered);

    /// Brings all changes to the device; see `DiskWriting::flush`.
    void flush() { m_writing.flush(); }

    /// Brings all changes to the device, and then the word that the disk is no longer unfinished,
    /// by a change of one line that keeps its length. Nothing but the first on a disk that is not.
    void markComplete();

    /// Brings the descriptor to the device, after changes to `getDisk().getDescriptor()`. A file of
    /// text that has no room for them gets it, as `giveDescriptorRoom` gives it. Its checksum
    /// is kept true (`updateChecksum`). A disk without one gets none, and one whose stored text
    /// differs from its checksum goes on differing: a change of ours says nothing about the rest.
    void storeDescriptor();

    /// Something outside of the disk, such as its digests, says from now on what the disk holds
    /// under its present content ID: the next change gives it a new one, even if this opening has
    /// given it one already. For a disk opened for writing, flushed.
    void settleContent() {
        m_contentIDChange.renew();
        m_digestRemoval.renew();
    }

    /// The files of the disk: the main file, then the extent files that are files of their own.
    std::vector<yx::CURI> listFiles();

    /// Where an extent that begins at a position of the disk ends, if its file has not been made yet,
    /// so that this very disk holds nothing there; otherwise the position.
    __int64 findMissingEnd(__int64 positionBytes) const {
        return m_extentFiles.findMissingEnd(positionBytes);
    }

    /// The extents in order, without gaps.
    std::vector<DiskExtent> const& listExtents() const { return m_layout.getExtents(); }

    /// Whether the file of an extent may be missing, since nothing has been written there yet.
    bool createsExtentFilesOnDemand() const { return m_extentFiles.areMadeOnDemand(); }

    /// Where the files of the disk are.
    yx::IFileSystem* getFileSystem() { return m_fileSystem.get(); }

    /// How far its descriptors are believed.
    DiskTrust const& getTrust() const { return m_diskFiles->getTrust(); }

private:
    SafeDisk(yx::P<DiskFileSystem> const& diskFiles, yx::CURI const& uri,
             yx::IIOStream::Access access, yx::String const& password, int compressionLevel,
             int readCacheLimit);

    void verifyWholeGrainExtents() const;

    yx::P<DiskFileSystem> m_diskFiles;

    /// Over `m_diskFiles`.
    yx::P<SyncWatch> m_fileSystem;
    yx::P<CVMDKDisk> m_disk;
    yx::IIOStream::Access m_access;
    bool m_isMerged = false;
    bool m_hasParent;
    DiskLayout m_layout;
    ChainGrains m_grains;
    ContentIDChange m_contentIDChange;
    DigestRemoval m_digestRemoval;
    ExtentFiles m_extentFiles;
    ExtentRoom m_room;
    TableLimit m_tableLimit;
    UnflushedGrains m_unflushed;
    StoredView m_storedView;
    DiskReading m_reading;
    PreparedReading m_preparedReading;

    // What operations that write read before: there, a change that cannot be stored is an error.
    DiskReading m_strictReading;
    PreparedReading m_strictPreparedReading;
    DiskWriting m_writing;
    ZeroWriting m_zeroWriting;
    ParentIndependence m_independence;
};

} // namespace kelm::host
