#pragma once

#include <memory>

#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// Asks the file systems of child disks, and of new ones, whether they have room for copies of
/// grains that other disks hold. Reads tables of the whole chain, and no grains.
///
/// Counted are whole grains in a plain disk. In a compressed one a record counts as much as it
/// takes where it is; what must be compressed first counts a sector, since nobody knows more, and
/// so the device may still run full. Files of other URIs than "file:" are passed over.
class ParentsRoom {
public:
    /// Asks for nothing yet.
    ParentsRoom();
    ParentsRoom(ParentsRoom const&) = delete;
    ParentsRoom& operator=(ParentsRoom const&) = delete;
    ~ParentsRoom();

    /// Adds what copies of these grains take in the files of the disk. `cancel` may be null.
    void add(SafeDisk& disk, GrainSet const& grains, CancelFlag const* cancel);

    /// A disk that is to be made.
    struct NewDiskPlace {
        /// Where its files will lie.
        yx::CURI mainFile;

        /// Whether it will keep records.
        bool isCompressed = false;
    };

    /// Adds what copies of these grains of `source`, which it holds itself or gets from its parents,
    /// take in a new disk. `cancel` may be null.
    void addNewDisk(SafeDisk& source, GrainSet const& grains, NewDiskPlace const& place,
                    CancelFlag const* cancel);

    /// Throws `yx::CIOError` `NoSpace` if a file system has less, with `message`, "uri", the folder
    /// of the first file there, "neededBytes" and "freeBytes".
    void verify(char const* message = "There is no room for what the parents hold.") const;

private:
    class Stores;

    std::unique_ptr<Stores> m_stores;
};

} // namespace kelm::host
