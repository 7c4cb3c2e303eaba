#pragma once

#include "kelm/disk/disk.h"

namespace kelm::host {

/// Gives a disk a new content ID once for each opening, before its first change, so that a child
/// notices that its parent has changed.
///
/// The library does this by itself too, but a power cut can harm that: its new ID may have another
/// number of digits, and then moves every later line of the descriptor, some of them from one
/// sector to the next. Here the new ID has as many digits as the old one. Do not use it for changes
/// after which the disk reads as before; its children still know such a disk.
class ContentIDChange {
public:
    /// Ends the library's own updates. `disk` must outlive the object.
    explicit ContentIDChange(CVMDKDisk& disk);

    /// Draws the ID and brings it to the device, unless that was done before. After a failure the
    /// descriptor in memory has the old ID, and the next call tries again.
    void ensureDone();

private:
    CVMDKDisk& m_disk;
    bool m_isDone = false;
};

/// A random value that is written with as many hexadecimal digits as `contentID`, and is neither
/// that nor one of the two that mean no disk.
unsigned int drawContentIDLike(unsigned int contentID);

} // namespace kelm::host
