#include "yx/stream_error.h"

#include "yx/error.h"

namespace yx::detail {

namespace {

CProps uriProps(CURI const& uri) {
    CProps props;
    props.add("uri", uri.toString(true));
    return props;
}

} // namespace

void throwUnexpectedEnd(CURI const& uri, __int64 position, int bytesToRead) {
    throw CIOError(
        CIOError::UnexpectedEnd, "Unexpected end of the stream.",
        uriProps(uri).add("position", toString(position)).add("bytesToRead", toString(bytesToRead)),
        nullptr);
}

void throwStreamClosed(CURI const& uri) {
    throw CIOError(CIOError::Closed, "The stream is closed.", uriProps(uri), nullptr);
}

void throwBadPosition(CURI const& uri, __int64 position) {
    throw CIOError(CIOError::BadPosition, "Invalid stream position: " + toString(position),
                   uriProps(uri).add("position", toString(position)), nullptr);
}

void throwBadLength(CURI const& uri, __int64 length) {
    throw CIOError(CIOError::BadPosition, "Invalid stream length: " + toString(length),
                   uriProps(uri).add("length", toString(length)), nullptr);
}

void throwTooLong(CURI const& uri, __int64 position, __int64 bytesToWrite) {
    throw CIOError(CIOError::NoSpace, "The stream cannot become that long.",
                   uriProps(uri)
                       .add("position", toString(position))
                       .add("bytesToWrite", toString(bytesToWrite)),
                   nullptr);
}

void throwLockingNotSupported(CURI const& uri) {
    throw CIOError(CIOError::NotSupported, "The stream does not support locking.", uriProps(uri),
                   nullptr);
}

void throwBadSize(char const* function, int sizeBytes) {
    throw CInvalidArgError(function, "Invalid size: " + toString(sizeBytes), CProps());
}

} // namespace yx::detail
