#pragma once

#include <memory>
#include <string>

#include "host/check/disk_check.h"
#include "host/check/extent_check.h"
#include "host/check/known_grains.h"
#include "host/disk/safe_disk.h"

namespace kelm::host {

/// Checks the structure of all extent files of a disk in their order, each as `ExtentCheck` does, at
/// once or piece by piece beside the reading of its grains.
class StructureCheck {
public:
    /// `report` gets the file and a sentence for each finding; a file that is missing is one, unless
    /// it would come into being at the first write. `cancel` may be null; what else is given must
    /// outlive the object. Nothing is read yet.
    StructureCheck(yx::IFileSystem* fileSystem, SafeDisk& disk, CancelFlag const* cancel,
                   FindingCallback const& report);

    /// Goes on until the records of all grains up to one of the disk have been looked at, and all
    /// extents before its own. `extent` is one of the disk's list. Throws as `ExtentCheck` does.
    void runTo(DiskExtent const& extent, __int64 grainIndex);

    /// Does all that is left. Throws as `ExtentCheck` does.
    void finish();

    /// The grains of which a finding has told so far.
    KnownGrains const& getDamaged() const { return m_damaged; }

private:
    void beginExtent();
    void finishExtent();

    yx::P<yx::IFileSystem> m_fileSystem;
    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    FindingCallback m_report;
    KnownGrains m_damaged;

    /// The extent that is next, or whose check is under way.
    std::size_t m_index = 0;
    bool m_hasBegun = false;

    /// Null where there is no file, or none that can be opened.
    yx::P<yx::IIOStream> m_stream;
    std::unique_ptr<ExtentCheck> m_check;
};

} // namespace kelm::host
