#pragma once

#include "host/store/forwarding_stream.h"

namespace kelm::host {

/// What a stream offers beside its operations if its file can be read by several threads at once,
/// each at a place of its own, whatever the stream itself is used for meanwhile. Streams of stores
/// whose answers take a journey have it, so that several can be under way.
class IPlaceReader {
public:
    virtual ~IPlaceReader() = default;

    /// Whether it is so; a stream that passes everything on to another one finds that out late.
    virtual bool canReadPlaces() const { return true; }

    /// Reads up to `sizeBytes` bytes from `positionBytes` on; fewer only at the end of the file.
    /// Returns the count. Errors are those of reading the stream. From any thread, as long as nobody
    /// closes the stream.
    virtual int readPlace(__int64 positionBytes, void* target, int sizeBytes) const = 0;
};

/// What a stream offers, or null. Lives as long as the stream. One that shows some bytes of a file
/// other than they are offers the file as it is.
inline IPlaceReader const* findPlaceReader(yx::IIOStream& stream) {
    if (auto const* const reader = dynamic_cast<IPlaceReader const*>(&stream))
        return reader->canReadPlaces() ? reader : nullptr;
    auto const* const forwarding = dynamic_cast<ForwardingStream const*>(&stream);
    return forwarding ? findPlaceReader(*forwarding->getForwarded()) : nullptr;
}

} // namespace kelm::host
