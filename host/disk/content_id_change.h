#pragma once

#include "kelm/disk/disk.h"

namespace kelm::host {

/// Gives a disk a new content ID once for each opening, before its first change, so that a child
/// notices that its parent has changed, and digests that they are of another content.
///
/// The library does this by itself too, but a power cut can harm that: its new ID may have another
/// number of digits, and then moves every later line of the descriptor, some of them from one
/// sector to the next. Here the ID has eight digits, and the place for them is made once; see
/// `writeContentID`. Do not use it for changes after which the disk reads as before; its children
/// still know such a disk.
class ContentIDChange {
public:
    /// Ends the library's own updates. `disk` must outlive the object.
    explicit ContentIDChange(CVMDKDisk& disk);

    /// Draws the ID and brings it to the device, unless that was done before. After a failure the
    /// descriptor in memory is the old one, and the next call tries again.
    void ensureDone();

    /// Makes the next change give the disk a new content ID again, since something now says what
    /// the disk holds under the present one.
    void renew() { m_isDone = false; }

private:
    CVMDKDisk& m_disk;
    bool m_isDone = false;
};

/// A random value, of the whole range of 32 bits, that is neither `contentID` nor one of the two
/// that mean no disk.
unsigned int drawContentID(unsigned int contentID);

/// Gives a descriptor that content ID, in memory, in eight hexadecimal digits with zeros in front.
/// A place of more characters is filled up with zeros too.
///
/// A place of fewer characters grows once. Where the lines behind would move from one sector to the
/// next by that, a comment in the ID's sector makes up for it (`replaceInArea`), so that a power
/// cut leaves the old text or the new one. Where there is no such comment, a place of six or seven
/// characters stays as it is and takes the ID's last digits, which are still more than any two
/// backups will draw alike: what a cut can tear there is the key of an encrypted disk. A place
/// below six characters, which only other software makes, grows in any case. Returns the ID that
/// the descriptor has then.
unsigned int writeContentID(CVMDKDescriptor& descriptor, unsigned int contentID);

} // namespace kelm::host
