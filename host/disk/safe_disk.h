#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "host/disk/file_guard.h"
#include "kelm/kelm.h"

namespace kelm::host {

/// A file of a disk cannot grow beyond this: tables name sectors in 32 bits.
constexpr __int64 kMaxExtentFileBytes = 0x20000000000;

/// The grain tables that a disk keeps in memory, with those of its parents: up to 48 MiB, for 512 GiB
/// of disk with grains of 64 KiB.
constexpr int kMaxTablesInMemory = 16384;

/// The most parents that a chain can have.
constexpr std::size_t kMaxChainLength = CVMDKParentDiskDataProvider::kMaxChainDepth;

/// What a new disk is to be.
struct NewDisk {
    /// At least this many bytes; disks are whole numbers of 64 KiB, and no smaller than 8 MiB.
    __int64 sizeBytes = 0;

    /// Empty for a disk that is not encrypted.
    yx::String password;

    /// Whether grains are stored compressed.
    bool compressed = false;

    /// 0 to 9, -1 for the default.
    int compressionLevel = -1;

    /// The largest size of any file, -1 for one file.
    __int64 fileSizeLimitBytes = -1;

    /// Whether all extent files but the first come into being at their first write.
    bool createExtentFilesOnDemand = false;

    /// The parent's main file; empty for none. It is opened with `password` too.
    yx::CURI parent;
};

/// A stretch of a disk, and the file that holds it.
struct DiskExtent {
    /// Normalised.
    yx::CURI uri;

    /// The stretch, in bytes of the disk.
    __int64 startBytes = 0;
    __int64 endBytes = 0;
};

/// A disk as a host should use it: by positions, and without the traps of the bare library.
///
/// - A grain of a child disk that turns all zero over a parent that has data there is stored, where
///   `CVMDKDisk::write` would leave it to the parent's old data.
/// - A disk opened for writing has a grain table cache without limit, since with one it may replace a
///   changed table by a stale copy. At `kMaxTablesInMemory` all are flushed and dropped.
/// - No extent file grows beyond 2 TiB, where table entries would drop bits without a word.
/// - Grains are made independent of the parent only after a flush, and only where there is a parent.
/// - A text descriptor that fills its file gets room for the changes that the first write brings.
/// - A disk that is being closed by a writer is refused to a reader, where the library may go on
///   without a lock.
/// - A disk with a missing extent file is not opened for writing, which would put an empty file in
///   the missing one's place.
/// - A power cut harms nothing that was flushed: a new disk is on the device with all its files
///   before it is handed out, and so is an extent file that is made on demand before grains go in;
///   a new content ID has as many digits as the old one, so that it moves no other line of a
///   descriptor from one sector to the next; and a disk that is opened for writing is freed of what
///   a cut can leave in it, that is slots of the wrong size and extent files that are not finished.
///
/// URIs should be those of `uriFromArgument`, so that every user of a disk names the same lock
/// file. Errors are those of `CVMDKDisk` unless said otherwise. Serves one thread at a time.
class SafeDisk {
public:
    /// Opens a disk. A main file that does not exist is `CIOError` `NotFound`, also for writing; a
    /// missing extent file of a disk to be written to is `NotFound` with that file's "uri". A disk
    /// in which an extent but the last is no whole number of grains is `NotSupported` for writing.
    /// `readCacheLimit` is the most grain tables that a disk opened for reading keeps.
    SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
             yx::String const& password, int compressionLevel = -1,
             int readCacheLimit = CVMDKGrainTableCache::kDefaultLimit);

    /// Makes a disk through `files` and opens it for writing. An existing file in the place of one
    /// of the disk's files is `CIOError` `AlreadyExists`, unless `files` may overwrite. A single
    /// file that could pass 2 TiB is `CInvalidArgError`, with splitting named as the way out, and so
    /// is a name that ends in ".lock" or that a descriptor cannot hold. Even where `files` may
    /// overwrite, an existing disk that is in use is `CLockFileError`, and a file of one of the
    /// parents is `NotAllowed`. The guard takes away what was made, unless it is told to keep it
    /// once the disk is as it should be; the disk must be gone first.
    static std::unique_ptr<SafeDisk> create(FileGuard* files, yx::CURI const& uri,
                                            NewDisk const& request);

    SafeDisk(SafeDisk const&) = delete;
    SafeDisk& operator=(SafeDisk const&) = delete;
    ~SafeDisk() = default;

    /// The disk itself, for all that needs no care: reading and asking.
    CVMDKDisk& getDisk() { return *m_disk; }

