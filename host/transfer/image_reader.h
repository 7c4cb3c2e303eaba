#pragma once

#include <utility>

#include "host/disk/safe_disk.h"
#include "host/transfer/changed_grains.h"
#include "host/transfer/grain_set.h"
#include "host/transfer/image_length.h"
#include "host/transfer/raw_source.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

/// Reads a raw image in grains of the disk that it is imported into. For imports only: a comparison
/// reads an image by `RawContentReader`, which knows no disk.
class ImageReader {
public:
    /// `source`, `disk` and `progress` must outlive the reader. An image longer than the disk is `CIOError`
    /// `NotAllowed` "The image is larger than the disk." with "imageSize" and "diskSize" in bytes:
    /// at once if the length is known, or else when `readNext` meets the surplus. So is one longer
    /// than `length`: "The image is longer than expected." with "imageSize" and "expectedSize".
    /// With `changes`, which may be null and must outlive the reader, only the grains that these say
    /// are read; the source is no pipe then.
    /// `progress` is told of what is read.
    ImageReader(RawSource& source, SafeDisk& disk, ImageLength const& length,
                TransferProgress& progress, ChangedGrains const* changes = nullptr);

    /// Reads the next grain and sets its index, or returns false at the end of the image. `grain`
    /// gets the full size of a grain, or 0 bytes for a grain in a hole. What the image does not
    /// have of its last grain is what the disk has there. An image that is shorter than it must be
    /// is `CIOError` `NotAllowed` "The image ended early." with "imageSize" and "expectedSize".
    bool readNext(yx::TBuffer<unsigned char>& grain, __int64& grainIndex);

    /// From now on, grains that lie in holes of the image and that the disk has nothing of, its
    /// parents included, are passed over: there is nothing to do about them. Those are the ones that
    /// `countAbsent` counts, or, if that is empty, `countUnwrittenGrains`. The last grain is read in
    /// any case. Not for a reader with `changes`.
    void skipHoles(CountGrains countAbsent = {}) {
        m_skipsHoles = true;
        m_countAbsent = std::move(countAbsent);
    }

    /// Whether `skipHoles` was called, so that what is passed over is zeros.
    bool doesSkipHoles() const { return m_skipsHoles; }

    /// How many bytes of the image have been read or passed over.
    __int64 getDoneBytes() const { return m_doneBytes; }

private:
    void completeLastGrain(yx::TBuffer<unsigned char>& grain, __int64 grainIndex, int imageBytes);
    bool skipToNextChange();
    void passHole();
    void verifyFits(__int64 imageBytes) const;
    void verifyIsNotShort() const;

    RawSource& m_source;
    SafeDisk& m_disk;
    ImageLength m_length;
    TransferProgress& m_progress;
    ChangedGrains const* m_changes;
    int m_grainSizeBytes;
    __int64 m_nextGrainIndex = 0;
    __int64 m_doneBytes = 0;
    bool m_isAtEnd = false;
    bool m_skipsHoles = false;
    CountGrains m_countAbsent;
};

} // namespace kelm::host
