#include "krym/hasher_sha256.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/krym/hex.h"

namespace {

yx::String hashText(krym::CHasher_SHA256& hasher, std::string const& text) {
    unsigned char hash[krym::CHasher_SHA256::kHashSizeBytes];
    hasher.begin();
    hasher.update(text.data(), static_cast<int>(text.size()));
    hasher.finish(hash);
    return toHex(hash, krym::CHasher_SHA256::kHashSizeBytes);
}

TEST(HasherSHA256, HashesOneMessageAfterTheOther) {
    krym::CHasher_SHA256 hasher;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(hashText(hasher, ""),
                  "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
        EXPECT_EQ(hashText(hasher, "abc"),
                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    }
}

TEST(HasherSHA256, BeginDropsWhatWasFed) {
    krym::CHasher_SHA256 hasher;
    hasher.update("left over", 9);
    EXPECT_EQ(hashText(hasher, "abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

// RFC 4231, test cases 1, 2 and 6.
TEST(HasherSHA256, MakesThePublishedHMACs) {
    struct Case {
        std::string keyHex;
        char const* message;
        char const* hashHex;
    };
    std::string longKey;
    for (int i = 0; i < 131; ++i)
        longKey += "aa";
    Case const cases[] = {
        {"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b", "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"4a656665", "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {longKey, "Test Using Larger Than Block-Size Key - Hash Key First",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        krym::CHasher_SHA256 hasher(keyFromHex(c.keyHex));
        EXPECT_EQ(hashText(hasher, c.message), c.hashHex);
        EXPECT_EQ(hashText(hasher, c.message), c.hashHex);
    }
}

} // namespace
