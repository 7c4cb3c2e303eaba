#include "integrations/nbdkit/errno_of.h"

#include <cerrno>
#include <new>

#include "yx/error.h"

namespace kelm::nbd {

namespace {

int errnoOfCode(yx::CIOError::Code code) {
    switch (code) {
    case yx::CIOError::NoSpace:
        return ENOSPC;
    case yx::CIOError::NotAllowed:
    case yx::CIOError::BadPosition:
    case yx::CIOError::NotAligned:
    case yx::CIOError::NotSupported:
        return EINVAL;
    case yx::CIOError::AccessDenied:
        return EROFS;
    case yx::CIOError::Closed:
        return ESHUTDOWN;
    case yx::CIOError::IOFailure:
    case yx::CIOError::NotFound:
    case yx::CIOError::UnexpectedEnd:
    case yx::CIOError::CorruptData:
    case yx::CIOError::UnsupportedVersion:
    case yx::CIOError::AlreadyExists:
        break;
    }
    return EIO;
}

} // namespace

int errnoOf(std::exception const& error) {
    if (auto const* const ioError = dynamic_cast<yx::CIOError const*>(&error))
        return errnoOfCode(ioError->getIOCode());
    if (dynamic_cast<yx::CInvalidArgError const*>(&error))
        return EINVAL;
    return dynamic_cast<std::bad_alloc const*>(&error) ? ENOMEM : EIO;
}

} // namespace kelm::nbd
