#pragma once

#include "host/disk/safe_disk.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

/// Reads, in order, the grains that a disk or one of its parents holds, and skips the others. For
/// whatever copies a whole disk. The error of a grain that cannot be read has its place, as
/// `addGrainPlace` says. To learn which grains there are, without reading them, use
/// `forEachGrainRun`.
class WrittenGrainReader {
public:
    /// Both must outlive the reader. `progress` advances while grains are skipped, and is told of
    /// what is read.
    WrittenGrainReader(SafeDisk& disk, TransferProgress& progress);

    /// The same, but only of grains that begin before `endBytes`.
    WrittenGrainReader(SafeDisk& disk, TransferProgress& progress, __int64 endBytes);

    /// Sets the index of the next grain, for a caller that reads it by itself, or returns false if
    /// there is none.
    bool findNext(__int64& grainIndex);

    /// Reads the next grain and sets its index, or returns false if there is none. `isPrepared`
    /// becomes whether `grain` has the prepared form, which is taken wherever it can be had.
    bool readNext(yx::TBuffer<unsigned char>& grain, __int64& grainIndex, bool& isPrepared);

    /// Does the same, but reads the plain form only.
    bool readNextPlain(yx::TBuffer<unsigned char>& grain, __int64& grainIndex);

private:
    bool findNext();

    SafeDisk& m_disk;
    TransferProgress& m_progress;
    __int64 m_nextGrainIndex = 0;
    __int64 m_endGrainIndex;
};

} // namespace kelm::host
