#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/crypto.h>

#include "krym/cipher_aes256cbc.h"
#include "tests/krym/hex.h"
#include "yx/error.h"

namespace {

using test_support::Bytes;

char const* const kSecretHex = "5ec2e75ec2e75ec2a1b2c3d4e5f60718";

/// All memory that OpenSSL holds. Never destroyed, since OpenSSL gives some back at the very end.
std::set<void*>& heldBlocks() {
    static auto* const blocks = new std::set<void*>;
    return *blocks;
}

/// What the blocks are searched for, while a test asks for it.
Bytes g_secret;
int g_blocksGivenBackWithSecret = 0;

bool holdsSecret(void* block) {
    return !g_secret.empty() &&
           memmem(block, malloc_usable_size(block), g_secret.data(), g_secret.size()) != nullptr;
}

auto countHeldBlocksWithSecret() {
    return std::count_if(heldBlocks().begin(), heldBlocks().end(), holdsSecret);
}

void* watchedMalloc(std::size_t sizeBytes, char const*, int) {
    void* const block = std::malloc(sizeBytes);
    if (block)
        heldBlocks().insert(block);
    return block;
}

void watchedFree(void* block, char const*, int) {
    if (!block)
        return;
    if (holdsSecret(block))
        ++g_blocksGivenBackWithSecret;
    heldBlocks().erase(block);
    std::free(block);
}

/// Always moves the block, so that the old one is looked at.
void* watchedRealloc(void* block, std::size_t sizeBytes, char const* file, int line) {
    void* const moved = watchedMalloc(sizeBytes, file, line);
    if (!moved)
        return nullptr;
    if (block)
        std::memcpy(moved, block, std::min(sizeBytes, malloc_usable_size(block)));
    watchedFree(block, file, line);
    return moved;
}

// OpenSSL takes other memory functions only before its first allocation.
bool const g_isInstalled =
    CRYPTO_set_mem_functions(watchedMalloc, watchedRealloc, watchedFree) == 1;

class KeyCleansing : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(g_isInstalled);
        g_blocksGivenBackWithSecret = 0;
        g_secret = test_support::fromHex(kSecretHex);
    }
    void TearDown() override { g_secret.clear(); }
};

TEST_F(KeyCleansing, TheWatchSeesASecretInABlock) {
    auto* const block = static_cast<unsigned char*>(OPENSSL_zalloc(100));
    std::memcpy(block + 50, g_secret.data(), g_secret.size());
    EXPECT_EQ(countHeldBlocksWithSecret(), 1);
    OPENSSL_free(block);
    EXPECT_EQ(countHeldBlocksWithSecret(), 0);
    EXPECT_EQ(g_blocksGivenBackWithSecret, 1);
}

TEST_F(KeyCleansing, NoKeyOutlivesACallOfACipher) {
    // The secret is the key's first half, with which key schedules begin or end.
    yx::TCryptBuffer<unsigned char> const key =
        keyFromHex("5ec2e75ec2e75ec2a1b2c3d4e5f60718 0102030405060708090a0b0c0d0e0f10");
    unsigned char const iv[16] = {};
    unsigned char const source[40] = {};
    {
        krym::CCipher_AES256CBC cipher;
        yx::TBuffer<unsigned char> target;
        cipher.encrypt(key, source, 40, target, false, iv);
        EXPECT_EQ(countHeldBlocksWithSecret(), 0);
        cipher.decrypt(key, source, 32, target, false, iv);
        EXPECT_EQ(countHeldBlocksWithSecret(), 0);
        EXPECT_THROW(cipher.decrypt(key, source, 33, target, false, iv), yx::CInvalidArgError);
        EXPECT_EQ(countHeldBlocksWithSecret(), 0);
    }
    EXPECT_EQ(g_blocksGivenBackWithSecret, 0);
}

} // namespace
