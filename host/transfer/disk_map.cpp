#include "host/transfer/disk_map.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

namespace {

GrainPlace findPlace(CVMDKDisk& disk, __int64 positionBytes) {
    disk.seek(positionBytes);
    if (disk.isGrainWrittenAndIndependentOfParent())
        return GrainPlace::Here;
    return disk.isGrainWritten() ? GrainPlace::Parent : GrainPlace::Absent;
}

/// Joins neighbours that are held in the same place.
class RunJoiner {
public:
    explicit RunJoiner(std::function<void(GrainRun const&)> const& use) : m_use(use) {}

    void add(GrainRun const& part) {
        assert(part.lengthBytes > 0);
        assert(part.startBytes == m_run.endBytes());
        if (part.place == m_run.place) {
            m_run.lengthBytes += part.lengthBytes;
            return;
        }
        finish();
        m_run = part;
    }

    void finish() {
        if (m_run.lengthBytes > 0)
            m_use(m_run);
    }

    /// Where the parts that were added end.
    __int64 getEndBytes() const { return m_run.endBytes(); }

private:
    std::function<void(GrainRun const&)> const& m_use;
    GrainRun m_run;
};

} // namespace

void forEachGrainRun(SafeDisk& disk, WorkOptions const& options,
                     std::function<void(GrainRun const&)> const& use) {
    ProgressThrottle throttle(options.progress);
    RunJoiner joiner(use);
    // Extent by extent, since one may begin within a grain of the disk.
    for (DiskExtent const& extent : disk.listExtents()) {
        for (__int64 position = extent.startBytes; position < extent.endBytes;) {
            if (options.cancel)
                options.cancel->check();
            throttle.report(position, disk.getSizeBytes());
            __int64 const length = std::min(disk.getGrainSizeBytes(), extent.endBytes - position);
            joiner.add({position, length, findPlace(disk.getDisk(), position)});
            position += length;
        }
    }
    assert(joiner.getEndBytes() == disk.getSizeBytes());
    joiner.finish();
    throttle.report(disk.getSizeBytes(), disk.getSizeBytes());
}

} // namespace kelm::host
