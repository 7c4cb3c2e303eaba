#pragma once

#include "yx/error.h"

namespace yx {

/// The code for a failed call of the operating system. `errorNumber` is an `errno` value.
///
/// | Code            | Error numbers                                                 |
/// |-----------------|---------------------------------------------------------------|
/// | `NotFound`      | `ENOENT`, `ENOTDIR`                                           |
/// | `AlreadyExists` | `EEXIST`                                                      |
/// | `AccessDenied`  | `EACCES`, `EPERM`, `EROFS`, `EISDIR`, `ETXTBSY`, `EBUSY`      |
/// | `NoSpace`       | `ENOSPC`, `EDQUOT`, `EFBIG`                                   |
/// | `NotSupported`  | `ENOTSUP`, `EOPNOTSUPP`, `ENOSYS`, `ESPIPE`                   |
/// | `IOFailure`     | all others                                                    |
YX_API CIOError::Code getSystemErrorCode(int errorNumber);

} // namespace yx
