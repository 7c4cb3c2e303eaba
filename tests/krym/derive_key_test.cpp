#include "krym/derive_key.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "tests/krym/hex.h"
#include "tests/support/expect_error.h"

namespace {

using namespace std::string_literals;
using test_support::throwsInvalidArg;

struct Vector {
    std::string password;
    std::string salt;
    int iterations;
    char const* keyHex;
};

class PublishedVector : public testing::TestWithParam<Vector> {};

TEST_P(PublishedVector, IsDerived) {
    Vector const& vector = GetParam();
    int const keySizeBytes = static_cast<int>(std::string(vector.keyHex).size() / 2);
    yx::TCryptBuffer<unsigned char> key(keySizeBytes, -1);
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(
        vector.password.data(), static_cast<int>(vector.password.size()), vector.salt.data(),
        static_cast<int>(vector.salt.size()), vector.iterations, keySizeBytes, key.getData());
    EXPECT_EQ(yx::hexEncode(key), vector.keyHex);
}

// All of RFC 6070 but its vector of 16777216 iterations, which takes many seconds.
INSTANTIATE_TEST_SUITE_P(
    RFC6070, PublishedVector,
    testing::Values(Vector{"password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
                    Vector{"password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
                    Vector{"password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
                    Vector{"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
                           "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
                    Vector{"pass\0word"s, "sa\0lt"s, 4096, "56fa6aa75548099dcc37d7f03425e0c3"}),
    [](testing::TestParamInfo<Vector> const& vector) {
        return "Vector" + std::to_string(vector.index);
    });

TEST(DeriveKey, WritesExactlyTheKeySize) {
    std::array<unsigned char, 22> bytes{};
    bytes.fill(0xee);
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, "salt", 4, 1, 20, bytes.data() + 1);
    EXPECT_EQ(toHex(bytes.data(), 22), "ee0c60c80f961f0e71f3a9b524af6012062fe037a6ee");
}

TEST(DeriveKey, TakesAnEmptyPasswordAndAnEmptySalt) {
    std::array<unsigned char, 20> fromNull{};
    std::array<unsigned char, 20> fromEmpty{};
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(nullptr, 0, nullptr, 0, 1000, 20, fromNull.data());
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("", 0, "", 0, 1000, 20, fromEmpty.data());
    EXPECT_EQ(fromNull, fromEmpty);
    EXPECT_NE(toHex(fromNull.data(), 20), "0000000000000000000000000000000000000000");
}

TEST(DeriveKey, BadArgumentsAreRefusedAndLeaveTheKeyAlone) {
    struct Case {
        void const* password;
        int passwordSizeBytes;
        void const* salt;
        int saltSizeBytes;
        int iterations;
        int keySizeBytes;
        bool hasKey;
        char const* message;
    };
    Case const cases[] = {
        {"p", -1, "s", 1, 1, 4, true, "Invalid password size: -1 bytes"},
        {"p", 1, "s", -1, 1, 4, true, "Invalid salt size: -1 bytes"},
        {"p", 1, "s", 1, 0, 4, true, "Invalid number of iterations: 0"},
        {"p", 1, "s", 1, -5, 4, true, "Invalid number of iterations: -5"},
        {"p", 1, "s", 1, 1, 0, true, "Invalid key size: 0 bytes"},
        {"p", 1, "s", 1, 1, -4, true, "Invalid key size: -4 bytes"},
        {nullptr, 1, "s", 1, 1, 4, true, "No password"},
        {"p", 1, nullptr, 1, 1, 4, true, "No salt"},
        {"p", 1, "s", 1, 1, 4, false, "No key"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        std::array<unsigned char, 4> key = {1, 2, 3, 4};
        void* const keyData = c.hasKey ? key.data() : nullptr;
        EXPECT_TRUE(throwsInvalidArg("deriveKey_PKCS5_PBKDF2_HMAC_SHA1", c.message, [&] {
            krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(c.password, c.passwordSizeBytes, c.salt,
                                                   c.saltSizeBytes, c.iterations, c.keySizeBytes,
                                                   keyData);
        }));
        EXPECT_EQ(toHex(key.data(), 4), "01020304");
    }
}

} // namespace
