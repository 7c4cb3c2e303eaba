#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// What to demand of a new parent.
enum class ParentCheck {
    Content, ///< that its content ID is the one that the child was made of
    None,    ///< nothing; the child takes the new content ID
};

/// Points a child disk, which is open for writing, to the place of its parent, and stores that. A
/// parent of other content is `CIOError` `NotAllowed`, and nothing is changed.
void repointToParent(SafeDisk& child, SafeDisk& parent, ParentCheck check);

/// Makes a child disk, which is open for writing and holds every grain itself, a disk without a
/// parent, and stores that. The disk object is only good for closing afterwards.
void dropParentLink(SafeDisk& disk);

} // namespace kelm::host
