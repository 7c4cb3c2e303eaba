#pragma once

#include "kelm/disk/space_info.h"
#include "kelm/export.h"
#include "kelm/extent/data_provider.h"
#include "kelm/extent/extent_file.h"
#include "kelm/format/content_id_updater.h"
#include "kelm/format/descriptor.h"
#include "kelm/format/descriptor_accessor.h"
#include "kelm/format/extent_info.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/graindata/grain_cipher.h"
#include "kelm/metadata/grain_table_cache.h"
#include "krym/krym.h"
#include "yx/array.h"
#include "yx/file_system.h"
#include "yx/lock_file.h"
#include "yx/map.h"

namespace kelm {

/// The whole message of the error of an encrypted disk that is opened without a password, and of
/// one that is opened with a wrong one. No code of an error says it, so hosts compare with these.
inline constexpr char kPasswordMissingMessage[] = "VMDK is encrypted but no password provided";
inline constexpr char kPasswordWrongMessage[] =
    "Specified VMDK encryption password is not correct.";

/// How the message begins with which `CVMDKDisk::create` refuses a file size limit that leaves no
/// room for a grain. Behind it stands how many bytes it would leave, below 0 perhaps.
inline constexpr char kFileSizeLimitTooSmallMessagePrefix[] =
    "Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: ";

/// The same for a disk that the limit would cut into more extents than a descriptor may name.
inline constexpr char kTooManyExtentsMessagePrefix[] =
    "Internal error: calculated VMDK descriptor size exceeds estimated worst case descriptor size ";

/// What the name of a lock file ends with; see `CVMDKDisk::getLockFileURI`.
inline constexpr char kLockFileExtension[] = ".lock";

/// A whole virtual disk: one positioned byte space, and a run of grains of one size.
///
/// A disk lies in one or more extents, end to end, of which at most one is open at a time. It has
/// one cursor and serves one thread at a time; disks that share a grain table cache, as a child and
/// its parents do, must together be used by one thread at a time. Between processes, and between
/// objects of one process, disks are kept apart by a lock file beside the main file.
///
/// Writing is lazy: data may stay in memory until `flushChanges`. The destructor flushes too, but a
/// failure there is only reported to `yx::onExceptionInDestructorIgnored`.
///
/// Errors are of the `yx::CError` family. A failed range or access check changes nothing; a
/// failure below leaves the cursor at the start of the failed step and the object usable.
class KELM_API CVMDKDisk : public yx::CBase {
public:
    /// Opens the disk whose main file is `uri`.
    ///
    /// With `access` `ReadWrite` the disk is locked for this object alone, otherwise it is shared
    /// with other readers; a read-only opening goes on without a lock if the lock file neither
    /// exists nor can be made. `password` is for an encrypted disk and its parents, empty for none;
    /// a disk that is not encrypted ignores it. `compressionLevel` is for grains still to be
    /// written: 0 to 9, -1 for the default. `grainTableCache` may be null: the disk then makes its
    /// own, of 1024 tables. `parentDisk` may be null: the disk that the descriptor names is then
    /// opened when it is first needed.
    ///
    /// Throws `yx::CLockFileError` if the lock is not to be had, `yx::CIOError` `CorruptData` for a
    /// descriptor that it cannot serve, and `yx::CError` "Specified VMDK encryption password is not
    /// correct." and the like; each with "uri".
    CVMDKDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
              yx::String const& password, int compressionLevel,
              CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk);

