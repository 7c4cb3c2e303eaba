#pragma once

#include "yx/internal/file_error.h"

namespace kelm::ceph {

/// The error for a failed call of the cluster's client. `result` is what it returned, a negative
/// `errno` value.
///
/// It is that of `yx::detail::makeFileError`, but for those values that say something else here,
/// all `IOFailure`:
///
/// | Value                            | The message goes on                                     |
/// |----------------------------------|---------------------------------------------------------|
/// | `ESHUTDOWN`                      | "The cluster has shut this client out."                 |
/// | `ESTALE`                         | "The cluster no longer knows the file or this session." |
/// | `ENOTCONN`                       | "There is no connection to the cluster."                |
/// | `ETIMEDOUT`                      | "The cluster does not answer."                          |
///
/// `ECANCELED` is the whole message "The connection to the cluster was given up."
yx::CIOError makeClusterError(yx::detail::FileAction action, int result, yx::CProps const& props);

/// The same with a beginning of its own, such as "Cannot rename the file: ".
yx::CIOError makeClusterError(char const* beginning, int result, yx::CProps const& props);

} // namespace kelm::ceph
