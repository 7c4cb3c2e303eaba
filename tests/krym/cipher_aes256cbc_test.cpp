#include "krym/cipher_aes256cbc.h"

#include <climits>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "tests/krym/hex.h"
#include "tests/support/expect_error.h"
#include "tests/support/reference_codec.h"

namespace {

using test_support::Buffer;
using test_support::Bytes;
using test_support::concat;
using test_support::encipherWithOpenSSL;
using test_support::pattern;
using test_support::sameBytes;
using test_support::throwsError;
using test_support::throwsInvalidArg;
using test_support::toBuffer;
using test_support::toBytes;
using test_support::zeros;
using Key = yx::TCryptBuffer<unsigned char>;

// NIST SP 800-38A, F.2.5 and F.2.6.
char const* const kKeyHex = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
char const* const kIVHex = "000102030405060708090a0b0c0d0e0f";
char const* const kPlainHex = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                              "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
char const* const kCipherHex = "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                               "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b";

class CipherAES256CBC : public testing::Test {
protected:
    Buffer encrypt(Buffer const& plain) {
        Buffer result;
        cipher->encrypt(key, plain.getData(), plain.getUsed(), result, false, iv.getData());
        return result;
    }

    Buffer decrypt(Buffer const& enciphered) {
        Buffer result;
        cipher->decrypt(key, enciphered.getData(), enciphered.getUsed(), result, false,
                        iv.getData());
        return result;
    }

    yx::P<krym::ICipher> cipher = yx::makeObject<krym::CCipher_AES256CBC>();
    Key key = keyFromHex(kKeyHex);
    Buffer iv = bufferFromHex(kIVHex);
};

TEST_F(CipherAES256CBC, StatesItsNameAndSizes) {
    EXPECT_EQ(cipher->getID(), "aes256cbc");
    EXPECT_EQ(cipher->getKeySize(), 32);
    EXPECT_EQ(cipher->getIVSize(), 16);
    EXPECT_EQ(cipher->getBlockSize(), 16);
}

TEST_F(CipherAES256CBC, EnciphersThePublishedVector) {
    EXPECT_EQ(yx::hexEncode(encrypt(bufferFromHex(kPlainHex))), kCipherHex);
}

TEST_F(CipherAES256CBC, DeciphersThePublishedVector) {
    EXPECT_EQ(yx::hexEncode(decrypt(bufferFromHex(kCipherHex))), kPlainHex);
}

TEST_F(CipherAES256CBC, AgreesWithOpenSSLOnWholeGrains) {
    Bytes const plain = pattern(65536, 1);
    Buffer const enciphered = encrypt(toBuffer(plain));
    EXPECT_TRUE(sameBytes(encipherWithOpenSSL(plain, toBytes(key), toBytes(iv)), enciphered));
    EXPECT_TRUE(sameBytes(plain, decrypt(enciphered)));
}

TEST_F(CipherAES256CBC, AddsNoBlockToWholeBlocks) {
    EXPECT_EQ(encrypt(Buffer(16, -1)).getUsed(), 16);
    EXPECT_EQ(encrypt(Buffer(65536, -1)).getUsed(), 65536);
}

TEST_F(CipherAES256CBC, EveryPartialBlockIsFilledWithZeros) {
    for (std::size_t sizeBytes = 1; sizeBytes < 48; ++sizeBytes) {
        SCOPED_TRACE(sizeBytes);
        Bytes const plain = pattern(sizeBytes, 2);
        Bytes const filled = concat({plain, zeros((48 - sizeBytes) % 16)});
        Buffer const enciphered = encrypt(toBuffer(plain));
        EXPECT_TRUE(sameBytes(encipherWithOpenSSL(filled, toBytes(key), toBytes(iv)), enciphered));
        EXPECT_TRUE(sameBytes(filled, decrypt(enciphered)));
    }
}

TEST_F(CipherAES256CBC, APartialBlockHasTheseBytes) {
    // The first 20 bytes of the published plain text: its first block stays as published.
    Buffer const enciphered = encrypt(bufferFromHex("6bc1bee22e409f96e93d7e117393172aae2d8a57"));
    EXPECT_EQ(yx::hexEncode(enciphered), "f58c4c04d6e5f1ba779eabfb5f7bfbd6"
                                         "890e9a43008e03544ea764d144db5c3e");
}

TEST_F(CipherAES256CBC, EncryptAppendsBehindTheUsedBytes) {
    Buffer target = bufferFromHex("0102030405060708090a0b0c");
    Buffer const plain = bufferFromHex(kPlainHex);
    cipher->encrypt(key, plain.getData(), plain.getUsed(), target, true, iv.getData());
    EXPECT_EQ(yx::hexEncode(target), yx::String("0102030405060708090a0b0c") + kCipherHex);
}

TEST_F(CipherAES256CBC, DecryptAppendsBehindTheUsedBytes) {
    Buffer target = bufferFromHex("0102030405060708090a0b0c");
    Buffer const enciphered = bufferFromHex(kCipherHex);
    cipher->decrypt(key, enciphered.getData(), enciphered.getUsed(), target, true, iv.getData());
    EXPECT_EQ(yx::hexEncode(target), yx::String("0102030405060708090a0b0c") + kPlainHex);
}

TEST_F(CipherAES256CBC, AppendKeepsRoomThatIsAllocatedAlready) {
    Buffer target(1024, 12);
    yx::initMemory(target.getData(), 0xee, 12);
    unsigned char const* const storage = target.getData();
    Buffer const plain = bufferFromHex(kPlainHex);
    cipher->encrypt(key, plain.getData(), plain.getUsed(), target, true, iv.getData());
    EXPECT_EQ(target.getData(), storage);
    EXPECT_EQ(target.getAllocated(), 1024);
    EXPECT_EQ(yx::hexEncode(target), yx::String("eeeeeeeeeeeeeeeeeeeeeeee") + kCipherHex);
}

TEST_F(CipherAES256CBC, WithoutAppendTheContentIsReplaced) {
    Buffer target(200, -1);
    Buffer const plain = bufferFromHex(kPlainHex);
    cipher->encrypt(key, plain.getData(), plain.getUsed(), target, false, iv.getData());
    EXPECT_EQ(yx::hexEncode(target), kCipherHex);

    Buffer const enciphered = bufferFromHex(kCipherHex);
    cipher->decrypt(key, enciphered.getData(), 16, target, false, iv.getData());
    EXPECT_EQ(yx::hexEncode(target), "6bc1bee22e409f96e93d7e117393172a");
}

TEST_F(CipherAES256CBC, NothingGivesNothing) {
    Buffer target(12, -1);
    cipher->encrypt(key, nullptr, 0, target, true, iv.getData());
    EXPECT_EQ(target.getUsed(), 12);
    cipher->decrypt(key, nullptr, 0, target, true, iv.getData());
    EXPECT_EQ(target.getUsed(), 12);
    cipher->encrypt(key, nullptr, 0, target, false, iv.getData());
    EXPECT_EQ(target.getUsed(), 0);

    Buffer empty;
    cipher->decrypt(key, nullptr, 0, empty, true, iv.getData());
    EXPECT_EQ(empty.getUsed(), 0);
}

TEST_F(CipherAES256CBC, EachCallStartsANewChain) {
    Buffer const plain = bufferFromHex(kPlainHex);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(yx::hexEncode(encrypt(plain)), kCipherHex);
        EXPECT_EQ(yx::hexEncode(decrypt(bufferFromHex(kCipherHex))), kPlainHex);
    }
}

