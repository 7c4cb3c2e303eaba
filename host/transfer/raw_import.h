#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/image_length.h"
#include "host/transfer/raw_source.h"

namespace kelm::host {

/// What a disk holds before an image is copied to it.
enum class PresentContent {
    OfParent, ///< nothing of its own
    Any,      ///< anything, such as a part of the image; what is equal stays as it is
};

/// Copies a raw image to the start of a disk, and flushes the disk. Zeros take no space. On a child
/// disk only grains that differ from the parent are stored. What lies behind the image's end stays.
///
/// An image longer than the disk, or than `length`, is `CIOError` `NotAllowed`, for a pipe once it
/// has delivered too much. A shorter one than `length` admits is `CIOError` `NotAllowed`, once
/// what has come is in the disk. Give a length for every pipe: one whose writer fails just ends. On
/// a child disk `beginWholeReading` comes first.
///
/// `present` says what the disk holds.
void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options,
               ImageLength const& length = {}, PresentContent present = PresentContent::OfParent);

} // namespace kelm::host
