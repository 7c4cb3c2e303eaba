// Memory that runs out: whatever is asked for then ends in `std::bad_alloc`, and leaves no harm.

#include "tests/support/allocation_failure.h"

#include <functional>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "tests/yx/file_system_fixture.h"
#include "yx/number.h"
#include "yx/string_format.h"

namespace {

using test_support::AllocationFailure;
using yx::CIOError;
using yx::IIOStream;
using yx::IStreamBase;
using yx::String;

/// Lets each allocation of `work` fail in turn. Returns how many failed.
int failEachAllocation(std::function<void()> const& work) {
    for (int nth = 1;; ++nth) {
        AllocationFailure const failure(nth);
        try {
            work();
        } catch (std::bad_alloc const&) {
            EXPECT_TRUE(failure.hasHappened());
            continue;
        } catch (yx::CError const&) {
            // An error that was to be made anyway.
        }
        if (!failure.hasHappened())
            return nth - 1;
    }
}

TEST(AllocationFailure, NumbersAndTextsThrow) {
    std::string const longText(500, 'x');
    std::string const latin1 = longText + "\xE4";
    std::string const utf8 = longText + "\xE2\x82\xAC";
    String const format = String::fromUTF8(longText) + "%d";
    std::function<void()> const works[] = {
        [] { yx::toString(-9223372036854775807LL - 1); },
        [] { yx::toString(18446744073709551615ULL); },
        [] { yx::toHexString(0xFFFFFFFFU); },
        [&] { String::fromUTF8(latin1); },
        [&] { String::fromUTF8(utf8).toStdString(); },
        [&] { String const text = yx::CStringFormat(format) << 123456789012345LL; },
        [&] { yx::parseInt64(String::fromUTF8(longText), false); },
        [] { yx::CURI("http://[x/a very long name of a file that no small text could hold"); },
    };
    for (auto const& work : works)
        EXPECT_GT(failEachAllocation(work), 0);
}

TEST(AllocationFailure, ErrorsAreMadeOrThrowItInstead) {
    EXPECT_GT(failEachAllocation([] {
                  throw CIOError(CIOError::CorruptData,
                                 "A number that is out of its range: " +
                                     yx::toString(1234567890123LL),
                                 yx::CProps().add("value", yx::toHexString(0xFEDCBA98U)), nullptr);
              }),
              5);
}

/// A text that could not be decoded for want of memory is not taken for one that is no UTF-8.
TEST(AllocationFailure, MakesNoLatin1OfUTF8) {
    std::string const utf8 = std::string(500, 'x') + "\xE2\x82\xAC";
    EXPECT_GT(failEachAllocation([&] {
                  String const text = String::fromUTF8(utf8);
                  EXPECT_EQ(text.getLength(), 501);
              }),
              0);
}

template <class Backend>
class RangeLockAllocation : public FileSystemFixture<Backend> {};

TYPED_TEST_SUITE(RangeLockAllocation, FileSystemBackends);

TYPED_TEST(RangeLockAllocation, ARangeWhoseTokenCannotBeMadeIsFree) {
    auto const one = this->open("a", IIOStream::ReadWrite);
    auto const other = this->open("a", IIOStream::ReadWrite);
    yx::P<yx::IStreamLock> const held = one->lockRange(0, 4, IStreamBase::Shared);
    EXPECT_GT(failEachAllocation([&] {
                  try {
                      one->lockRange(0, 10, IStreamBase::Exclusive);
                  } catch (std::bad_alloc const&) {
                      AllocationFailure const over(1LL << 40);
                      other->lockRange(0, 4, IStreamBase::Shared);
                      other->lockRange(4, 6, IStreamBase::Exclusive);
                      throw;
                  }
              }),
              1);
}

TYPED_TEST(RangeLockAllocation, GivingATokenBackNeedsNoMemory) {
    auto const one = this->open("a", IIOStream::ReadWrite);
    auto const other = this->open("a", IIOStream::ReadWrite);
    yx::P<yx::IStreamLock> const held = one->lockRange(4, 2, IStreamBase::Shared);
    yx::P<yx::IStreamLock> token = one->lockRange(0, 10, IStreamBase::Exclusive);
    {
        AllocationFailure const failure(1);
        token.reset();
        EXPECT_FALSE(failure.hasHappened());
    }
    EXPECT_TRUE(other->lockRange(0, 10, IStreamBase::Shared));
    EXPECT_TRUE(other->lockRange(0, 4, IStreamBase::Exclusive));
}

} // namespace
