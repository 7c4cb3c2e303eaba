#include "krym/digest_type_sha256.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "tests/krym/hex.h"
#include "tests/support/expect_error.h"

namespace {

using test_support::throwsError;
using test_support::throwsInvalidArg;

class DigestTypeSHA256 : public testing::Test {
protected:
    yx::P<krym::IDigestType> type = yx::makeObject<krym::CDigestType_SHA256>();
    yx::P<krym::IDigest> digest = type->createDigest();
};

yx::String finishToHex(krym::IDigest& digest) {
    digest.finish();
    return toHex(digest.getData(), digest.getSize());
}

void updateText(krym::IDigest& digest, std::string const& text) {
    digest.update(text.data(), static_cast<int>(text.size()));
}

TEST_F(DigestTypeSHA256, HashesThePublishedMessages) {
    struct Case {
        char const* message;
        char const* digestHex;
    };
    Case const cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        yx::P<krym::IDigest> const each = type->createDigest();
        updateText(*each, c.message);
        EXPECT_EQ(finishToHex(*each), c.digestHex);
    }
}

TEST_F(DigestTypeSHA256, HashesAMillionTimesTheLetterAInPieces) {
    std::string const piece(977, 'a');
    int left = 1'000'000;
    while (left > 0) {
        int const sizeBytes = std::min(left, static_cast<int>(piece.size()));
        digest->update(piece.data(), sizeBytes);
        left -= sizeBytes;
    }
    EXPECT_EQ(finishToHex(*digest),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_F(DigestTypeSHA256, SizeIsKnownBeforeAndAfterTheEnd) {
    EXPECT_EQ(digest->getSize(), 32);
    digest->finish();
    EXPECT_EQ(digest->getSize(), 32);
}

TEST_F(DigestTypeSHA256, DigestsOfOneTypeAreIndependent) {
    yx::P<krym::IDigest> const other = type->createDigest();
    updateText(*digest, "a");
    updateText(*other, "something else");
    updateText(*digest, "bc");
    other->finish();
    EXPECT_EQ(finishToHex(*digest),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(DigestTypeSHA256, ADigestOutlivesItsType) {
    type.reset();
    updateText(*digest, "abc");
    EXPECT_EQ(finishToHex(*digest),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(DigestTypeSHA256, AnUpdateWithNothingChangesNothing) {
    digest->update(nullptr, 0);
    updateText(*digest, "abc");
    digest->update("", 0);
    EXPECT_EQ(finishToHex(*digest),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(DigestTypeSHA256, CallsOutOfOrderAreInternalErrors) {
    updateText(*digest, "abc");
    EXPECT_TRUE(
        throwsError("Internal error: digest is not finished yet", {}, [&] { digest->getData(); }));
    digest->finish();
    EXPECT_TRUE(
        throwsError("Internal error: digest is finished already", {}, [&] { digest->finish(); }));
    EXPECT_TRUE(throwsError("Internal error: digest is finished already", {},
                            [&] { digest->update("d", 1); }));
    EXPECT_EQ(toHex(digest->getData(), 32),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(DigestTypeSHA256, BadArgumentsAreRefused) {
    EXPECT_TRUE(throwsInvalidArg("COpenSSLDigest::update", "Invalid data size: -1 bytes",
                                 [&] { digest->update("x", -1); }));
    EXPECT_TRUE(
        throwsInvalidArg("COpenSSLDigest::update", "No data", [&] { digest->update(nullptr, 1); }));
}

} // namespace
