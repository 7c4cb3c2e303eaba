#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/disk/chain_map.h"
#include "host/disk/safe_disk.h"

namespace kelm::host {

/// Reads a disk that is open for reading, for any number of threads at once, straight from the
/// places of its grains in the files of the operating system, or of a store that offers it
/// (`IPlaceReader`):
///
/// - Of a grain that is stored plain, just the bytes that are asked for are read, into the caller's
///   memory.
/// - One that is compressed or enciphered is decoded as a whole, by the thread that asks. The last
///   ones stay, at most 128 and 8 MiB, so that who reads a grain piece by piece decodes it once.
/// - Where no disk of the chain holds a grain, there are zeros.
///
/// A `ChainMap` says where grains are. Whatever is not as it should be, and files of another kind, is
/// left to the usual road (`SafeDisk::read`), which tells what is wrong.
class DirectReading {
public:
    /// `disk` is open for reading and belongs to this object alone. Opens its parents; where that
    /// fails, nothing will be read here. The map keeps at most `maxMapTables` tables.
    DirectReading(std::unique_ptr<SafeDisk> disk, int maxMapTables);
    DirectReading(DirectReading const&) = delete;
    DirectReading& operator=(DirectReading const&) = delete;

    /// Nobody may be reading.
    ~DirectReading();

    /// Reads exactly `bytes` bytes at `positionBytes` and returns true, or returns false if that
    /// cannot be done here; the buffer is undefined then. Throws `std::bad_alloc` only.
    bool tryRead(__int64 positionBytes, void* buffer, int bytes);

    /// Whether a disk of the chain holds a grain, or nothing where that is not known here.
    std::optional<bool> isGrainWritten(__int64 grainIndex);

private:
    /// What one thread decodes with.
    struct Coder;

    /// A grain that was decoded. Held while it is.
    struct Slot {
        std::mutex mutex;
        __int64 grainIndex = -1;
        yx::TBuffer<unsigned char> plain;
    };

    bool tryReadInMap(__int64 positionBytes, unsigned char* target, __int64 bytes);
    __int64 readPlain(MappedGrain const& grain, __int64 positionBytes, unsigned char* target,
                      __int64 bytes);
    bool readCoded(MappedGrain const& grain, __int64 positionBytes, unsigned char* target,
                   int bytes);
    bool decode(MappedGrain const& grain, __int64 grainIndex, yx::TBuffer<unsigned char>& plain);
    bool decodeWith(Coder& coder, MappedGrain const& grain, __int64 grainIndex);
    CVMDKGrainCipher& cipherOf(Coder& coder, MappedGrain const& grain);
    std::unique_ptr<Coder> takeCoder();

    std::unique_ptr<SafeDisk> m_disk;

    /// Null if nothing can be read here.
    std::shared_ptr<ChainMap> m_map;

    /// The disk and its parents.
    std::vector<yx::P<CVMDKDisk>> m_levels;

    /// By the grain's index. None where grains are too large.
    std::vector<Slot> m_slots;

    /// Those that nobody uses.
    std::mutex m_codersMutex;
    std::vector<std::unique_ptr<Coder>> m_coders;
};

} // namespace kelm::host
