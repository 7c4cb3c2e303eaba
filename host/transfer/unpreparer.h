#pragma once

#include "host/transfer/grain_item.h"
#include "host/transfer/preparer_set.h"

namespace kelm::host {

/// Reads the grains of a disk for a pipeline, in the form that leaves the most to the workers, and
/// decodes them on the worker threads.
class Unpreparer {
public:
    /// For grains of `disk`, which must outlive this object.
    Unpreparer(SafeDisk& disk, int workerCount);

    /// On the thread of the disk: reads the grain that the item names into its input. The error of
    /// a grain that cannot be read has its place, as `addGrainPlace` says.
    void read(GrainItem& item);

    /// Deciphers the input of the item where that is to be done; uses `aux2`.
    static void decipher(GrainItem& item, int worker);

    /// Deciphers the input, as `decipher` does, and returns the plain bytes of it: the input itself
    /// if it is plain, else `aux1`. Data that cannot be decoded are `CIOError` `CorruptData`.
    yx::P<GrainItem::Buffer> getPlain(GrainItem& item, int worker);

private:
    SafeDisk& m_disk;
    GrainCiphers m_ciphers;
    PreparerSet m_preparers;
};

} // namespace kelm::host
