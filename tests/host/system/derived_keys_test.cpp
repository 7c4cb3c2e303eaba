#include "host/system/derived_keys.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "host/system/key_rounds.h"

namespace kelm::host {
namespace {

using KeyBytes = std::array<unsigned char, 32>;

KeyBytes deriveFor(std::string const& password, std::string const& salt, int rounds) {
    KeyBytes key{};
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()),
                                           salt.data(), static_cast<int>(salt.size()), rounds,
                                           static_cast<int>(key.size()), key.data());
    return key;
}

krym::KeyDerivation derivationOf(std::string const& password, std::string const& salt, int rounds) {
    return {password.data(), static_cast<int>(password.size()),
            salt.data(),     static_cast<int>(salt.size()),
            rounds,          static_cast<int>(KeyBytes().size())};
}

TEST(DerivedKeys, GivesWhatWasDerivedAndNothingElse) {
    KeyBytes const known = deriveFor("one", "salt", 1000);
    DerivedKeys keys;
    KeyBytes found{};
    EXPECT_FALSE(keys.tryGet(derivationOf("one", "salt", 1000), found.data()));
    EXPECT_EQ(known, deriveFor("one", "salt", 1000));
    EXPECT_TRUE(keys.tryGet(derivationOf("one", "salt", 1000), found.data()));
    EXPECT_EQ(known, found);
    found = {};
    EXPECT_FALSE(keys.tryGet(derivationOf("two", "salt", 1000), found.data()));
    EXPECT_FALSE(keys.tryGet(derivationOf("one", "salt2", 1000), found.data()));
    EXPECT_FALSE(keys.tryGet(derivationOf("one", "salt", 1001), found.data()));
    EXPECT_FALSE(keys.tryGet(derivationOf("", "salt", 1000), found.data()));
    EXPECT_EQ(KeyBytes(), found);
}

TEST(DerivedKeys, TakeThePlaceOfADerivation) {
    DerivedKeys keys;
    KeyBytes other;
    other.fill(7);
    keys.put(derivationOf("one", "salt", 1000), other.data());
    EXPECT_EQ(other, deriveFor("one", "salt", 1000));
    other.fill(8);
    keys.put(derivationOf("one", "salt", 1000), other.data());
    EXPECT_EQ(other, deriveFor("one", "salt", 1000));
}

TEST(DerivedKeys, EndWithTheObject) {
    KeyBytes const right = deriveFor("one", "salt", 1000);
    {
        DerivedKeys keys;
        KeyBytes const other{};
        keys.put(derivationOf("one", "salt", 1000), other.data());
        EXPECT_EQ(other, deriveFor("one", "salt", 1000));
    }
    EXPECT_EQ(right, deriveFor("one", "salt", 1000));
}

TEST(DerivedKeys, LeaveTheHookItsSay) {
    DerivedKeys keys;
    deriveFor("one", "salt", 1000);
    int calls = 0;
    krym::setKeyDerivationHook([&](int) { ++calls; });
    deriveFor("one", "salt", 1000);
    krym::setKeyDerivationHook({});
    EXPECT_EQ(1, calls);
}

TEST(KeyRounds, AreNeverFewerThanRecommended) {
    EXPECT_GE(measureKeyRounds(), 600000);
    EXPECT_LE(measureKeyRounds(), 5000000);
}

} // namespace
} // namespace kelm::host
