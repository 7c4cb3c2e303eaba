#pragma once

#include <exception>

namespace kelm::nbd {

/// The `errno` value by which a client learns of a failed request:
///
/// | value       | for                                                                     |
/// |-------------|-------------------------------------------------------------------------|
/// | `ENOSPC`    | `CIOError` `NoSpace`: a full device, or a file that can grow no further |
/// | `EINVAL`    | `CIOError` `NotAllowed`, `BadPosition`, `NotAligned`, `NotSupported`;   |
/// |             | `CInvalidArgError`                                                      |
/// | `EROFS`     | `CIOError` `AccessDenied`: the operating system refuses a file          |
/// | `ESHUTDOWN` | `CIOError` `Closed`                                                     |
/// | `ENOMEM`    | `std::bad_alloc`                                                        |
/// | `EIO`       | all others                                                              |
int errnoOf(std::exception const& error);

} // namespace kelm::nbd
