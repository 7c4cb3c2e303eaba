#include "krym/derive_key.h"

#include <array>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

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

// Passwords around the block of SHA-1, where HMAC takes the digest of the key in its place.
TEST(DeriveKey, AgreesWithOpenSSLForEverySizeOfPasswordSaltAndKey) {
    std::string const text(150, 'p');
    for (int const passwordSize : {0, 1, 63, 64, 65, 150}) {
        for (int const saltSize : {0, 1, 64, 150}) {
            for (int const keySize : {1, 19, 20, 21, 32, 60, 61}) {
                std::array<unsigned char, 61> expected{};
                std::array<unsigned char, 61> key{};
                ASSERT_EQ(1, PKCS5_PBKDF2_HMAC(text.data(), passwordSize,
                                               reinterpret_cast<unsigned char const*>(text.data()),
                                               saltSize, 3, EVP_sha1(), keySize, expected.data()));
                krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(text.data(), passwordSize, text.data(),
                                                       saltSize, 3, keySize, key.data());
                EXPECT_EQ(expected, key) << passwordSize << ' ' << saltSize << ' ' << keySize;
            }
        }
    }
}

class KeyDerivationHook : public testing::Test {
protected:
    ~KeyDerivationHook() override { krym::setKeyDerivationHook({}); }

    static constexpr int kIterations = 3 * krym::kKeyDerivationStretch;
};

TEST_F(KeyDerivationHook, IsCalledBeforeTheFirstIterationAndBetweenStretches) {
    std::vector<int> calls;
    krym::setKeyDerivationHook([&](int iterations) { calls.push_back(iterations); });
    std::array<unsigned char, 40> key{};
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("p", 1, "s", 1, kIterations, 40, key.data());
    // Twice in each of two blocks.
    EXPECT_EQ(std::vector<int>(5, kIterations), calls);
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("p", 1, "s", 1, 7, 40, key.data());
    EXPECT_EQ(7, calls.back());
    EXPECT_EQ(6U, calls.size());
}

TEST_F(KeyDerivationHook, EndsTheDerivationByThrowingAndLeavesNoKey) {
    for (int last = 1; last <= 5; ++last) {
        int calls = 0;
        krym::setKeyDerivationHook([&](int) {
            if (++calls == last)
                throw std::runtime_error("stop");
        });
        std::array<unsigned char, 40> key{};
        key.fill(0xee);
        EXPECT_THROW(
            krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("p", 1, "s", 1, kIterations, 40, key.data()),
            std::runtime_error);
        EXPECT_EQ(last, calls);
        EXPECT_EQ((std::array<unsigned char, 40>{}), key);
    }
}

TEST_F(KeyDerivationHook, IsGivenBackWhenItIsReplaced) {
    int calls = 0;
    EXPECT_FALSE(krym::setKeyDerivationHook([&](int) { ++calls; }));
    std::function<void(int)> const first = krym::setKeyDerivationHook({});
    ASSERT_TRUE(first);
    first(1);
    EXPECT_EQ(1, calls);
}

} // namespace
