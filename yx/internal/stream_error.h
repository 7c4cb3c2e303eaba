#pragma once

#include "yx/props.h"
#include "yx/uri.h"

/// The errors that all streams of the framework have in common, in the same words, and the
/// properties that such errors carry. Internal to the library; callers see the `CIOError`s.
namespace yx::detail {

/// "uri" alone, for errors about a whole stream or file.
CProps makeUriProps(CURI const& uri);

/// "uri", "position" and the size, both in bytes, for errors about a range. `sizeName` says what
/// the size is of: "bytesToRead", "bytesToWrite" or "length".
CProps makeRangeProps(CURI const& uri, __int64 position, char const* sizeName, __int64 sizeBytes);

/// `UnexpectedEnd`: "Unexpected end of the stream." with "uri", "position" (where the read starts)
/// and "bytesToRead" (all that was asked for).
[[noreturn]] void throwUnexpectedEnd(CURI const& uri, __int64 position, int bytesToRead);

/// `Closed`: "The stream is closed." with "uri".
[[noreturn]] void throwStreamClosed(CURI const& uri);

/// `BadPosition`: "Invalid stream position: " and the number, with "uri" and "position".
[[noreturn]] void throwBadPosition(CURI const& uri, __int64 position);

/// `BadPosition`: "Invalid stream length: " and the number, with "uri" and "length".
[[noreturn]] void throwBadLength(CURI const& uri, __int64 length);

/// `NoSpace`: "The stream cannot become that long." with "uri", "position" and "bytesToWrite".
[[noreturn]] void throwTooLong(CURI const& uri, __int64 position, __int64 bytesToWrite);

/// `NotSupported`: "The stream does not support locking." with "uri".
[[noreturn]] void throwLockingNotSupported(CURI const& uri);

/// `CInvalidArgError` of `function`: "Invalid size: " and the number.
[[noreturn]] void throwBadSize(char const* function, int sizeBytes);

} // namespace yx::detail
