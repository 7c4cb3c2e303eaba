#include "host/transfer/disk_map.h"

#include <cassert>

#include "host/transfer/plain_grains.h"

namespace kelm::host {

namespace {

GrainPlace findPlace(SafeDisk& disk, FileGrain const& grain) {
    if (disk.isWrittenHere(grain.startBytes, grain.getSizeBytes()))
        return GrainPlace::Here;
    return disk.isWritten(grain.startBytes, grain.getSizeBytes()) ? GrainPlace::Parent
                                                                  : GrainPlace::Absent;
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

char const* nameOf(GrainPlace place) {
    switch (place) {
    case GrainPlace::Here:
        return "here";
    case GrainPlace::Parent:
        return "parent";
    case GrainPlace::Absent:
        break;
    }
    return "absent";
}

void forEachGrainRun(SafeDisk& disk, WorkOptions const& options,
                     std::function<void(GrainRun const&)> const& use) {
    ProgressThrottle throttle(options.progress);
    RunJoiner joiner(use);
    for (__int64 position = 0; position < disk.getSizeBytes();) {
        if (options.cancel)
            options.cancel->check();
        throttle.report(position, disk.getSizeBytes());
        __int64 const missingEnd = disk.hasParent() ? position : disk.findMissingEnd(position);
        if (missingEnd > position) {
            joiner.add({position, missingEnd - position, GrainPlace::Absent});
            position = missingEnd;
            continue;
        }
        __int64 const grainIndex = position / disk.getGrainSizeBytes();
        __int64 const unwritten =
            position % disk.getGrainSizeBytes() == 0
                ? countUnwrittenGrains(disk, grainIndex, disk.getGrainCount() - grainIndex)
                : 0;
        if (unwritten > 0) {
            __int64 const bytes = unwritten * disk.getGrainSizeBytes();
            joiner.add({position, bytes, GrainPlace::Absent});
            position += bytes;
            continue;
        }
        FileGrain const grain = disk.getFileGrain(position);
        joiner.add({position, grain.getSizeBytes(), findPlace(disk, grain)});
        position = grain.endBytes;
    }
    assert(joiner.getEndBytes() == disk.getSizeBytes());
    joiner.finish();
    throttle.report(disk.getSizeBytes(), disk.getSizeBytes());
}

} // namespace kelm::host
