#pragma once

#include "kelm/disk/space_info.h"
#include "kelm/export.h"
#include "kelm/extent/data_provider.h"
#include "kelm/graindata/data_preparer.h"
#include "yx/uri.h"

namespace kelm {

/// One extent's share of a disk: a byte space with one cursor, cut into grains. Positions are bytes
/// from the extent's own start, grain indices count from its first grain, unless said otherwise.
///
/// Bad arguments are `yx::CInvalidArgError`, operations past the end or off a grain boundary
/// `yx::CIOError`, and calls that the extent cannot serve `yx::CError`; each class tells its words.
/// A failure leaves the cursor at the start of the failed step, and the object usable.
class KELM_API IVMDKExtentFile : public virtual yx::IBase {
public:
    /// Replaces the source that grains without data fall through to; null for zeros.
    virtual void setFallbackDataProvider(IVMDKDataProvider* provider) = 0;

    /// The index in the whole disk of the extent's first grain.
    virtual __int64 getStartGrainIndex() const = 0;

    /// The grain size, which is that of the whole disk.
    virtual __int64 getGrainSizeSectors() const = 0;

    /// Whether grains are stored compressed.
    virtual bool getCompressed() const = 0;

    /// The extent's file, which need not exist.
    virtual yx::CURI getURI() const = 0;

    /// Sets the cursor; the extent's end itself is allowed.
    virtual void seek(__int64 position) = 0;

    /// The cursor.
    virtual __int64 getPosition() const = 0;

    /// Reads exactly `bytes` bytes at the cursor and moves it on.
    virtual void read(void* buffer, int bytes) = 0;

    /// Writes exactly `bytes` bytes at the cursor and moves it on. The bytes may stay in memory
    /// until `flushChanges`.
    virtual void write(void const* buffer, int bytes) = 0;

    /// Brings every change to the device.
    virtual void flushChanges() = 0;

    /// A new preparer of this extent's settings.
    virtual yx::P<CVMDKDataPreparer> createDataPreparer() = 0;

    /// Stores one whole grain, given in prepared form, at the cursor, which must stand on a grain
    /// boundary, and moves the cursor one grain on.
    virtual void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) = 0;

    /// Fills `data` with the grain at the cursor in prepared form, deciphered, and moves the cursor
    /// one grain on. The cursor must stand on a grain boundary.
    virtual void readPreparedGrainData(yx::TBuffer<unsigned char>& data) = 0;

    /// Gives the grain a place of its own with what it gets from the provider now, and moves the
    /// cursor behind it. Returns the bytes written or passed over, 0 without a provider.
    virtual __int64 makeGrainIndependentOfParent(__int64 grainIndex) = 0;

    /// Whether the grain under the cursor holds data here or in the provider. The cursor stays.
    virtual bool isGrainWritten() = 0;

    /// Whether the grain under the cursor holds data here. The cursor stays.
    virtual bool isGrainWrittenAndIndependentOfParent() = 0;

    /// How the extent's file uses its space, after flushing all changes.
    virtual yx::P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;
};

} // namespace kelm
