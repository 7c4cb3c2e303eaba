#include "host/system/key_derivation.h"

#include <array>

#include <gtest/gtest.h>

#include "krym/derive_key.h"

namespace kelm::host {
namespace {

void derive(int rounds) {
    std::array<unsigned char, 20> key{};
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("p", 1, "s", 1, rounds, 20, key.data());
}

TEST(KeyDerivationWatch, RefusesMoreRoundsThanAllowedBeforeTheFirst) {
    KeyDerivationWatch const watch(nullptr, 1000);
    derive(1000);
    try {
        derive(2147483647);
        FAIL();
    } catch (TooManyRoundsError const& error) {
        EXPECT_EQ(
            error.getMessage(),
            "The key of the disk takes 2147483647 rounds to derive; at most 1000 are allowed.");
        EXPECT_EQ(-1, error.getCode());
        EXPECT_TRUE(dynamic_cast<TooManyRoundsError const*>(error.clone().get()));
    }
}

TEST(KeyDerivationWatch, EndsADerivationWhenItIsCancelled) {
    CancelFlag cancel;
    KeyDerivationWatch const watch(&cancel, 2147483647);
    int calls = 0;
    std::function<void(int)> const hook = krym::setKeyDerivationHook({});
    krym::setKeyDerivationHook([&](int rounds) {
        if (++calls == 3)
            cancel.set();
        hook(rounds);
    });
    EXPECT_THROW(derive(2147483647), CancelledError);
    EXPECT_EQ(3, calls);
}

TEST(KeyDerivationWatch, GivesTheHookBack) {
    int calls = 0;
    krym::setKeyDerivationHook([&](int) { ++calls; });
    { KeyDerivationWatch const watch(nullptr); }
    derive(1);
    EXPECT_EQ(1, calls);
    krym::setKeyDerivationHook({});
}

} // namespace
} // namespace kelm::host
