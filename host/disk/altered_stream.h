#pragma once

#include "host/store/forwarding_stream.h"

namespace kelm::host {

/// The base of streams that show some bytes of a file other than they are there. All else is the
/// stream's below.
class AlteredStream : public ForwardingStream {
public:
    using ForwardingStream::ForwardingStream;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;

protected:
    /// Alters what was read from `positionBytes` on, where the stream below stands behind it, and
    /// leaves that stream where it stands.
    virtual void alter(__int64 positionBytes, unsigned char* target, int sizeBytes) = 0;
};

} // namespace kelm::host
