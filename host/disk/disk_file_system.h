#pragma once

#include <exception>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "host/disk/disk_extent.h"
#include "host/disk/disk_reach.h"
#include "host/disk/file_locks.h"
#include "host/disk/kept_file.h"
#include "host/disk/overlaid_stream.h"
#include "host/disk/unfinished_extents.h"
#include "host/store/file_moving.h"

namespace kelm::host {

/// The files of one disk and of its parents, as the library is to see them. Made anew for each disk
/// object that is opened, over the file system that the files are on. What a descriptor says is
/// looked at here before the library acts on it.
///
/// - A disk in one file is the file that was named: see `correctOwnName`. Streams on such a file
///   show the descriptor as it should be, and the file of the name that it has is left alone. The
///   first write of the descriptor brings it to the file, or `storeOwnName` does.
/// - Each file is locked from when it is first opened until this ends, the disk's own shared or
///   alone, as it was opened, the parents' shared; see `FileLocks`. Lock files are not.
/// - A file that is opened again is the same file. One that somebody replaced meanwhile is
///   `CIOError` `IOFailure` "The file was replaced by another one while the disk was open." with
///   "uri", since it would be read and written by the tables of the old one, and is not deleted
///   either; one that was deleted is not made again. Only for files that can be told apart; see
///   `identifyStream`.
/// - A file of a disk that is only read is opened once for its lock and for all streams on it, and
///   the start of a main file is read once for an opening; see `KeptFile`.
/// - Only files that the descriptors may reach are opened, made or deleted (`DiskReach`), and those
///   of the parents are only read. Anything else is `CIOError` `NotAllowed`.
/// - An unfinished disk, or one with an unfinished parent, is `UnfinishedDiskError`, unless it is
///   trusted (`DiskTrust::unfinished`).
/// - Streams for reading show compressed extents with the slot sizes that a power cut has kept from
///   them: see `SlotFillingStream`. Extent files of disks that are only read, the parents, too, are
///   not there if they were never finished: see `UnfinishedExtents`.
/// - A raw image, or another file that is no disk, is refused as `verifyIsExtentOrText` does.
/// - A reader who may not write a lock file takes its lock through a stream for reading, and goes
///   on without the lock file where that cannot be had either but the disk's main file is locked:
///   an old lock file of another user, or on a medium that cannot be written, keeps no reader out.
///   One that somebody holds alone does: `CLockFileError` "The disk is in use: its lock file is
///   held by another program or another open disk." with "uri".
///
/// A descriptor is read when its file is first opened, which the library does under the lock. That
/// of a parent is looked at once before, since nothing is to be made beside a file that is no disk.
class DiskFileSystem : public yx::CBase, public virtual yx::IFileSystem, public virtual IFileMover {
public:
    /// `access` is what the disk at `mainFile` is opened for. `locks` may be null; given, it also
    /// holds the locks that were taken before, on files that the caller made.
    DiskFileSystem(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                   yx::IIOStream::Access access, DiskTrust const& trust = {},
                   FileLocks* locks = nullptr);
    DiskFileSystem(DiskFileSystem const&) = delete;
    DiskFileSystem& operator=(DiskFileSystem const&) = delete;

    /// Ends the locks, those that were given too.
    ~DiskFileSystem() override { m_locks->endAll(); }

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;
    void moveFile(yx::CURI const& from, yx::CURI const& to) override;

    /// Deletes the file with the digests of the disk (`digestFileOf`), if there is one, and brings
    /// that to the device.
    void deleteDigests();

    /// The disk has been opened, and what was kept of its files for that is not needed any more.
    void endOpening();

    /// How far descriptors are believed.
    DiskTrust const& getTrust() const { return m_trust; }

    /// Brings the right name of a disk in one file to the device, if the descriptor has a wrong one
    /// and a single sector is changed by that. Otherwise the next one who stores the descriptor
    /// does it. For a disk that is open for writing, before anything else stores its descriptor.
    void storeOwnName();

private:
    /// The disk, or one of its parents.
    struct Member {
        Member(yx::CURI const& uri, yx::IIOStream::Access wanted, DiskTrust const& trust);

        yx::CURI mainFile;
        yx::CURI lockFile;
        yx::IIOStream::Access access;
        DiskReach reach;

