#include "integrations/nbdkit/errno_of.h"

#include <cerrno>
#include <new>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace kelm::nbd {

namespace {

TEST(ErrnoOf, StreamErrorsHaveAValueForEachCode) {
    struct Case {
        yx::CIOError::Code code;
        int value;
    };
    constexpr Case kCases[] = {
        {yx::CIOError::IOFailure, EIO},       {yx::CIOError::NotFound, EIO},
        {yx::CIOError::NotAllowed, EINVAL},   {yx::CIOError::UnexpectedEnd, EIO},
        {yx::CIOError::CorruptData, EIO},     {yx::CIOError::UnsupportedVersion, EIO},
        {yx::CIOError::BadPosition, EINVAL},  {yx::CIOError::AlreadyExists, EIO},
        {yx::CIOError::AccessDenied, EROFS},  {yx::CIOError::Closed, ESHUTDOWN},
        {yx::CIOError::NotAligned, EINVAL},   {yx::CIOError::NoSpace, ENOSPC},
        {yx::CIOError::NotSupported, EINVAL},
    };
    for (Case const& tested : kCases) {
        EXPECT_EQ(errnoOf(yx::CIOError(tested.code, "words", yx::CProps(), nullptr)), tested.value)
            << tested.code;
    }
}

TEST(ErrnoOf, OtherErrorsAreTheCallersOrTheMachines) {
    EXPECT_EQ(errnoOf(yx::CInvalidArgError("function", "words", yx::CProps())), EINVAL);
    EXPECT_EQ(errnoOf(std::bad_alloc()), ENOMEM);
    EXPECT_EQ(errnoOf(yx::CError("words", "", -1, yx::CProps(), nullptr)), EIO);
    EXPECT_EQ(errnoOf(yx::CLockFileError("words", yx::CProps(), nullptr)), EIO);
    EXPECT_EQ(errnoOf(std::exception()), EIO);
}

} // namespace

} // namespace kelm::nbd
