#pragma once

#include <vector>

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_set.h"
#include "yx/error.h"

namespace kelm::host {

/// A child disk that is to hang on another parent and to read as before. What it has to hold by
/// itself for that is found here, stored by `holdGrains`, and compared here once more.
///
/// All disks are open, for reading at least, and must outlive the object.
class ParentSwap {
public:
    /// The parents that a child leaves and those that it gets, up to the disk that stays under it.
    struct Parents {
        /// What it hangs on.
        SafeDisk* oldParent = nullptr;

        /// Those that it leaves, the nearest first. Empty if the old parent is one of those under
        /// the new one.
        std::vector<SafeDisk*> left;

        /// Those that it gets, the nearest first. Empty if the new parent is one of those under
        /// the old one.
        std::vector<SafeDisk*> joined;

        /// What it hangs on then; null for nothing.
        SafeDisk* newParent = nullptr;
    };

    /// Reads nothing yet.
    ParentSwap(SafeDisk& child, Parents parents);

    /// The grains that the child does not hold and that one of the parents does which it leaves or
    /// gets. By tables alone: two grains of equal content count too.
    GrainSet findByTables(CancelFlag const* cancel);

    /// Those of them that read otherwise over the new parent. Shows progress over the whole disk.
    GrainSet findByContent(WorkOptions const& options);

    /// Refuses grains of which a part can keep no zeros over data of the new parent, since the
    /// child's own files are cut into other grains than the disk there
    /// (`FileGrain::isGrainOfDisk`): `yx::CIOError` `NotSupported` "The disk cannot keep zeros over
    /// what its new parent has." with "uri" and "position". Comes before they are stored.
    void verifyCanHold(GrainSet const& grains);

    /// Reads every grain that the child got or that it reads from its parents, by the old road and
    /// by the new one, and compares. `heldBefore` are the grains that were its own. The first
    /// difference is `yx::CIOError` `CorruptData` "The disk would not read as before." with "uri"
    /// and "position". `child` has been flushed.
    void verifyReadsAsBefore(GrainSet const& heldBefore, WorkOptions const& options);

private:
    struct Part;

    template <class Use>
    void forEachPart(__int64 grainIndex, Use const& use);
    template <class Use>
    bool anyPart(__int64 grainIndex, Use const& use);
    bool isHeld(Part const& part);
    bool isCopyWrong(Part const& part);
    bool mayDiffer(Part const& part);
    bool isNewWritten(Part const& part);
    __int64 countNotHere(__int64 grainIndex, __int64 maxGrains);
    __int64 countPassedOn(__int64 grainIndex, __int64 maxGrains);
    __int64 countUnwritten(__int64 grainIndex, __int64 maxGrains);
    bool differs(Part const& part);
    void readNew(Part const& part);
    [[noreturn]] void throwAt(yx::CIOError::Code code, char const* message, Part const& part);

    SafeDisk& m_child;
    Parents m_parents;
    std::vector<unsigned char> m_old;
    std::vector<unsigned char> m_new;
};

/// Which grains the disk's own files hold all of.
GrainSet findOwnGrains(SafeDisk& disk, CancelFlag const* cancel);

} // namespace kelm::host
