#pragma once

#include <span>

#include "host/disk/safe_disk.h"
#include "host/transfer/raw_target.h"

namespace kelm::host {

/// Writes a raw image from the grains of a disk, with zeros for the grains that do not come. For
/// exports only; a raw image that does not come from a disk is written to a `RawTarget`.
///
/// Grains come in the order of their indexes. Those that several threads decode may be written by
/// these threads before their turn.
class ImageWriter {
public:
    /// A plain grain.
    using Grain = yx::TBuffer<unsigned char> const*;

    /// `target` must outlive the writer, the disk need not. The image gets `imageBytes` bytes, no
    /// more than the disk has.
    ImageWriter(SafeDisk const& disk, RawTarget& target, __int64 imageBytes);

    /// The size of the whole image.
    __int64 getImageBytes() const { return m_imageBytes; }

    /// Must come before the first `writeEarly`. Further calls do nothing.
    void beginEarly();

    /// Whether `writeEarly` would let all but one thread wait in the system; see
    /// `RawTarget::takesOneWriteAtATime`.
    bool takesOneWriteAtATime() const { return m_target.takesOneWriteAtATime(); }

    /// Writes grains that follow each other at their place before their turn, or does nothing if the
    /// image is a pipe. At most `ExportRun::kMaxGrains`. May be called on several threads at once.
    void writeEarly(__int64 firstGrainIndex, std::span<Grain const> grains) const;

    /// Writes a grain in its turn. Null is a grain of zeros.
    void write(__int64 grainIndex, yx::TBuffer<unsigned char> const* grain);

    /// The turn of a grain that was given to `writeEarly`, or of a grain of zeros, which is null
    /// and was not.
    void writeLate(__int64 grainIndex, yx::TBuffer<unsigned char> const* grain);

    /// Writes zeros up to the size of the image, and brings the image to the device.
    void finish();

private:
    __int64 startOf(__int64 grainIndex) const { return grainIndex * m_grainSizeBytes; }
    int bytesOf(__int64 grainIndex) const;
    void skipTo(__int64 grainIndex);

    RawTarget& m_target;
    __int64 m_grainSizeBytes;
    __int64 m_imageBytes;
    bool m_hasBegun = false;
    bool m_canWriteEarly = false;
    __int64 m_doneBytes = 0;
};

} // namespace kelm::host
