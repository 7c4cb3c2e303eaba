#pragma once

#include <vector>

#include "host/disk/altered_stream.h"
#include "yx/native_stream.h"

namespace kelm::host {

/// Bytes that a file is shown to have at a place, instead of its own. All streams on the file
/// share one of these.
struct Overlay : public yx::CBase {
    /// Where the bytes begin in the file.
    __int64 positionBytes = 0;

    /// What the file is shown to hold there.
    std::vector<unsigned char> bytes;
};

/// A stream that shows the bytes of an overlay in the place of the file's own. Writes pass to the
/// file, and the overlay takes them too, so that every stream reads what was written last.
class OverlaidStream : public AlteredStream, public virtual yx::INativeStream {
public:
    /// Shows the file of `stream` with what `overlay` holds, now and later.
    OverlaidStream(yx::P<yx::IIOStream> stream, yx::P<Overlay> overlay);

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override;
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override;

    /// The file as it is.
    int getFileDescriptor() const override;

private:
    void alter(__int64 positionBytes, unsigned char* target, int sizeBytes) override;
    void take(__int64 positionBytes, void const* source, int sizeBytes);

    yx::P<Overlay> m_overlay;
};

} // namespace kelm::host
