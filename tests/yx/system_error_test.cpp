#include "yx/system_error.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

using yx::CIOError;

TEST(SystemError, EachNumberHasItsCode) {
    struct Case {
        int errorNumber;
        CIOError::Code code;
    };
    constexpr Case kCases[] = {
        {ENOENT, CIOError::NotFound},        {ENOTDIR, CIOError::NotFound},
        {EEXIST, CIOError::AlreadyExists},   {EACCES, CIOError::AccessDenied},
        {EPERM, CIOError::AccessDenied},     {EROFS, CIOError::AccessDenied},
        {EISDIR, CIOError::AccessDenied},    {ETXTBSY, CIOError::AccessDenied},
        {EBUSY, CIOError::AccessDenied},     {ENOSPC, CIOError::NoSpace},
        {EDQUOT, CIOError::NoSpace},         {EFBIG, CIOError::NoSpace},
        {ENOTSUP, CIOError::NotSupported},   {EOPNOTSUPP, CIOError::NotSupported},
        {ENOSYS, CIOError::NotSupported},    {ESPIPE, CIOError::NotSupported},
        {EIO, CIOError::IOFailure},          {EINVAL, CIOError::IOFailure},
        {ENAMETOOLONG, CIOError::IOFailure}, {0, CIOError::IOFailure},
    };
    for (Case const& c : kCases)
        EXPECT_EQ(yx::getSystemErrorCode(c.errorNumber), c.code) << c.errorNumber;
}

} // namespace
