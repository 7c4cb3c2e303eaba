#pragma once

#include "kelm/disk/space_info.h"
#include "kelm/export.h"
#include "kelm/extent/data_provider.h"
#include "kelm/graindata/data_preparer.h"
#include "yx/uri.h"

namespace kelm {

/// The part of a disk that lies in one file: a range of bytes with one cursor, divided into grains.
/// Unless stated otherwise, positions are bytes from the start of the extent, and grain indices
/// count from its first grain. `CVMDKDisk` finds the extent for a position of the disk; use that
/// class to read and write a whole disk.
///
/// Throws `yx::CInvalidArgError` for bad arguments, `yx::CIOError` for operations past the end or
/// off a grain boundary, and `yx::CError` for operations that the extent does not support; the
/// messages are those of each class. A failure leaves the cursor at the start of the step that
/// failed, and the object usable.
class KELM_API IVMDKExtentFile : public virtual yx::IBase {
public:
    /// Replaces the source of grains without data; null means zeros.
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

    /// Reads exactly `bytes` bytes at the cursor and moves the cursor past them.
    virtual void read(void* buffer, int bytes) = 0;

    /// Writes exactly `bytes` bytes at the cursor and moves the cursor past them. The bytes may
    /// stay in memory until `flushChanges`.
    virtual void write(void const* buffer, int bytes) = 0;

    /// Writes all changes to the device.
    virtual void flushChanges() = 0;

    /// Makes a new preparer with this extent's settings.
    virtual yx::P<CVMDKDataPreparer> createDataPreparer() = 0;

    /// Stores one whole grain, given in prepared form, at the cursor and moves the cursor to the
    /// next grain. The cursor must be on a grain boundary.
    virtual void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) = 0;

    /// Fills `data` with the grain at the cursor in prepared form, deciphered, and moves the cursor
    /// to the next grain. The cursor must be on a grain boundary.
    virtual void readPreparedGrainData(yx::TBuffer<unsigned char>& data) = 0;

    /// Stores the provider's data of the grain in the extent, unless the grain is stored already,
    /// and moves the cursor to the next grain. Returns the number of bytes written or skipped, 0
    /// without a provider.
    virtual __int64 makeGrainIndependentOfParent(__int64 grainIndex) = 0;

    /// Whether this extent or the provider has data for the grain at the cursor. The cursor does
    /// not move.
    virtual bool isGrainWritten() = 0;

    /// Whether this extent has data for the grain at the cursor. The cursor does not move.
    virtual bool isGrainWrittenAndIndependentOfParent() = 0;

    /// Flushes all changes, and returns how the extent's file uses its space.
    virtual yx::P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;
};

} // namespace kelm
