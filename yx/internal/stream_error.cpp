#include "yx/internal/stream_error.h"

#include "yx/error.h"

namespace yx::detail {

CProps makeUriProps(CURI const& uri) {
    return CProps().add("uri", uri.toString(true));
}

CProps makeRangeProps(CURI const& uri, __int64 position, char const* sizeName, __int64 sizeBytes) {
    return makeUriProps(uri).add("position", toString(position)).add(sizeName, toString(sizeBytes));
}

void throwUnexpectedEnd(CURI const& uri, __int64 position, int bytesToRead) {
    throw CIOError(CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                   makeRangeProps(uri, position, "bytesToRead", bytesToRead), nullptr);
}

void throwStreamClosed(CURI const& uri) {
    throw CIOError(CIOError::Closed, "The stream is closed.", makeUriProps(uri), nullptr);
}

void throwBadPosition(CURI const& uri, __int64 position) {
    throw CIOError(CIOError::BadPosition, "Invalid stream position: " + toString(position),
                   makeUriProps(uri).add("position", toString(position)), nullptr);
}

void throwBadLength(CURI const& uri, __int64 length) {
    throw CIOError(CIOError::BadPosition, "Invalid stream length: " + toString(length),
                   makeUriProps(uri).add("length", toString(length)), nullptr);
}

void throwTooLong(CURI const& uri, __int64 position, __int64 bytesToWrite) {
    throw CIOError(CIOError::NoSpace, "The stream cannot become that long.",
                   makeRangeProps(uri, position, "bytesToWrite", bytesToWrite), nullptr);
}

void throwLockingNotSupported(CURI const& uri) {
    throw CIOError(CIOError::NotSupported, "The stream does not support locking.",
                   makeUriProps(uri), nullptr);
}

void throwBadSize(char const* function, int sizeBytes) {
    throw CInvalidArgError(function, "Invalid size: " + toString(sizeBytes), CProps());
}

} // namespace yx::detail
