#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/check/known_grains.h"
#include "host/check/table_check.h"
#include "host/disk/disk_extent.h"
#include "host/system/cancel.h"
#include "yx/stream.h"

namespace kelm::host {

/// Checks the structure of a sparse extent file without decoding its grains. The tables must equal
/// their redundant copies; the slots of the grains must lie behind the metadata, inside the file
/// and apart from each other. In a compressed extent, the records must name their grain and fit
/// their slots, and the trail must close the file.
///
/// The check can go on piece by piece: the record of a compressed grain is then looked at shortly
/// before somebody else reads all of it, which brings it from the device once.
///
/// Takes about 32 MiB of memory at most. The tables of a file of more than 128 GiB are read once
/// for each 128 GiB.
class ExtentCheck {
public:
    /// `report` gets a sentence for each finding, with the bytes of the disk that a grain or a table
    /// stands for; a part of the file that cannot be read is one. What one cause breaks is one
    /// finding (`FindingFold`): where a file was cut off, that is all of its grains behind, and its
    /// trail. `known` gets the grains of which a finding has told.
    ///
    /// `cancel` may be null; what else is given must outlive the object. Nothing is read yet.
    ExtentCheck(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                std::function<void(std::string const&)> report, KnownGrains& known);
    ExtentCheck(ExtentCheck const&) = delete;
    ExtentCheck& operator=(ExtentCheck const&) = delete;
    ~ExtentCheck();

    /// Goes on until the slots of all grains up to this one have been looked at; does nothing if
    /// they have. Grains are counted as in the disk. What `report` throws passes, and so does
    /// `CancelledError`, before which all findings are told; nothing can be done after them.
    void runTo(__int64 grainIndex);

    /// Does all that is left. Throws as `runTo` does.
    void finish();

private:
    void begin();
    void checkSlotsBefore(__int64 endGrain);
    void repeatForLaterStretches();
    void checkTable(__int64 table, SectorMap& taken);
    SectorMap makeStretch(__int64 startSectors) const;
    __int64 getReachSectors() const;

    template <class Work>
    void runFolded(Work const& work);

    DiskExtent const m_extent;
    CancelFlag const* m_cancel;
    std::function<void(std::string const&)> m_report;
    FindingFold m_fold;
    ExtentFindings m_findings;
    ExtentReader m_reader;
    bool m_hasBegun = false;

    /// Absent before the beginning, and where the header or the directories are of no use.
    std::optional<ExtentShape> m_shape;
    std::optional<TableCheck> m_tables;

    /// What is taken of the first stretch.
    std::optional<SectorMap> m_taken;

    /// The grain of the extent whose slot is next.
    __int64 m_nextGrain = 0;
};

/// Does a whole check at once; see `ExtentCheck`.
void checkExtent(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report, KnownGrains& known);

} // namespace kelm::host
