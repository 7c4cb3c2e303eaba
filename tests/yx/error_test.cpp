#include "yx/error.h"

#include <functional>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"

namespace {

using test_support::Props;
using test_support::propsOf;
using yx::CBadPathError;
using yx::CError;
using yx::CFileSystemError;
using yx::CInvalidArgError;
using yx::CIOError;
using yx::CLockFileError;
using yx::CProps;

CProps someProps() {
    CProps props;
    props.add("uri", "file:///d/a.vmdk").add("position", "512");
    return props;
}

Props const kSomeProps = {{"uri", "file:///d/a.vmdk"}, {"position", "512"}};

TEST(CError, CarriesWhatItWasGiven) {
    CError const error("Message.", "Detail.", -1, someProps(), nullptr);
    EXPECT_TRUE(error.getMessage() == "Message.");
    EXPECT_TRUE(error.getDetail() == "Detail.");
    EXPECT_EQ(-1, error.getCode());
    EXPECT_EQ(kSomeProps, propsOf(error));
    EXPECT_EQ(nullptr, error.getCause());
    EXPECT_STREQ("Message.", error.what());
    error.nop();
}

TEST(CError, CodeHas64Bits) {
    EXPECT_EQ(0x123456789ABCLL, CError("", "", 0x123456789ABCLL, CProps(), nullptr).getCode());
}

TEST(CError, WhatIsUTF8) {
    EXPECT_STREQ("\xC3\xA4", CError(L"\x00E4", "", -1, CProps(), nullptr).what());
}

TEST(CError, IsCaughtAsStandardExceptionAndAsCError) {
    try {
        throw CIOError(CIOError::CorruptData, "Corrupt.", CProps(), nullptr);
    } catch (std::exception& error) {
        EXPECT_STREQ("Corrupt.", error.what());
    }
    std::vector<std::function<void()>> const kThrowers = {
        [] { throw CError("m", "", -1, CProps(), nullptr); },
        [] { throw CIOError(CIOError::IOFailure, "m", CProps(), nullptr); },
        [] { throw CInvalidArgError("f", "m", CProps()); },
        [] {
            throw CFileSystemError(CFileSystemError::LockingNotSupported,
                                   CError("m", "", -1, CProps(), nullptr));
        },
        [] { throw CBadPathError("p"); },
        [] { throw CLockFileError("m", CProps(), nullptr); },
    };
    for (auto const& thrower : kThrowers)
        EXPECT_THROW(thrower(), CError);
}

TEST(CError, CopiesNeverThrowAndShareEverything) {
    static_assert(std::is_nothrow_copy_constructible_v<CError>);
    static_assert(std::is_nothrow_copy_assignable_v<CError>);
    static_assert(std::is_nothrow_copy_constructible_v<CIOError>);
    static_assert(std::is_nothrow_copy_constructible_v<CInvalidArgError>);
    static_assert(std::is_nothrow_copy_assignable_v<CInvalidArgError>);
    static_assert(std::is_nothrow_copy_constructible_v<CFileSystemError>);
    static_assert(std::is_nothrow_copy_constructible_v<CBadPathError>);
    static_assert(std::is_nothrow_copy_constructible_v<CLockFileError>);

    CError const original("Message.", "Detail.", 5, someProps(), nullptr);
    CError copy = original;
    EXPECT_EQ(original.what(), copy.what());
    EXPECT_EQ(kSomeProps, propsOf(copy));
    copy = CError("Other.", "", -1, CProps(), nullptr);
    EXPECT_STREQ("Other.", copy.what());
    EXPECT_STREQ("Message.", original.what());
}

TEST(CError, MovedFromErrorStaysWhole) {
    CError original("Message.", "", -1, someProps(), nullptr);
    CError const moved = std::move(original);
    EXPECT_STREQ("Message.", original.what());
    EXPECT_STREQ("Message.", moved.what());
}

TEST(CError, ParamsAddedToACopyStayOutOfTheOriginal) {
    CError original("Message.", "", -1, someProps(), nullptr);
    CError copy = original;
    copy.getParams().add("num", "7");
    EXPECT_EQ(kSomeProps, propsOf(original));
    EXPECT_EQ((Props{{"uri", "file:///d/a.vmdk"}, {"position", "512"}, {"num", "7"}}),
              propsOf(copy));
    original.getParams().add("size", "8");
    EXPECT_EQ((Props{{"uri", "file:///d/a.vmdk"}, {"position", "512"}, {"size", "8"}}),
              propsOf(original));
}

TEST(CError, ParamsOfAnErrorWithoutCopiesKeepTheirPlace) {
    CError error("Message.", "", -1, CProps(), nullptr);
    CProps& params = error.getParams();
    params.add("a", "1");
    EXPECT_EQ(&params, &error.getParams());
    EXPECT_EQ((Props{{"a", "1"}}), propsOf(error));
}

TEST(CError, ParamsAddedWhileItPassesReachTheNextHandler) {
    try {
        try {
            throw CIOError(CIOError::UnexpectedEnd, "Short.", CProps(), nullptr);
        } catch (CError& error) {
            error.getParams().add("uri", "file:///a");
            throw;
        }
    } catch (CIOError const& error) {
        EXPECT_EQ((Props{{"uri", "file:///a"}}), propsOf(error));
    }
}

TEST(CError, WhatOutlivesCopiesAndChangedParams) {
    CError error("A message that is too long for a small string.", "", -1, CProps(), nullptr);
    char const* const what = error.what();
    {
        CError const copy = error;
        error.getParams().add("a", "1");
    }
    EXPECT_STREQ("A message that is too long for a small string.", what);
    EXPECT_EQ(what, error.what());
}

TEST(CError, CauseKeepsItsTypeAndItsOwnCause) {
    CBadPathError const root("/..");
    CIOError const middle(CIOError::NotFound, "Middle.", someProps(), &root);
    CError const error("Top.", "", -1, CProps(), &middle);

    auto const* cause = dynamic_cast<CIOError const*>(error.getCause());
    ASSERT_NE(nullptr, cause);
    EXPECT_NE(static_cast<CError const*>(&middle), cause);
    EXPECT_EQ(CIOError::NotFound, cause->getIOCode());
    EXPECT_STREQ("Middle.", cause->what());
    EXPECT_EQ(kSomeProps, propsOf(*cause));
    EXPECT_NE(nullptr, dynamic_cast<CBadPathError const*>(cause->getCause()));
}

TEST(CError, CauseOutlivesTheOriginalAndIsSharedByCopies) {
    std::unique_ptr<CError> original = std::make_unique<CLockFileError>("Lock.", CProps(), nullptr);
    CError const error("Top.", "", -1, CProps(), original.get());
    original.reset();
    CError const copy = error;
    EXPECT_EQ(error.getCause(), copy.getCause());
    EXPECT_STREQ("Lock.", copy.getCause()->what());
    EXPECT_NE(nullptr, dynamic_cast<CLockFileError const*>(copy.getCause()));
}

TEST(CError, ParamsAddedToTheOriginalStayOutOfACause) {
    CError original("Cause.", "", -1, CProps(), nullptr);
    CError const error("Top.", "", -1, CProps(), &original);
    original.getParams().add("late", "1");
    EXPECT_EQ(0, error.getCause()->getParams().getCount());
}

TEST(CError, EveryTypeClonesItself) {
    CError const plain("m", "d", 3, someProps(), nullptr);
    CIOError const io(CIOError::Closed, "m", CProps(), nullptr);
    CInvalidArgError const argument("f", "m", CProps());
    CFileSystemError const fileSystem(CFileSystemError::LockingNotSupported, plain);
    CBadPathError const path("p");
    CLockFileError const lock("m", CProps(), nullptr);
    for (CError const* error :
         std::initializer_list<CError const*>{&plain, &io, &argument, &fileSystem, &path, &lock}) {
        std::shared_ptr<CError const> const clone = error->clone();
        CError const& target = *clone;
        EXPECT_TRUE(typeid(*error) == typeid(target)) << typeid(*error).name();
        EXPECT_STREQ(error->what(), clone->what());
    }
    EXPECT_TRUE(dynamic_cast<CInvalidArgError const&>(*argument.clone()).getFunction() == "f");
}

TEST(CIOError, CodeIsTheNumberOfTheCode) {
    struct Case {
        CIOError::Code code;
        int number;
    };
    constexpr Case kCases[] = {
        {CIOError::IOFailure, 1},     {CIOError::NotFound, 2},
        {CIOError::NotAllowed, 3},    {CIOError::UnexpectedEnd, 4},
        {CIOError::CorruptData, 5},   {CIOError::UnsupportedVersion, 6},
        {CIOError::BadPosition, 7},   {CIOError::AlreadyExists, 8},
        {CIOError::AccessDenied, 9},  {CIOError::Closed, 10},
        {CIOError::NotAligned, 11},   {CIOError::NoSpace, 12},
        {CIOError::NotSupported, 13},
    };
    for (Case const& c : kCases) {
        CIOError const error(c.code, "Message.", someProps(), nullptr);
        EXPECT_EQ(c.code, error.getIOCode());
        EXPECT_EQ(c.number, error.getCode());
        EXPECT_EQ(c.number, static_cast<int>(error.getIOCode()));
        EXPECT_TRUE(error.getDetail().isEmpty());
        EXPECT_EQ(kSomeProps, propsOf(error));
    }
}

TEST(CIOError, KeepsItsCause) {
    CError const cause("Cause.", "", -1, CProps(), nullptr);
    EXPECT_STREQ("Cause.", CIOError(CIOError::IOFailure, "m", CProps(), &cause).getCause()->what());
}

TEST(CInvalidArgError, NamesTheFunction) {
    CInvalidArgError const error("CVMDKDataPreparer::prepareGrainData", "Bad.", someProps());
    CInvalidArgError const copy = error;
    EXPECT_TRUE(copy.getFunction() == "CVMDKDataPreparer::prepareGrainData");
    EXPECT_TRUE(copy.getMessage() == "Bad.");
    EXPECT_TRUE(copy.getDetail().isEmpty());
    EXPECT_EQ(-1, copy.getCode());
    EXPECT_EQ(nullptr, copy.getCause());
    EXPECT_EQ(kSomeProps, propsOf(copy));
}

TEST(CInvalidArgError, MovedFromErrorStaysWhole) {
    CInvalidArgError original("CVMDKGrain::seek", "Message.", someProps());
    CInvalidArgError const moved = std::move(original);
    EXPECT_TRUE(original.getFunction() == "CVMDKGrain::seek");
    EXPECT_TRUE(moved.getFunction() == "CVMDKGrain::seek");
    CInvalidArgError assigned("", "", CProps());
    assigned = std::move(original);
    EXPECT_TRUE(original.getFunction() == "CVMDKGrain::seek");
    EXPECT_TRUE(assigned.getFunction() == "CVMDKGrain::seek");
    EXPECT_STREQ("Message.", assigned.what());
}

TEST(CFileSystemError, ShowsItsProblemAndCause) {
    CError const cause("VMDK Disk I/O stream does not support lockRange.", "", -1, CProps(),
                       nullptr);
    CFileSystemError const error(CFileSystemError::LockingNotSupported, cause);
    EXPECT_EQ(6, static_cast<int>(CFileSystemError::LockingNotSupported));
    EXPECT_EQ(CFileSystemError::LockingNotSupported, error.getProblem());
    EXPECT_STREQ("VMDK Disk I/O stream does not support lockRange.", error.what());
    ASSERT_NE(nullptr, error.getCause());
    EXPECT_STREQ("VMDK Disk I/O stream does not support lockRange.", error.getCause()->what());
}

TEST(CBadPathError, NamesThePath) {
    CBadPathError const error("/../a");
    EXPECT_STREQ("Invalid path: /../a", error.what());
    EXPECT_TRUE(error.getDetail().isEmpty());
    EXPECT_EQ(-1, error.getCode());
    EXPECT_EQ(0, error.getParams().getCount());
    EXPECT_EQ(nullptr, error.getCause());
}

TEST(CLockFileError, CarriesWhatItWasGiven) {
    CError const cause("Cause.", "", -1, CProps(), nullptr);
    CLockFileError const error("Locked.", someProps(), &cause);
    EXPECT_STREQ("Locked.", error.what());
    EXPECT_EQ(-1, error.getCode());
    EXPECT_EQ(kSomeProps, propsOf(error));
    EXPECT_STREQ("Cause.", error.getCause()->what());
}

} // namespace
