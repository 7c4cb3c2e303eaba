#pragma once

#include "host/disk/content_id_change.h"
#include "host/disk/digest_removal.h"
#include "host/disk/extent_files.h"
#include "host/disk/extent_room.h"
#include "host/disk/stored_view.h"
#include "host/disk/table_limit.h"
#include "host/disk/unflushed_grains.h"
#include "host/store/sync_watch.h"

namespace kelm::host {

/// Every change to the content of a disk, with what has to come before it: room in the file, a new
/// content ID, the file itself. Zeros over a parent's data go through `ZeroWriting`.
class DiskWriting {
public:
    /// What a change means for the children of the disk.
    enum class Content {
        Changes, ///< the disk gets a new content ID
        Stays,   ///< it reads as before, and its children go on to know it; its digests go
    };

    /// All of them must outlive the object.
    DiskWriting(CVMDKDisk& disk, DiskLayout const& layout, SyncWatch const& syncWatch,
                ContentIDChange& contentIDChange, DigestRemoval& digestRemoval, ExtentFiles& files,
                ExtentRoom& room, TableLimit& tableLimit, UnflushedGrains& unflushed,
                StoredView& storedView);

    /// Throws what a write of that range would throw for its place and the disk's access.
    void verifyMayWrite(__int64 positionBytes, __int64 bytes);

    /// Comes before all other operations of a range. Errors are those of `ExtentRoom`.
    void reserveRoom(__int64 positionBytes, __int64 bytes);

    /// Writes exactly `bytes` bytes at `positionBytes`. Content that stays is not noted as
    /// unflushed, since nothing is lost with it.
    void write(__int64 positionBytes, void const* buffer, int bytes, Content content);

    /// Stores a grain of the disk (`FileGrain::isGrainOfDisk`) that was prepared for its index.
    void writePrepared(__int64 grainIndex, yx::TBuffer<unsigned char> const& data, Content content);

    /// The same for a grain that was enciphered for its index too.
    void writeEnciphered(__int64 grainIndex, yx::TBuffer<unsigned char> const& data,
                         Content content);

    /// Brings all changes to the device. Once a file of the disk could not be synced, every call
    /// throws the error of that again.
    void flush();

    /// Whether bytes may be in memory alone.
    bool hasUnflushedWrites() const { return m_hasUnflushedWrites; }

private:
    void prepareChange(__int64 positionBytes, __int64 bytes, Content content);
    void beginChangeOfGrain(__int64 positionBytes);
    void beginWholeGrain(__int64 grainIndex, Content content);

    CVMDKDisk& m_disk;
    DiskLayout const& m_layout;
    SyncWatch const& m_syncWatch;
    ContentIDChange& m_contentIDChange;
    DigestRemoval& m_digestRemoval;
    ExtentFiles& m_files;
    ExtentRoom& m_room;
    TableLimit& m_tableLimit;
    UnflushedGrains& m_unflushed;
    StoredView& m_storedView;
    bool m_hasUnflushedWrites = false;
};

} // namespace kelm::host
