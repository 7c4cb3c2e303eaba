#include "yx/internal/file_error.h"

#include <system_error>

#include "yx/internal/stream_error.h"
#include "yx/system_error.h"

namespace yx::detail {

namespace {

char const* getActionText(FileAction action) {
    switch (action) {
    case FileAction::Open:
        return "Cannot open the file: ";
    case FileAction::Query:
        return "Cannot query the file: ";
    case FileAction::Delete:
        return "Cannot delete the file: ";
    case FileAction::Read:
        return "Cannot read from the file: ";
    case FileAction::Write:
        return "Cannot write to the file: ";
    case FileAction::SetLength:
        return "Cannot set the length of the file: ";
    case FileAction::Flush:
        return "Cannot flush the file: ";
    case FileAction::Lock:
        return "Cannot lock the file: ";
    case FileAction::Close:
        return "Cannot close the file: ";
    }
    return "";
}

} // namespace

CIOError makeFileError(FileAction action, int errorNumber, CProps const& props) {
    String const words = String::fromUTF8(std::generic_category().message(errorNumber));
    return CIOError(getSystemErrorCode(errorNumber), getActionText(action) + words, props, nullptr);
}

void throwReadOnly(CURI const& uri) {
    throw CIOError(CIOError::NotAllowed, "The file is open for reading only.", makeUriProps(uri),
                   nullptr);
}

void throwRangeLocked(CURI const& uri, __int64 position, __int64 length) {
    throw CIOError(CIOError::AccessDenied, "The range is locked by another holder.",
                   makeRangeProps(uri, position, "length", length), nullptr);
}

} // namespace yx::detail
