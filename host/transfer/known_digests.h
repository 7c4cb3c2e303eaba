#pragma once

#include <memory>
#include <vector>

#include "host/digest/chain_digests.h"
#include "host/transfer/grain_item.h"

namespace kelm::host {

/// Compares grains that are copied, on the worker threads of a pipeline, with the digests that the
/// disk which they come from has: a copy of a damaged grain with a digest of its own would pass for
/// sound.
class KnownDigests {
public:
    /// For grains of `disk`, of which `known` tells; null for nothing. Both must outlive the object.
    KnownDigests(ChainDigests* known, SafeDisk const& disk, int workerCount);

    /// On the thread of the disk, with indexes that rise: notes in `ofChain` what is known of the
    /// item's grain.
    void find(GrainItem& item);

    /// On a worker thread: whether `plain`, which is the item's grain, is other than its digest
    /// tells. False where none does. The item's own digest, if it has one, spares the work where
    /// `ownHasKey` is false, and so for the digest that is known.
    bool isDamaged(GrainItem const& item, GrainItem::Buffer const& plain, bool ownHasKey,
                   int worker);

    /// The same where that is an error: `CIOError` `CorruptData` "The content of the grain differs
    /// from its digest."
    void verify(GrainItem const& item, GrainItem::Buffer const& plain, bool ownHasKey, int worker);

private:
    Digest hash(GrainItem const& item, GrainItem::Buffer const& plain, int worker);

    ChainDigests* m_known;
    SafeDisk const& m_disk;

    /// For each worker, one for each disk of the chain.
    std::vector<std::vector<std::unique_ptr<GrainHasher>>> m_hashers;
};

} // namespace kelm::host
