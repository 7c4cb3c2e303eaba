#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/grain_set.h"
#include "host/transfer/record_verifier.h"

namespace kelm::host {

/// The digests of a conversion; each may be null.
struct ConversionDigests {
    /// Those of the disk that is made: they get the digests of the grains that it then holds, made by
    /// the workers; records are then decoded whatever the check says. Between disks of different
    /// grain sizes they get none, and finishing them makes all.
    DigestMaking* made = nullptr;

    /// Those of the disk that is copied (`ChainDigests::openOfDisk`). A grain that differs from its
    /// digest ends the conversion, as `KnownDigests::verify` says; with `made` null, grains are not
    /// compared.
    ChainDigests* known = nullptr;
};

/// Copies the content of a disk to another one, which is at least as large and reads as zeros, and
/// flushes it. Where both disks store grains of one size compressed, records are copied as they
/// are, without being compressed anew; `check` says whether they are verified first.
///
/// A smaller target is `CIOError` `NotAllowed`. A grain that cannot be read or decoded, or whose
/// record fails the check, ends the conversion; the error has the grain's place, as `addGrainPlace`
/// says. `beginWholeReading` comes before all else. The target keeps few tables from then on
/// (`kMaxTablesOfOnePass`).
void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options,
                 RecordCheck check = RecordCheck::Decode, ConversionDigests const& digests = {});

/// The same for a part of the grains of a disk, onto a disk over a parent that has all others: zeros
/// are stored where the parent has something else. What `to` has behind the end of `from` becomes
/// zeros.
void convertGrainsOf(SafeDisk& from, SafeDisk& to, GrainSet const& grains,
                     WorkOptions const& options, RecordCheck check = RecordCheck::Decode,
                     ConversionDigests const& digests = {});

} // namespace kelm::host
