#pragma once

#include "host/transfer/grain_item.h"

namespace kelm::host {

/// Enciphers the results of a pipeline for the disk that they go to, on the worker threads, and
/// stores them. For a disk that is not encrypted, results stay prepared.
class ResultCipher {
public:
    /// For grains of `disk`, which must outlive this object.
    ResultCipher(SafeDisk& disk, int workerCount);

    /// On a worker thread: enciphers the result of an item, which is prepared for the disk, into
    /// `aux1` or `aux2`, whichever is not the result; does nothing if there is none.
    void encipher(GrainItem& item, int worker) const;

    /// On the thread of the disk: stores the result, which is prepared, of a whole grain
    /// (`SafeDisk::isWholeGrain`).
    void store(GrainItem const& item);

private:
    SafeDisk& m_disk;
    GrainCiphers m_ciphers;
};

} // namespace kelm::host
