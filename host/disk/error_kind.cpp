#include "host/disk/error_kind.h"

#include "host/disk/password_errors.h"
#include "host/disk/unfinished_disk.h"
#include "host/system/cancel.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

std::optional<ErrorKind> kindOfCode(yx::CIOError::Code code) {
    switch (code) {
    case yx::CIOError::CorruptData:
    case yx::CIOError::UnexpectedEnd:
        return ErrorKind::Damaged;
    case yx::CIOError::NotFound:
        return ErrorKind::NotFound;
    case yx::CIOError::NoSpace:
        return ErrorKind::NoSpace;
    default:
        return std::nullopt;
    }
}

} // namespace

std::optional<ErrorKind> ownKindOf(yx::CError const& error) {
    if (dynamic_cast<CancelledError const*>(&error))
        return ErrorKind::Cancelled;
    if (isPasswordMissing(error) || isPasswordWrong(error))
        return ErrorKind::Password;
    if (dynamic_cast<UnfinishedDiskError const*>(&error))
        return ErrorKind::Unfinished;
    // A lock file that cannot be made is nobody's; its cause says what is wrong.
    if (dynamic_cast<yx::CLockFileError const*>(&error) &&
        !error.getMessage().wx().StartsWith(yx::kLockNotTakenMessagePrefix))
        return ErrorKind::InUse;
    auto const* const ioError = dynamic_cast<yx::CIOError const*>(&error);
    return ioError ? kindOfCode(ioError->getIOCode()) : std::nullopt;
}

std::optional<ErrorKind> kindOf(yx::CError const& error) {
    for (yx::CError const* known = &error; known; known = known->getCause()) {
        if (std::optional<ErrorKind> const kind = ownKindOf(*known))
            return kind;
    }
    return std::nullopt;
}

} // namespace kelm::host
