#include "host/disk/error_kind.h"

#include <gtest/gtest.h>

#include "host/disk/unfinished_disk.h"
#include "host/system/cancel.h"
#include "kelm/disk/disk.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

yx::CIOError streamError(yx::CIOError::Code code, yx::CError const* cause = nullptr) {
    return yx::CIOError(code, "words", yx::CProps(), cause);
}

yx::CError plainError(yx::String const& message, yx::CError const* cause = nullptr) {
    return yx::CError(message, "", -1, yx::CProps(), cause);
}

TEST(ErrorKind, OfStreamErrorsGoesByTheirCodes) {
    EXPECT_EQ(kindOf(streamError(yx::CIOError::CorruptData)), ErrorKind::Damaged);
    EXPECT_EQ(kindOf(streamError(yx::CIOError::UnexpectedEnd)), ErrorKind::Damaged);
    EXPECT_EQ(kindOf(streamError(yx::CIOError::NotFound)), ErrorKind::NotFound);
    EXPECT_EQ(kindOf(streamError(yx::CIOError::NoSpace)), ErrorKind::NoSpace);
    for (yx::CIOError::Code const code :
         {yx::CIOError::IOFailure, yx::CIOError::NotAllowed, yx::CIOError::UnsupportedVersion,
          yx::CIOError::BadPosition, yx::CIOError::AlreadyExists, yx::CIOError::AccessDenied,
          yx::CIOError::Closed, yx::CIOError::NotAligned, yx::CIOError::NotSupported})
        EXPECT_EQ(kindOf(streamError(code)), std::nullopt) << code;
}

TEST(ErrorKind, KnowsWhatIsNoStreamError) {
    EXPECT_EQ(kindOf(CancelledError()), ErrorKind::Cancelled);
    EXPECT_EQ(kindOf(UnfinishedDiskError(yx::CURI("file:///a.vmdk"))), ErrorKind::Unfinished);
    EXPECT_EQ(kindOf(plainError(kPasswordMissingMessage)), ErrorKind::Password);
    EXPECT_EQ(kindOf(plainError(kPasswordWrongMessage)), ErrorKind::Password);
    EXPECT_EQ(kindOf(plainError("words")), std::nullopt);
}

TEST(ErrorKind, OfALockFileThatCannotBeMadeIsThatOfItsCause) {
    yx::CIOError const full = streamError(yx::CIOError::NoSpace);
    yx::CLockFileError const held("words", yx::CProps(), &full);
    EXPECT_EQ(kindOf(held), ErrorKind::InUse);
    yx::CLockFileError const notMade(yx::String(yx::kLockNotTakenMessagePrefix) + "words",
                                     yx::CProps(), &full);
    EXPECT_EQ(ownKindOf(notMade), std::nullopt);
    EXPECT_EQ(kindOf(notMade), ErrorKind::NoSpace);
}

TEST(ErrorKind, IsThatOfTheOutermostErrorThatHasOne) {
    yx::CIOError const missing = streamError(yx::CIOError::NotFound);
    yx::CIOError const damaged = streamError(yx::CIOError::CorruptData, &missing);
    yx::CError const outer = plainError("words", &damaged);
    EXPECT_EQ(ownKindOf(outer), std::nullopt);
    EXPECT_EQ(kindOf(outer), ErrorKind::Damaged);
}

} // namespace

} // namespace kelm::host
