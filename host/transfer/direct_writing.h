#pragma once

#include <list>
#include <optional>
#include <vector>

#include "host/disk/safe_disk.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// Reads and writes a disk that is open for writing, and touches of grains that are stored plain
/// only the bytes that are asked for, straight at their places in the files. The library changes a
/// grain as a whole: it reads and writes 64 KiB for a write of 4 KiB. For a server, whose clients
/// send small requests for places anywhere.
///
/// A grain takes this road once it has a place in a file of the disk, and the table that says so is
/// on the device: it keeps that place as long as the disk is open. All others take the usual road,
/// `SafeDisk`, and so does a grain that was changed there until the next flush. So no grain is
/// changed on both roads between two flushes, and what the library keeps in memory of a grain is not
/// asked for once it has changed here.
///
/// What is compressed or encrypted, grains that are none of the disk's as a whole
/// (`FileGrain::isGrainOfDisk`), and files that demand alignment always take the usual road.
///
/// Keeps at most 16 files open, and so many grain tables as it is told. Serves one thread at a time.
class DirectWriting {
public:
    /// `disk` is open for writing and must outlive the object. From now on, nobody reads or changes
    /// what it holds but through this object. Reads nothing yet.
    DirectWriting(SafeDisk& disk, int maxTables);
    DirectWriting(DirectWriting const&) = delete;
    DirectWriting& operator=(DirectWriting const&) = delete;

    /// Brings nothing to the device; call `flush` before.
    ~DirectWriting();

    /// Reads as `readWithGrainPlace`.
    void read(__int64 positionBytes, void* buffer, int bytes);

    /// As `SafeDisk::write` and `SafeDisk::writeZeros`. What goes straight to a file is there when
    /// this returns, and an error of it is thrown at once.
    void write(__int64 positionBytes, void const* buffer, int bytes);
    void writeZeros(__int64 positionBytes, __int64 bytes);

    /// Brings all changes of both roads to the device, as `SafeDisk::flush` does: once a file could
    /// not be synced, every call throws the error of that again.
    void flush();

private:
    struct Extent;

    /// A range that takes one road.
    struct Stretch {
        /// Null for the usual road.
        Extent* extent = nullptr;

        /// Where it begins in the file.
        __int64 positionInFile = 0;
        __int64 bytes = 0;
    };

    bool isInDisk(__int64 positionBytes, __int64 bytes) const;
    Extent& extentOf(__int64 grainIndex);
    bool isServed(Extent& extent);
    bool hasServedForm(Extent const& extent);
    void openFile(Extent& extent);
    void readTables(Extent& extent);
    void makeRoomForFile();
    __int64 findPlace(Extent& extent, __int64 grainIndex);
    Stretch findGrain(__int64 grainIndex);
    Stretch findStretch(__int64 positionBytes, __int64 maxBytes);
    void readStretch(Stretch const& stretch, __int64 positionBytes, unsigned char* target);
    void writeStretch(Stretch const& stretch, unsigned char const* source);
    void zeroStretch(Stretch const& stretch, __int64 positionBytes);
    void noteUsual(__int64 positionBytes, __int64 bytes);
    void settleTouched();

    SafeDisk& m_disk;

    /// Of read-only directories, so a table that leaves it is not lost.
    yx::P<CVMDKGrainTableCache> m_tables;

    /// Of the whole disk, in order. Empty if all takes the usual road.
    std::vector<Extent> m_extents;

    /// Those whose files are open, the one used last first.
    std::list<Extent*> m_open;

    /// The grains that were changed on the usual road since the last flush.
    GrainSet m_touched;
    bool m_hasTouched = false;

    /// Those that had been, at any flush: their places may be younger than tables in memory.
    GrainSet m_flushed;

    /// How many flushes there were.
    __int64 m_flushCount = 0;
    yx::TBuffer<unsigned char> m_zeros;
    yx::TBuffer<unsigned char> m_present;
};

} // namespace kelm::host