        /// The descriptor has been read.
        bool isKnown = false;

        /// Why the library could not have the lock file; it learns that from the main file.
        std::exception_ptr refusal = {};

        /// What the main file shows instead of its descriptor; null if it shows that.
        yx::P<Overlay> overlay = {};
    };

    /// What a descriptor says, as far as it matters here.
    struct Plan {
        std::vector<DiskExtent> extents;
        std::optional<yx::CURI> parent;
        yx::P<Overlay> overlay;
        yx::P<CVMDKDescriptor> descriptor;

        /// Any text parses as a descriptor; this one is such as a disk has.
        bool isOfDisk = false;
    };

    Member* findMain(yx::CURI const& uri);
    Member* findByLockFile(yx::CURI const& uri);
    Member& ownerOf(yx::CURI const& uri);
    yx::P<yx::IIOStream> openBelow(yx::CURI const& uri, yx::IIOStream::Access access,
                                   unsigned int options = 0);
    yx::P<yx::IIOStream> openSame(yx::CURI const& uri, yx::CURI const& name,
                                  yx::IIOStream::Access access, unsigned int options = 0);
    yx::P<yx::IIOStream> openAndLock(Member const& member, yx::CURI const& uri,
                                     yx::CURI const& name, yx::IIOStream::Access access,
                                     unsigned int options);
    yx::P<yx::IIOStream> tryOpenKept(yx::CURI const& uri, yx::CURI const& name);
    yx::P<yx::IIOStream> openKept(yx::CURI const& uri, yx::CURI const& name);
    yx::P<yx::IIOStream> openMainFile(Member& member, yx::CURI const& uri,
                                      yx::IIOStream::Access access, unsigned int options);
    yx::P<yx::IIOStream> openExtentFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                        unsigned int options);
    yx::P<yx::IIOStream> openLockFile(Member& member, yx::CURI const& uri,
                                      yx::IIOStream::Access access, unsigned int options);
    void verifyIsDisk(Member const& member);
    void goOnWithoutWriting(Member const& member, yx::CURI const& lockFile);
    bool tryJoinLockFile(yx::CURI const& lockFile);
    void verifyIsFinished(Member const& member, CVMDKDescriptor& descriptor) const;
    void verifyMayChange(Member const& member, yx::CURI const& uri) const;
    void verifyMayRemove(yx::CURI const& uri);
    bool isReplaced(yx::CURI const& name, std::optional<FileIdentity> const& identity);
    bool isReplaced(yx::CURI const& uri);
    void verifyGrainSize(Member const& member, yx::CURI const& uri, yx::IIOStream& stream);
    yx::P<yx::IIOStream> fillSlots(yx::CURI const& name, yx::P<yx::IIOStream> const& stream) const;
    bool lock(Member const& member, yx::CURI const& uri);
    Plan readPlan(Member const& member, yx::IIOStream* stream);
    void learn(Member& member, yx::IIOStream* stream);

    yx::P<yx::IFileSystem> m_fileSystem;
    DiskTrust m_trust;
    yx::P<FileLocks> m_locks;

    /// The disk, then its parents in order, as far as they are known.
    std::vector<Member> m_members;

    /// A file that a descriptor names.
    struct Extent {
        /// The index of the member that has it.
        std::size_t member;

        /// Where it begins in that disk.
        __int64 startBytes;
    };

    /// By their URIs.
    std::map<yx::CURI, Extent> m_extents;

    UnfinishedExtents m_unfinished;

    /// A file that has been opened.
    struct Opened {
        /// Absent until it is asked for, and of what is no file of a store.
        std::optional<FileIdentity> identity = {};

        /// Null of one that is not only read.
        yx::P<KeptFile> kept = {};

        /// How many streams on the kept file there have been.
        int streamCount = 0;
    };

    static std::optional<FileIdentity> identify(Opened& opened);

    /// By their URIs.
    std::map<yx::CURI, Opened> m_opened;

    /// Extents whose header has been looked at.
    std::set<yx::CURI> m_judged;

    /// Until `endOpening`.
    bool m_isOpening = true;

    /// Lock files that the library is not to see.
    std::set<yx::CURI> m_hidden;

    /// The locks on lock files that were opened for reading.
    std::vector<yx::P<yx::IStreamLock>> m_joined;
};

} // namespace kelm::host