TEST_F(CipherAES256CBC, CallsWithOtherKeysVectorsAndSizesDoNotDisturbEachOther) {
    Key const otherKey =
        keyFromHex("ffeeddccbbaa99887766554433221100ffeeddccbbaa99887766554433221100");
    Buffer const otherIV = bufferFromHex("ffffffffffffffffffffffffffffffff");
    Buffer const otherPlain = toBuffer(pattern(4096, 3));
    for (int partBytes : {1, 15, 16, 17, 4096}) {
        SCOPED_TRACE(partBytes);
        Buffer other;
        cipher->encrypt(otherKey, otherPlain.getData(), partBytes, other, false, otherIV.getData());
        EXPECT_EQ(yx::hexEncode(encrypt(bufferFromHex(kPlainHex))), kCipherHex);
        Buffer otherResult;
        cipher->decrypt(otherKey, other.getData(), other.getUsed(), otherResult, false,
                        otherIV.getData());
        EXPECT_EQ(yx::hexEncode(decrypt(bufferFromHex(kCipherHex))), kPlainHex);
    }
}

TEST_F(CipherAES256CBC, TheVectorMatters) {
    Buffer const zeroIV = bufferFromHex("00000000000000000000000000000000");
    Buffer const plain = bufferFromHex("6bc1bee22e409f96e93d7e117393172a");
    Buffer target;
    cipher->encrypt(key, plain.getData(), plain.getUsed(), target, false, zeroIV.getData());
    // The ECB vector of the same publication, F.1.5, is a chain of one block from a zero vector.
    EXPECT_EQ(yx::hexEncode(target), "f3eed1bdb5d2a03c064b5a7e3db181f8");
}

TEST_F(CipherAES256CBC, AWrongKeyGivesOtherBytesAndNoError) {
    key.getData()[31] ^= 1;
    Buffer const plain = decrypt(bufferFromHex(kCipherHex));
    EXPECT_EQ(plain.getUsed(), 64);
    EXPECT_NE(yx::hexEncode(plain), kPlainHex);
}

