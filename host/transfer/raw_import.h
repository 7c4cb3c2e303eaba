#pragma once

#include "host/digest/chain_digests.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/changed_grains.h"
#include "host/transfer/digest_making.h"
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
/// a child disk `beginWholeReading` comes first. The disk keeps few tables from then on
/// (`kMaxTablesOfOnePass`).
///
/// `present` says what the disk holds. `digests`, which may be null, gets the digest of every grain
/// that the disk then holds, made by the workers, and the bytes of the image if it asks for them;
/// finishing it is the caller's.
///
/// `parents`, which may be null, are the digests of the parents of a child that holds nothing of its
/// own: with them, grains of the image are compared by their digests, by the workers, and the data
/// of the parents is not read but where a grain of theirs becomes zeros, and in the last grain.
///
/// `changes`, which may be null, are for the same kind of child and an image that is no pipe: only
/// the grains that they say are read, and all others stay those of the parents. One that is read
/// only to see whether that is true, and is not, is `CIOError` `NotAllowed` "The image has changed
/// where the list of changes has nothing." with "bytes".
void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options,
               ImageLength const& length = {}, PresentContent present = PresentContent::OfParent,
               DigestMaking* digests = nullptr, ChainDigests* parents = nullptr,
               ChangedGrains const* changes = nullptr);

} // namespace kelm::host