    /// The size of the disk, and that of its grains.
    __int64 getSizeBytes() const { return m_disk->getSizeBytes(); }
    __int64 getGrainSizeBytes() const { return m_disk->getGrainSizeBytes(); }

    /// How many grains the disk has, the last one perhaps cut short.
    __int64 getGrainCount() const;

    /// Whether this is a child disk.
    bool hasParent() const { return m_hasParent; }

    /// Whether the grain can be stored in prepared form: it is no last grain that is cut short.
    bool isWholeGrain(__int64 grainIndex) const;

    /// Reads or writes exactly `bytes` bytes at `positionBytes`.
    void read(__int64 positionBytes, void* buffer, int bytes);
    void write(__int64 positionBytes, void const* buffer, int bytes);

    /// Makes the range read as zeros, taking no space where it does already.
    void writeZeros(__int64 positionBytes, __int64 bytes);

    /// Stores a whole grain that `CVMDKDisk::createDataPreparer` prepared for its index.
    void writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data);

    /// Fills `data` with a whole grain in prepared form, or returns false where that cannot be: the
    /// last grain of a disk that is no whole number of grains, the same of a parent, and a grain of
    /// a parent that stores its grains in another form.
    bool tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

    /// Whether the chain holds the grain; false means that it reads as zeros.
    bool isGrainWritten(__int64 grainIndex);

    /// Whether this very disk holds the grain.
    bool isGrainWrittenHere(__int64 grainIndex);

    /// Gives a grain that the parent holds a copy of its own. Grains that are here, or nowhere in
    /// the chain, stay as they are, and so does a last grain that is cut short and reads as zeros,
    /// as it does without a parent too.
    void makeGrainIndependentOfParent(__int64 grainIndex);

    /// Brings all changes to the device.
    void flush();

    /// The files of the disk: the main file, then the extent files that are files of their own.
    std::vector<yx::CURI> listFiles();

    /// The extents in order.
    std::vector<DiskExtent> listExtents() const;

    /// Whether the file of an extent may be missing, since nothing has been written there yet.
    bool createsExtentFilesOnDemand() const { return m_createsExtentFilesOnDemand; }

    /// Where the files of the disk are.
    yx::IFileSystem* getFileSystem() { return m_fileSystem.get(); }

private:
    struct Extent {
        __int64 endBytes;
        yx::CURI uri;

        /// At least the length of the file, with all that may still be on its way; -1 if not known.
        __int64 lengthBoundBytes;

        /// The file is there; else it may be, or not yet.
        bool isThere;
    };

    SafeDisk(yx::IFileSystem* fileSystem, yx::P<CVMDKDisk> const& disk);

    static void verifyFitsOneFile(NewDisk const& request);
    static __int64 calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer);

    static void syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);
    void recoverFromPowerCut();
    void removeIfUnfinished(DiskExtent const& extent);
    bool isUnfinished(DiskExtent const& extent);
    void repairSlotsOf(DiskExtent const& extent);
    void makeExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent);
    void makeExtentFilesOnDemand(__int64 positionBytes, __int64 bytes);
    void changeContentID();

    void dropTablesIfMany();
    void collectExtents();
    void verifyWholeGrainExtents();
    void verifyExtentFilesExist();
    void giveDescriptorRoom();
    void reserveRoom(__int64 positionBytes, __int64 bytes);
    void reserveRoomInExtent(Extent& extent, __int64 growthBytes);
    void verifyMayWrite(__int64 positionBytes, __int64 bytes);
    void writePlain(__int64 positionBytes, void const* buffer, int bytes);
    void writeZerosToGrain(__int64 positionBytes, int bytes);
    void storeZeroGrain(__int64 grainIndex);
    void zeroShortGrain(__int64 grainStartBytes, int grainBytes);
    bool tryPreparedOp(__int64 grainIndex, std::function<void()> const& operation);
    void copyPlainFromParent(__int64 grainIndex);
    int grainBytesAt(__int64 grainStartBytes) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::P<CVMDKDisk> m_disk;
    bool m_hasParent;
    bool m_createsExtentFilesOnDemand;
    bool m_extentsAreWholeGrains = true;
    std::vector<Extent> m_extents;
    __int64 m_worstCaseGrainBytes;
    bool m_haveUnflushedWrites = false;
    bool m_hasNewContentID = false;
    bool m_parentIsOfOneForm = true;
    yx::P<CVMDKDataPreparer> m_preparer;
    yx::P<yx::TBuffer<unsigned char>> m_preparedZeroGrain;
    yx::TBuffer<unsigned char> m_grain;
    yx::TBuffer<unsigned char> m_parentsGrain;
};

} // namespace kelm::host