TEST_F(CipherAES256CBC, BadArgumentsAreRefusedAndLeaveTheTargetAlone) {
    struct Case {
        int keySizeBytes;
        bool hasSource;
        int sizeBytes;
        bool hasIV;
        char const* message;
    };
    Case const cases[] = {
        {0, true, 16, true, "Invalid key size: 0 bytes instead of 32"},
        {16, true, 16, true, "Invalid key size: 16 bytes instead of 32"},
        {31, true, 16, true, "Invalid key size: 31 bytes instead of 32"},
        {33, true, 16, true, "Invalid key size: 33 bytes instead of 32"},
        {32, true, -1, true, "Invalid source size: -1 bytes"},
        {32, true, 16, false, "No initialization vector"},
        {32, false, 16, true, "No source"},
        {31, false, -1, false, "Invalid key size: 31 bytes instead of 32"},
        {32, true, 2147483632, true, "Result is too large for the target: 2147483648 bytes"},
    };
    unsigned char const source[16] = {};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        Key const badKey(c.keySizeBytes, -1);
        Buffer target = bufferFromHex("0102030405060708090a0b0c0d0e0f10");
        void const* const data = c.hasSource ? source : nullptr;
        unsigned char const* const vector = c.hasIV ? iv.getData() : nullptr;
        EXPECT_TRUE(throwsInvalidArg("COpenSSLCipher::encrypt", c.message, [&] {
            cipher->encrypt(badKey, data, c.sizeBytes, target, true, vector);
        }));
        EXPECT_TRUE(throwsInvalidArg("COpenSSLCipher::decrypt", c.message, [&] {
            cipher->decrypt(badKey, data, c.sizeBytes, target, true, vector);
        }));
        EXPECT_EQ(yx::hexEncode(target), "0102030405060708090a0b0c0d0e0f10");
    }
}

TEST_F(CipherAES256CBC, AResultThatNoBufferHoldsIsRefused) {
    unsigned char const source = 0;
    Buffer target;
    EXPECT_TRUE(throwsInvalidArg(
        "COpenSSLCipher::encrypt", "Result is too large for the target: 2147483648 bytes",
        [&] { cipher->encrypt(key, &source, INT_MAX, target, false, iv.getData()); }));
    EXPECT_EQ(target.getAllocated(), 0);
}

TEST_F(CipherAES256CBC, DecipheringAPartialBlockIsRefused) {
    Buffer const enciphered = bufferFromHex(kCipherHex);
    Buffer target = bufferFromHex("010203");
    EXPECT_TRUE(throwsInvalidArg(
        "COpenSSLCipher::decrypt", "Size is no whole number of cipher blocks: 17 bytes",
        [&] { cipher->decrypt(key, enciphered.getData(), 17, target, false, iv.getData()); }));
    EXPECT_TRUE(throwsInvalidArg(
        "COpenSSLCipher::decrypt", "Size is no whole number of cipher blocks: 15 bytes",
        [&] { cipher->decrypt(key, enciphered.getData(), 15, target, false, iv.getData()); }));
    EXPECT_EQ(yx::hexEncode(target), "010203");
}

/// Lets a test name any algorithm.
class CNamedCipher : public krym::COpenSSLCipher {
public:
    explicit CNamedCipher(char const* algorithm) : COpenSSLCipher("test", algorithm) {}
};

TEST(OpenSSLCipher, ServesOtherCiphersInCBCMode) {
    CNamedCipher cipher("AES-128-CBC");
    EXPECT_EQ(cipher.getID(), "test");
    EXPECT_EQ(cipher.getKeySize(), 16);
    EXPECT_EQ(cipher.getIVSize(), 16);
    EXPECT_EQ(cipher.getBlockSize(), 16);

    // NIST SP 800-38A, F.2.1.
    Buffer const plain = bufferFromHex("6bc1bee22e409f96e93d7e117393172a");
    Buffer const iv = bufferFromHex(kIVHex);
    Buffer target;
    cipher.encrypt(keyFromHex("2b7e151628aed2a6abf7158809cf4f3c"), plain.getData(), 16, target,
                   false, iv.getData());
    EXPECT_EQ(yx::hexEncode(target), "7649abac8119b246cee98e9b12e9197d");
}

TEST(OpenSSLCipher, AnUnknownAlgorithmIsReportedInTheWordsOfOpenSSL) {
    EXPECT_TRUE(throwsError("OpenSSL EVP_CIPHER_fetch failed: "
                            "error:0308010C:digital envelope routines::unsupported",
                            {}, [] { CNamedCipher cipher("no-such-cipher"); }));
    EXPECT_EQ(ERR_peek_error(), 0ul) << "the error is left in OpenSSL's queue";
}

TEST(OpenSSLCipher, AnotherModeIsRefused) {
    EXPECT_TRUE(throwsInvalidArg("COpenSSLCipher::COpenSSLCipher",
                                 "Cipher is not in CBC mode: AES-256-GCM",
                                 [] { CNamedCipher cipher("AES-256-GCM"); }));
}

} // namespace