    /// The same with a lock on `getLockFileURI(uri)` that the caller has taken, of the type that
    /// `access` needs: the disk holds it from now on. Null is as above.
    CVMDKDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
              yx::String const& password, int compressionLevel,
              CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
              yx::CLockFile* lockFile);

    /// A copy shares everything that is behind the disk, the open extent and the lock included, and
    /// has a cursor of its own; two such objects must not both be written to.
    CVMDKDisk(CVMDKDisk const&) = default;
    CVMDKDisk& operator=(CVMDKDisk const&) = default;

    /// Flushes; a failure is reported to `yx::onExceptionInDestructorIgnored`. Gives the lock back.
    ~CVMDKDisk() override;

    /// Makes a new, empty disk of at least `minSizeBytes` bytes, and returns it opened for writing.
    ///
    /// `fileSizeLimit` is the largest size in bytes of any file of the disk (above 2 TiB counts as
    /// 2 TiB), or -1 for one file that cannot be split, of at most 2 TiB of disk. `compressed`
    /// makes a "streamOptimized" disk, otherwise the limit decides between "monolithicSparse" and
    /// "twoGbMaxExtentSparse". `parentRelPath` and `parentContentID` make a child disk; they are
    /// the empty text and 0xFFFFFFFF for a disk without a parent, and are not compared with the
    /// parent here. `createExtentFilesOnDemand` leaves all extent files but the first to be made at
    /// first write. Extent files of the names that the disk needs are deleted.
    ///
    /// Throws `yx::CInvalidArgError` at "CVMDKDisk::create" for arguments that do not fit together,
    /// and `yx::CError` for a limit that is too small; no file has been touched then. A later
    /// failure leaves the files that were finished.
    static yx::P<CVMDKDisk> create(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                   __int64 minSizeBytes, yx::String const& password,
                                   bool compressed, int compressionLevel, __int64 fileSizeLimit,
                                   yx::String const& parentRelPath, unsigned int parentContentID,
                                   bool createExtentFilesOnDemand);

    /// The lock file of a disk: it lies beside the main file, under its name as given and
    /// `kLockFileExtension`. A main file of several names so has several lock files.
    static yx::CURI getLockFileURI(yx::CURI const& mainFileURI);

    /// The limit to offer for split disks: 2 GiB.
    static __int64 getDefaultFileSizeLimit();

    /// The grain size of newly made disks: 128 sectors, 64 KiB.
    static __int64 getGrainSizeSectors();

    /// The size of a disk made for `minSizeBytes`: at least 8 MiB, a whole number of grains.
    static __int64 getVirtualDiskSizeBytesFromMinSizeBytes(__int64 minSizeBytes);

    /// Derives a key of `keyBytes` bytes from the password's UTF-8 form into `key`.
    /// `keyDerivationAlgorithm` is "pkcs5-pbkdf2-hmac-sha1:" and the decimal iteration count, at
    /// least 1000; `salt` has at least 8 bytes. Anything else is `yx::CInvalidArgError` at
    /// "CVMDKDisk::deriveEncryptKey".
    static void deriveEncryptKey(yx::TCryptBuffer<unsigned char>& key, int keyBytes,
                                 yx::String const& password,
                                 yx::String const& keyDerivationAlgorithm,
                                 yx::TBuffer<unsigned char> const& salt);

    /// The sum of the extents.
    __int64 getSizeBytes() const { return m_sizeBytes; }

    /// Of this disk, as its first extent has it.
    __int64 getGrainSizeBytes() const { return m_grainSizeBytes; }
    bool getCompressed() const { return m_compressed; }

    /// Normalised.
    yx::CURI getMainFileURI() const { return m_mainFileURI; }
    yx::CURI getFirstExtentFileURI() const { return m_firstExtentFileURI; }

    /// Empty for a disk without a parent.
    yx::CURI getParentDiskMainURI() { return m_parentDiskMainURI; }

    /// The parent in use, opened by this if it was not yet; null for a disk without a parent. For
    /// asking what it holds: this disk seeks it before each use, so its cursor may be moved. It has
    /// this disk's grain table cache. Throws what opening the parent throws, as
    /// `CVMDKParentDiskDataProvider::ensureParentDiskOpen`.
    yx::P<CVMDKDisk> getParentDisk();

    /// The disk's working copy, not a copy of it. Changes reach the file with `storeDescriptor`.
    yx::P<CVMDKDescriptor> getDescriptor() { return m_descriptor; }

    /// The cache given to the constructor, or the disk's own. Parents use it too.
    yx::P<CVMDKGrainTableCache> getGrainTableCache() { return m_grainTableCache; }

    /// Whether grains are enciphered.
    bool isEncrypted() const { return m_cipher != nullptr; }

    /// Derives a key of 32 bytes for something else that belongs to this disk: HKDF-Expand (RFC
    /// 5869) of the disk's key with `purpose` as its info. A key tells nothing about the disk's and
    /// about those of other purposes, and stays the same when the password changes. Of a disk that
    /// is not encrypted it is `yx::CError` "VMDK is not encrypted".
    void derivePurposeKey(char const* purpose, yx::TCryptBuffer<unsigned char>& key) const;

    /// A new preparer of this disk's settings, for preparing grains elsewhere, on any thread.
    yx::P<CVMDKDataPreparer> createDataPreparer();

    /// A new cipher of this disk's key, for enciphering and deciphering grains elsewhere, on any
    /// thread. Of a disk that is not encrypted it is `yx::CError` "VMDK is not encrypted".
    yx::P<CVMDKGrainCipher> createGrainCipher();

    /// Whether the first change of an opening gives the disk a new content ID; true at first.
    void setContentIDUpdatesEnabled(bool enabled);

    /// Whether the grain table cache keeps to its limit by itself; true at first.
    void setAutomaticGrainTableFlushingEnabled(bool enabled);

    /// Writes the descriptor to its place in the main file and syncs it. Without write access:
    /// `yx::CError`.
    void storeDescriptor();

    /// Points a child disk to its parent's new place, in the descriptor and in the file; the parent
    /// in use stays. Without write access: `yx::CError`, and nothing changes.
    void changeParentRelPath(yx::String const& parentRelPath);

    /// Sets the cursor, from 0 to the disk's size; else `yx::CIOError` `BadPosition`.
    void seek(__int64 position);

    /// The cursor, in bytes. 0 at first.
    __int64 getPosition() const { return m_position; }

    /// Reads exactly `bytes` bytes from the cursor and moves it on. Past the end: `yx::CIOError`
    /// `UnexpectedEnd`, nothing read. A count below 1 does nothing.
    void read(void* buffer, int bytes);

    /// Writes exactly `bytes` bytes at the cursor and moves it on. Past the end: `yx::CIOError`
    /// `NotAllowed`; without write access: `yx::CError`. A count below 1 does nothing.
    ///
    /// A grain that has no place in this disk's own files and is overwritten with zeros gets none;
    /// over a parent that has data there, it shows the parent's data again once it is left. Use
    /// `writePreparedGrainData` for such grains.
    void write(void const* buffer, int bytes);

    /// Fills `data` with the grain under the cursor in prepared form and moves the cursor one grain
    /// on. Past the end: `NotAllowed`; off a grain boundary: `NotAligned`.
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data);

    /// Stores a grain in prepared form (see `createDataPreparer`), whatever it holds, and moves the
    /// cursor one grain on. Refuses like `readPreparedGrainData`, and without write access with
    /// `yx::CError`.
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data);

    /// Stores a grain that was prepared and then enciphered for its index in the disk (see
    /// `createGrainCipher`), as `writePreparedGrainData` stores a prepared one: byte for byte what
    /// that would store. Refuses like that, with `CorruptData` what
    /// `CVMDKGrainCipher::verifyIsEnciphered` refuses, and with `NotSupported` a grain of an extent
    /// that is cut in another way, or stored in another form, than the disk.
    void writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data);

    /// Fills `data` with the grain under the cursor as this very disk's file holds it, enciphered,
    /// moves the cursor one grain on and returns true. Returns false, and leaves the cursor, where
    /// this disk does not hold the grain, is not encrypted, or has it in an extent that is cut in
    /// another way, or stored in another form, than the disk. Refuses like `readPreparedGrainData`.
    bool tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data);

    /// Gives the grain its own copy of what it gets from the parent, and leaves the cursor behind
    /// it. Returns the bytes written or passed over. Flush before the first such call: unwritten
    /// changes of a grain without a place of its own would be lost.
    __int64 makeGrainIndependentOfParent(__int64 grainIndex);

    /// Whether the grain under the cursor holds data of this disk or of its parents.
    bool isGrainWritten();

    /// Whether the grain under the cursor holds data of this very disk.
    bool isGrainWrittenAndIndependentOfParent();

    /// How many of the bytes from the cursor on, at most `maxBytes`, are known to lie in grains of
    /// which this very disk holds nothing: up to the first grain that it holds or to the end of the
    /// extent, whichever comes first, and 0 if the grain under the cursor holds something. Much
    /// faster than to ask grain by grain. The cursor stays. Throws what
    /// `isGrainWrittenAndIndependentOfParent` throws, for any of the grains.
    __int64 countBytesWithoutData(__int64 maxBytes);

    /// Brings all changes to the device. Does nothing on a read-only disk.
    void flushChanges();

    /// How the files of the disk use their space; opens every extent in turn. The cursor stays,
    /// also when an extent fails.
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo();

