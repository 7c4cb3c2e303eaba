#pragma once

#include "host/cancel.h"
#include "host/progress.h"
#include "host/raw_source.h"
#include "host/raw_target.h"
#include "host/safe_disk.h"

namespace kelm::host {

/// How a transfer is to go about its work.
struct TransferOptions {
    /// Workers that compress and decompress; 0 for as many as the machine has cores.
    int threads = 0;

    /// Is told how far the work has come; may be empty.
    ProgressCallback progress;

    /// May be null. When it is set, the transfer ends with `CancelledError`.
    CancelFlag const* cancel = nullptr;
};

/// How many workers these options ask for.
int countThreads(TransferOptions const& options);

/// Copies a raw image to the start of a disk, and flushes the disk. Zeros take no space. On a child
/// disk only grains that differ from the parent are stored. What lies behind the image's end stays. An image longer than the disk is
/// `CIOError` `NotAllowed`, for a pipe once it has delivered too much.
void importRaw(RawSource& source, SafeDisk& disk, TransferOptions const& options);

/// Copies a whole disk to a raw image and finishes that. Zeros become holes.
void exportRaw(SafeDisk& disk, RawTarget& target, TransferOptions const& options);

/// Copies the content of a disk to another one, which is at least as large and reads as zeros, and
/// flushes it. Grains pass in prepared form, without being compressed anew, where both disks store
/// grains of one size compressed.
void convertDisk(SafeDisk& from, SafeDisk& to, TransferOptions const& options);

/// Makes every grain of a child disk its own and flushes. The link to the parent stays.
void makeIndependentOfParent(SafeDisk& disk, TransferOptions const& options);

} // namespace kelm::host
