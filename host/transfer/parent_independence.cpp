#include "host/transfer/parent_independence.h"

#include "host/transfer/transfer_progress.h"

namespace kelm::host {

void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options) {
    TransferProgress progress(options, disk.getSizeBytes());
    for (__int64 index = 0; index < disk.getGrainCount(); ++index) {
        disk.makeGrainIndependentOfParent(index);
        progress.advanceTo(index * disk.getGrainSizeBytes());
    }
    disk.flush();
    progress.finish(disk.getSizeBytes());
}

} // namespace kelm::host
