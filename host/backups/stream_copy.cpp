#include "host/backups/stream_copy.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "yx/error.h"

namespace kelm::host {

namespace {

/// As much as a store reads well in one go.
constexpr __int64 kStreamPieceBytes = __int64{4} << 20;

/// The unit in which holes come.
constexpr std::size_t kHoleUnitBytes = std::size_t{64} << 10;

bool isAllZero(unsigned char const* bytes, std::size_t count) {
    return count == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, count - 1) == 0);
}

/// Calls `use(position, bytes, their count)` for all that the stream has, in order.
template <class Use>
void forEachPieceOf(yx::IIOStream& stream, CancelFlag const* cancel, TransferMeter* meter,
                    Use const& use) {
    __int64 const lengthBytes = stream.getLength();
    std::vector<unsigned char> piece(
        static_cast<std::size_t>(std::min(lengthBytes, kStreamPieceBytes)));
    stream.seek(0);
    for (__int64 position = 0; position < lengthBytes;) {
        if (cancel)
            cancel->check();
        auto const count = static_cast<int>(std::min(kStreamPieceBytes, lengthBytes - position));
        stream.read(piece.data(), count);
        if (meter)
            meter->addRead(count);
        use(position, piece.data(), static_cast<std::size_t>(count));
        position += count;
    }
}

/// Leaves out what is zero, which the target is already.
void writeData(yx::IIOStream& target, __int64 position, unsigned char const* bytes,
               std::size_t count) {
    for (std::size_t start = 0; start < count;) {
        std::size_t end = start;
        while (end < count && !isAllZero(bytes + end, std::min(kHoleUnitBytes, count - end)))
            end = std::min(end + kHoleUnitBytes, count);
        if (end > start) {
            target.seek(position + static_cast<__int64>(start));
            target.write(bytes + start, static_cast<int>(end - start), nullptr);
        }
        start = std::max(end, std::min(start + kHoleUnitBytes, count));
    }
}

} // namespace

void copyStream(yx::IIOStream& source, yx::IIOStream& target, CancelFlag const* cancel,
                TransferMeter* meter) {
    target.setLength(source.getLength());
    forEachPieceOf(source, cancel, meter,
                   [&](__int64 position, unsigned char const* bytes, std::size_t count) {
                       writeData(target, position, bytes, count);
                       if (meter)
                           meter->addStored(static_cast<__int64>(count));
                   });
    target.flush();
    if (!areStreamsAlike(source, target, cancel, meter)) {
        throw yx::CIOError(yx::CIOError::IOFailure, "The copy differs from the file.",
                           yx::CProps().add("uri", target.getURI().toString(true)), nullptr);
    }
}

bool areStreamsAlike(yx::IIOStream& one, yx::IIOStream& other, CancelFlag const* cancel,
                     TransferMeter* meter) {
    if (one.getLength() != other.getLength())
        return false;
    std::vector<unsigned char> others(static_cast<std::size_t>(kStreamPieceBytes));
    bool isSame = true;
    other.seek(0);
    forEachPieceOf(one, cancel, meter, [&](__int64, unsigned char const* bytes, std::size_t count) {
        other.read(others.data(), static_cast<int>(count));
        isSame = isSame && std::memcmp(bytes, others.data(), count) == 0;
    });
    return isSame;
}

} // namespace kelm::host
