#pragma once

#include "host/digest/chain_digests.h"
#include "host/disk/grain_ciphers.h"
#include "yx/buffer.h"

namespace kelm::host {

/// A grain on its way through a `GrainPipeline`, with all the memory that the work on it takes.
struct GrainItem {
    /// What grains and records are held in.
    using Buffer = yx::TBuffer<unsigned char>;

    /// The grain's index in the disk.
    __int64 grainIndex = 0;

    /// The grain as it was read, and whether that is its prepared form.
    yx::P<Buffer> input = yx::makeObject<Buffer>();
    bool inputIsPrepared = false;

    /// The ciphers that the input, which is prepared, has to be deciphered with first; null if it
    /// is not enciphered.
    GrainCiphers::Set const* inputCiphers = nullptr;

    /// Whether the result is to be plain, since the target cannot take the prepared form there. Set
    /// anew whenever an item is filled for a pipeline that asks for it.
    bool resultIsPlain = false;

    /// Room for the work, and for its result.
    yx::P<Buffer> aux1 = yx::makeObject<Buffer>();
    yx::P<Buffer> aux2 = yx::makeObject<Buffer>();

    /// The result: one of the three buffers, or null for a grain of zeros. Null when the item is
    /// filled.
    yx::P<Buffer> result;

    /// Whether the result has been enciphered for the disk that it goes to. False when the item is
    /// filled.
    bool resultIsEnciphered = false;

    /// The digest of the plain grain, where a transfer makes digests and the work has made it.
    Digest digest{};
    bool hasDigest = false;

    /// What digests that were made before say of the grain: those of the disk that is read, or of the
    /// parents of the one that is filled.
    ChainDigests::Grain ofChain;

    /// Whether the grain is that of the parents.
    bool isAsParents = false;
};

} // namespace kelm::host
