#pragma once

#include "kelm/metadata/grain_directory.h"
#include "kelm/metadata/igrain_allocator.h"

namespace kelm {

/// Gives each new grain a slot at the end of what has been allocated so far; nothing is ever given
/// back or reused. The rest of a slot behind its data is written as zeros.
///
/// The allocator also keeps the trail of a compressed extent, the records that must close the file:
/// a new grain is written over the trail, and the next flush writes the trail again at the new end.
///
///     file: | header, descriptor, tables | slot | slot | ... | trail |
///                                                            ^ next allocation, aligned
///
/// It shares the stream's position with the grain, the tables and the directory, and seeks before
/// each use. Not thread-safe.
class KELM_API CVMDKGrainAllocator : public yx::CBase,
                                     public virtual yx::IBase,
                                     public virtual IVMDKGrainAllocator {
public:
    /// `alignmentSectors` is the alignment of new slots, at least 1; `trailData` is the trail that
    /// the file should have, empty for an extent without one.
    ///
    /// If the file ends in something else than the trail, a warning is logged, nothing of it is
    /// overwritten, and, unless the access is read-only, the next flush writes the trail behind it.
    /// The stream's position is restored.
    ///
    /// A grain size below 1, or of which no buffer can hold two, is `yx::CIOError` `CorruptData`
    /// with "uri"; an alignment below 1, or that no buffer can hold, is `yx::CInvalidArgError` with
    /// "uri". A file that is shorter than the trail is the stream's error.
    CVMDKGrainAllocator(yx::IIOStream* stream, yx::IIOStream::Access access,
                        __int64 grainSizeSectors, __int64 alignmentSectors,
                        CVMDKGrainDirectory* directory,
                        yx::TBuffer<unsigned char> const& trailData);

    /// A copy shares the stream and the directory.
    CVMDKGrainAllocator(CVMDKGrainAllocator const&) = default;
    CVMDKGrainAllocator& operator=(CVMDKGrainAllocator const&) = default;

    /// Flushes. A failure is reported to `yx::onExceptionInDestructorIgnored`, and the file ends
    /// without its trail.
    ~CVMDKGrainAllocator() override;

    /// Writes the trail behind the last slot if it is not there already.
    void flushChangesToStream() override;

    /// Throws `yx::CInvalidArgError` for a slot smaller than the data and for a negative size, then
    /// `yx::CError` if the access is read-only; what the stream and the directory throw passes.
    ///
    /// A failure leaves the grain table unchanged. The next slot then begins where this one would
    /// have begun or, if the data themselves could be written, behind what was written.
    __int64 allocNewGrain(__int64 grainIndex, void const* data, int size,
                          int slotSizeSectors) override;
    __int64 allocNewGrainKeepBuffer(__int64 grainIndex,
                                    yx::TConstBufferSlice<unsigned char> const& data,
                                    int slotSizeSectors) override;

protected:
    /// `keepBufferData` is null if the bytes may change after the call.
    __int64 allocNewGrainImpl(__int64 grainIndex, void const* data, int size, int slotSizeSectors,
                              yx::TConstBufferSlice<unsigned char> const* keepBufferData);

private:
    void verifySizes();
    void readTrail(yx::TBuffer<unsigned char> const& expected);
    void verifySlotSize(int slotBytes, int size) const;
    void verifyWritable() const;
    __int64 beginSlot();
    void fillWithZeros(__int64 endPosBytes);
    yx::TBuffer<unsigned char> const& zeroData();

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    yx::P<CVMDKGrainDirectory> m_directory;
    __int64 m_grainSizeSectors;
    __int64 m_grainSizeBytes = 0;
    __int64 m_alignmentSectors;
    __int64 m_alignmentBytes = 0;
    yx::TBuffer<unsigned char> m_zeroData;
    bool m_trailDataDirty = false;
    yx::TBuffer<unsigned char> m_trailData;
    __int64 m_nextPosBytes = 0;
};

} // namespace kelm
