#include "host/transfer/grain_set.h"

namespace kelm::host {

namespace {

/// How often a signal is looked for, in grains.
constexpr __int64 kChoiceCancelInterval = 4096;

} // namespace

GrainSet chooseGrains(SafeDisk& disk, CancelFlag const* cancel,
                      std::function<bool(__int64 grainIndex)> const& isChosen) {
    GrainSet grains(disk.getGrainCount());
    for (__int64 grain = 0; grain < grains.getGrainCount(); ++grain) {
        if (cancel && grain % kChoiceCancelInterval == 0)
            cancel->check();
        if (isChosen(grain))
            grains.add(grain);
    }
    return grains;
}

} // namespace kelm::host
