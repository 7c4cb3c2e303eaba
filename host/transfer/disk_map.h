#pragma once

#include <functional>

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Who holds a grain.
enum class GrainPlace {
    Absent, ///< nobody; it reads as zeros
    Parent, ///< a parent of the disk
    Here,   ///< the disk itself
};

/// "here", "parent" or "absent", as programs are told.
char const* nameOf(GrainPlace place);

/// Neighbouring grains that are held in the same place.
struct GrainRun {
    /// The run's place in the disk: whole grains of the disk's files, but for the last grains of
    /// extents that are cut short.
    __int64 startBytes = 0;
    __int64 lengthBytes = 0;

    /// Who holds these grains.
    GrainPlace place = GrainPlace::Absent;

    /// The first byte behind the run.
    __int64 endBytes() const { return startBytes + lengthBytes; }
};

/// Gives the runs of a disk to `use`, in order and without gaps, each as long as possible. Reads
/// all tables of the disk and of its parents. What `use` throws is passed on.
void forEachGrainRun(SafeDisk& disk, WorkOptions const& options,
                     std::function<void(GrainRun const&)> const& use);

} // namespace kelm::host
