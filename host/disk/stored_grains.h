#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/disk/disk_key.h"

namespace kelm::host {

/// A stretch of a grain, in bytes.
struct GrainStretch {
    /// Where it begins in the grain.
    int startBytes = 0;

    /// Behind its last byte.
    int endBytes = 0;
};

/// A grain as far as it could be read.
struct ReadGrain {
    /// The parts that could not be; the buffer has zeros there. All of a grain, unless it is stored
    /// plain: of such a one each sector counts by itself.
    std::vector<GrainStretch> lost;

    /// Why; empty if nothing is lost.
    std::string reason;
};

/// Reads grains of an extent file from places that the caller gives, whatever its tables say. A
/// compressed grain is believed only if its record names it and decodes, which takes its checksum
/// along; a plain one cannot be told from any other bytes. Changes nothing.
class StoredGrains {
public:
    /// `header` has possible sizes. `startGrainIndex` is the index in the disk of the extent's
    /// first grain. The stream must outlive the object.
    StoredGrains(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                 __int64 startGrainIndex, DiskKey const& key);

    /// Whether the record at a sector names the grain. Only for a compressed extent.
    bool namesGrain(__int64 extentGrainIndex, __int64 sector);

    /// Whether it also decodes.
    bool isRecordOf(__int64 extentGrainIndex, __int64 sector);

    /// Reads a grain into `target`, which gets the size of a grain. Anything that fails is a loss,
    /// not an error.
    ReadGrain read(__int64 extentGrainIndex, __int64 sector, yx::TBuffer<unsigned char>& target);

private:
    ReadGrain readCoded(__int64 extentGrainIndex, __int64 sector,
                        yx::TBuffer<unsigned char>& target);
    ReadGrain readBySectors(__int64 sector, yx::TBuffer<unsigned char>& target);
    ReadGrain loseAll(std::string const& reason, yx::TBuffer<unsigned char>& target) const;

    yx::IIOStream& m_stream;
    bool m_isCompressed;
    bool m_isEncrypted;
    __int64 m_grainSizeSectors;
    __int64 m_startGrainIndex;
    yx::P<yx::IIOStream> m_recordStream;
    CVMDKGrain m_grain;
    yx::TBuffer<unsigned char> m_probe;
};

} // namespace kelm::host
