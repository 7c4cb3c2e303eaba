#include "yx/system_error.h"

#include <cerrno>

namespace yx {

CIOError::Code getSystemErrorCode(int errorNumber) {
    switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
        return CIOError::NotFound;
    case EEXIST:
        return CIOError::AlreadyExists;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY:
    case EBUSY:
        return CIOError::AccessDenied;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return CIOError::NoSpace;
    case ENOTSUP:
#if ENOTSUP != EOPNOTSUPP
    case EOPNOTSUPP:
#endif
    case ENOSYS:
    case ESPIPE:
        return CIOError::NotSupported;
    default:
        return CIOError::IOFailure;
    }
}

} // namespace yx
