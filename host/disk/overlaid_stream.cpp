#include "host/disk/overlaid_stream.h"

#include <algorithm>
#include <cstring>

namespace kelm::host {

namespace {

/// Where a transfer and an overlay meet: an offset in each, and how many bytes; 0 if they do not.
struct Meeting {
    std::size_t inTransfer;
    std::size_t inOverlay;
    std::size_t sizeBytes;
};

Meeting findMeeting(Overlay const& overlay, __int64 positionBytes, int sizeBytes) {
    __int64 const start = std::max(positionBytes, overlay.positionBytes);
    __int64 const end =
        std::min(positionBytes + sizeBytes,
                 overlay.positionBytes + static_cast<__int64>(overlay.bytes.size()));
    if (end <= start)
        return {0, 0, 0};
    return {static_cast<std::size_t>(start - positionBytes),
            static_cast<std::size_t>(start - overlay.positionBytes),
            static_cast<std::size_t>(end - start)};
}

} // namespace

OverlaidStream::OverlaidStream(yx::P<yx::IIOStream> stream, yx::P<Overlay> overlay)
    : AlteredStream(std::move(stream)), m_overlay(std::move(overlay)) {}

int OverlaidStream::getFileDescriptor() const {
    auto const* const native = dynamic_cast<yx::INativeStream const*>(getTarget().get());
    return native ? native->getFileDescriptor() : -1;
}

void OverlaidStream::alter(__int64 positionBytes, unsigned char* target, int sizeBytes) {
    Meeting const meeting = findMeeting(*m_overlay, positionBytes, sizeBytes);
    if (meeting.sizeBytes > 0) {
        std::memcpy(target + meeting.inTransfer, m_overlay->bytes.data() + meeting.inOverlay,
                    meeting.sizeBytes);
    }
}

void OverlaidStream::take(__int64 positionBytes, void const* source, int sizeBytes) {
    Meeting const meeting = findMeeting(*m_overlay, positionBytes, sizeBytes);
    if (meeting.sizeBytes > 0) {
        std::memcpy(m_overlay->bytes.data() + meeting.inOverlay,
                    static_cast<unsigned char const*>(source) + meeting.inTransfer,
                    meeting.sizeBytes);
    }
}

void OverlaidStream::write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) {
    __int64 const positionBytes = getTarget()->getPosition();
    getTarget()->write(source, sizeBytes, barrier);
    take(positionBytes, source, sizeBytes);
}

void OverlaidStream::writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                                     yx::IWriteBarrier* barrier) {
    __int64 const positionBytes = getTarget()->getPosition();
    getTarget()->writeKeepBuffer(slice, barrier);
    take(positionBytes, slice.getData(), slice.getLength());
}

} // namespace kelm::host
