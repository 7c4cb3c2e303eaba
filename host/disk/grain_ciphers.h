#pragma once

#include <deque>
#include <vector>

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// The ciphers of a group of workers for the grains of an encrypted disk and of its parents, so
/// that the thread of the disk need not encipher and decipher. For a disk that is not encrypted
/// there are none, and its grains are read and written in prepared form.
class GrainCiphers {
public:
    /// One for each worker, since a cipher serves one thread. All have one key.
    using Set = std::vector<yx::P<CVMDKGrainCipher>>;

    /// `disk` must outlive the object. For its thread, as is all but the use of a set.
    GrainCiphers(SafeDisk& disk, int workerCount);

    /// The ciphers for grains that are to be stored in the disk; null if it is not encrypted.
    Set const* getOwn() const { return m_own; }

    /// Fills `data` with a grain as the file of the disk, or of one of its parents, holds it, and
    /// returns what it is to be deciphered with. Returns null where
    /// `SafeDisk::tryReadEncipheredGrain` does not read it; read it in another way then. A set
    /// stays good for the object's life.
    Set const* tryRead(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

private:
    Set const& setOf(int level);

    SafeDisk& m_disk;
    int m_workerCount;

    /// For the disk and its parents in order, empty where none was needed yet.
    std::deque<Set> m_sets;
    Set const* m_own = nullptr;
};

} // namespace kelm::host
