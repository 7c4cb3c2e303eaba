#pragma once

#include "yx/error.h"
#include "yx/uri.h"

/// The errors that the file systems of the framework have in common, in the same words. Internal to
/// the library; callers see the `CIOError`s.
namespace yx::detail {

/// What went on when a file operation failed; the message begins with it.
enum class FileAction {
    Open,      ///< "Cannot open the file: "
    Query,     ///< "Cannot query the file: "
    Delete,    ///< "Cannot delete the file: "
    Read,      ///< "Cannot read from the file: "
    Write,     ///< "Cannot write to the file: "
    SetLength, ///< "Cannot set the length of the file: "
    Flush,     ///< "Cannot flush the file: "
    Lock,      ///< "Cannot lock the file: "
    Close,     ///< "Cannot close the file: "
};

/// The error for a failed call of the operating system: the words of the action, then those of the
/// operating system for `errorNumber` (an `errno` value), with the code of `getSystemErrorCode`.
CIOError makeFileError(FileAction action, int errorNumber, CProps const& props);

/// `NotAllowed`: "The file is open for reading only." with "uri".
[[noreturn]] void throwReadOnly(CURI const& uri);

/// `AccessDenied`: "The range is locked by another holder." with "uri", "position" and "length".
[[noreturn]] void throwRangeLocked(CURI const& uri, __int64 position, __int64 length);

} // namespace yx::detail
