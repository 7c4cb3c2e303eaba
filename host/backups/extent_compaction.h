#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/disk/disk_key.h"

namespace kelm::host {

/// An extent as its compaction needs to know it.
struct ExtentToCompact {
    /// The index in the disk of its first grain.
    __int64 startGrainIndex = 0;

    /// The key of the disk; empty for one that is not encrypted.
    DiskKey key = {};

    /// Whether a grain that reads as zeros may go, by its index in the extent. Empty if none may, as
    /// in a child disk, where it hides what the parent has.
    std::function<bool(__int64 extentGrainIndex)> mayDropZeros = {};
};

/// What an extent file is like without its dead space.
struct CompactionPlan {
    /// The length of the file, and that of the new one.
    __int64 bytesBefore = 0;
    __int64 bytesAfter = 0;

    /// A bit for each grain: whether it goes.
    std::vector<bool> droppedGrains = {};

    /// Why the file has to stay as it is; empty if there is no reason.
    std::string obstacle = {};

    /// Whether a new file would be shorter.
    bool isWorthwhile() const { return obstacle.empty() && bytesAfter < bytesBefore; }
};

/// Receives how far the work has come: of `bytesBefore` while it is planned, of `bytesAfter` then.
/// Called after each grain. It may throw, to end the work.
using CompactionProgress = std::function<void(__int64 doneBytes)>;

/// Looks for the dead space of an extent file. Changes nothing. Dead are:
///
/// - records that no table entry refers to, and all else that lies between grains or behind them;
/// - what a slot has behind its record;
/// - grains that read as zeros, where the extent says that they may go;
/// - entries of the last table that lie behind the end of the extent, and their grains.
///
/// All stored grains are read and decoded, since a copy of a damaged record would be as damaged.
/// One that cannot be is `yx::CIOError` `CorruptData` "Grain 7 of the extent file <reason>, so the
/// file cannot be compacted." with "uri" and "grain", its index in the extent; a grain table that
/// `compareRedundantTables` finds damaged is "Grain table 3 <reason>, so the file cannot be
/// compacted." with "uri" and "table". Other errors are those of the stream and of
/// `CVMDKGrainDirectory`.
///
/// An extent whose metadata do not all lie before its first grain, as other software may make it,
/// is left alone: that is the plan's `obstacle`.
///
/// Takes some 3 MiB of memory, the directories, and a bit for each grain.
CompactionPlan planCompaction(yx::IIOStream& source, ExtentToCompact const& extent,
                              CompactionProgress const& progress);

/// Writes what the plan says into an empty file, and flushes it. The metadata, header, descriptor
/// and directories among them, are those of the source but for the entries of the tables. Grains
/// follow in their order, each as it is stored, in a slot of its size; a compressed extent ends with
/// its trail. Errors are those of the streams.
///
/// The initial value of a cipher depends on a grain's index and not on its place, so enciphered
/// grains move as they are too.
void writeCompacted(yx::IIOStream& source, CompactionPlan const& plan, yx::IIOStream& target,
                    CompactionProgress const& progress);

/// Reads all of both files, and compares each grain by the tables of either. Whatever is not as
/// `writeCompacted` makes it is `yx::CIOError` `IOFailure` "The compacted file differs from the old
/// one." with "uri" of the new one. Other errors are those of the streams.
void verifyCompacted(yx::IIOStream& source, CompactionPlan const& plan, yx::IIOStream& target,
                     CompactionProgress const& progress);

} // namespace kelm::host