protected:
    /// The sectors of an extent in the disk. Extents that share a sector are equivalent, so a
    /// search for one sector finds the extent that holds it.
    class CExtentKey {
    public:
        /// First sector in the disk, and how many there are.
        __int64 m_startSector = 0;
        __int64 m_sizeSectors = 0;

        /// By end against start, which makes overlapping keys equivalent.
        bool operator<(CExtentKey const& other) const {
            return m_startSector + m_sizeSectors <= other.m_startSector;
        }
    };

    /// What is known of an extent that need not be open.
    class CExtentValue {
    public:
        /// The extent's file.
        yx::CURI m_uri;

        /// The disk grain index of the extent's first grain; -1 until the grain size is known.
        __int64 m_startGrainIndex = -1;
    };

    /// All extents in disk order, and one of them.
    using ExtentMap = yx::TMap<CExtentKey, CExtentValue>;
    using ExtentEntry = std::pair<CExtentKey const, CExtentValue>;

    /// Makes the extent under the cursor current, leaving and flushing another one, and puts it to
    /// the cursor's place. `opBytes` receives how many bytes, at most `maxBytes`, lie before its
    /// end.
    void beginIOOp(__int64 maxBytes, yx::P<IVMDKExtentFile>& extent, __int64& opBytes);

    /// The extent object for a map entry whose URI is `m_currentExtentURI`.
    yx::P<IVMDKExtentFile> makeExtentFile(ExtentEntry const& entry);

    /// The descriptor in the main file, over the current extent's stream if that is the main file.
    yx::P<CVMDKDescriptorAccessor> openDescriptorAccessor();

