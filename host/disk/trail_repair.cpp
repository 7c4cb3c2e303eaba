#include "host/disk/trail_repair.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/constants.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/format/marker.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/buffer_stream.h"
#include "yx/data_in_stream.h"
#include "yx/data_out_stream.h"

namespace kelm::host {

namespace {

constexpr int kTrailSizeBytes = kTrailSectors * kSectorSizeBytes;

/// The same bytes as the library's: it takes only these for a trail.
yx::TBuffer<unsigned char> makeTrail(CVMDKSparseExtentHeader& header) {
    yx::TBuffer<unsigned char> padding(kTrailSizeBytes, -1);
    yx::initMemory(padding.getData(), 0, kTrailSizeBytes);
    yx::TBuffer<unsigned char> trail;
    yx::CBufferStream stream(&trail, 2.0);
    yx::CDataOutStream out(&stream);
    writeVMDKMarker(out, VMDKMarkerFooter, 1, padding);
    header.store(out);
    writeVMDKMarker(out, VMDKMarkerEndOfStream, 0, padding);
    assert(trail.getUsed() == kTrailSizeBytes);
    return trail;
}

bool endsWith(yx::IIOStream& stream, __int64 lengthBytes, yx::TBuffer<unsigned char> const& trail) {
    if (lengthBytes < kTrailSizeBytes)
        return false;
    yx::TBuffer<unsigned char> tail(kTrailSizeBytes, -1);
    stream.seek(lengthBytes - kTrailSizeBytes);
    stream.read(tail.getData(), kTrailSizeBytes);
    return std::equal(tail.getData(), tail.getData() + kTrailSizeBytes, trail.getData());
}

} // namespace

bool repairTrail(yx::IIOStream& stream) {
    stream.seek(0);
    yx::CDataInStream in(&stream);
    CVMDKSparseExtentHeader header;
    header.load(in);
    if (!header.isCompressed())
        return false;
    yx::TBuffer<unsigned char> const trail = makeTrail(header);
    __int64 const lengthBytes = stream.getLength();
    bool const hasTrail = endsWith(stream, lengthBytes, trail);
    if (hasTrail && lengthBytes % kSectorSizeBytes == 0)
        return false;

    __int64 const contentEndBytes = hasTrail ? lengthBytes - kTrailSizeBytes : lengthBytes;
    __int64 const startBytes = roundUpToMultiple(contentEndBytes, kSectorSizeBytes);
    assert(startBytes >= contentEndBytes && startBytes % kSectorSizeBytes == 0);
    // In one write, so that a power cut leaves a file without a trail at worst, as before.
    auto const gapBytes = static_cast<int>(startBytes - contentEndBytes);
    yx::TBuffer<unsigned char> tail(gapBytes + kTrailSizeBytes, -1);
    std::fill_n(tail.getData(), gapBytes, static_cast<unsigned char>(0));
    std::copy_n(trail.getData(), kTrailSizeBytes, tail.getData() + gapBytes);
    stream.seek(contentEndBytes);
    stream.write(tail.getData(), tail.getUsed(), nullptr);
    stream.flush();
    return true;
}

} // namespace kelm::host