private:
    friend class CVMDKParentDiskDataProvider;

    void takeLock(yx::CURI const& uri);
    void readDescriptor(yx::CProps const& uriProps);
    void unwrapEncryptionKey(yx::String const& password, yx::CProps const& uriProps);
    void readExtentLines(yx::CProps const& uriProps);
    void learnGrainSize();
    void makeParentDataProvider(yx::String const& password, CVMDKDisk* parentDisk);

    /// Tells how many child disks stand on this one, which bounds the length of a chain.
    void setChainDepth(int depth);

    yx::CProps mainFileProps() const;
    void leaveCurrentExtentIfOutside();
    void openExtentUnderCursor();
    void verifyPreparedGrainRange(char const* operation) const;
    void verifyWholeGrain(char const* function, __int64 opBytes) const;
    bool hasGrainsOfDisk(IVMDKExtentFile const& extent) const;
    void verifyWriteAccess(char const* function) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_mainFileURI;
    yx::IIOStream::Access m_access;
    yx::CURI m_firstExtentFileURI;
    int m_compressionLevel;
    yx::P<CVMDKGrainTableCache> m_grainTableCache;
    yx::CURI m_parentDiskMainURI;
    yx::P<IVMDKDataProvider> m_parentDataProvider;
    yx::P<CVMDKDescriptor> m_descriptor;
    yx::TArray<yx::P<CVMDKExtentInfo>> m_extentInfos;
    ExtentMap m_extentMap;
    __int64 m_sizeSectors = 0;
    __int64 m_sizeBytes = 0;
    __int64 m_grainSizeSectors = 0;
    __int64 m_grainSizeBytes = 0;
    bool m_compressed = false;
    __int64 m_position = 0;
    yx::P<IVMDKExtentFile> m_currentExtent;
    yx::CURI m_currentExtentURI;
    __int64 m_currentExtentStartBytes = -1;
    __int64 m_currentExtentSizeBytes = 0;
    yx::P<CVMDKContentIDUpdater> m_contentIDUpdater;
    bool m_createExtentFilesOnDemand = false;
    // Deliberately behind the extent, and so given back before it closes; it is flushed by then.
    yx::P<yx::CLockFile> m_lockFile;
    yx::P<krym::ICipher> m_cipher;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    yx::TBuffer<unsigned char> m_encryptionKeyHash;
};

} // namespace kelm
