#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/reference_codec.h"

namespace test_support {
namespace {

constexpr char kURI[] = "mem:///disks/disk.vmdk";
constexpr char kAlgorithm[] = "pkcs5-pbkdf2-hmac-sha1:10000";

Bytes pbkdf2(std::string const& password, Bytes const& salt, int iterations) {
    Bytes key(32);
    EXPECT_EQ(1, PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()),
                                        salt.data(), static_cast<int>(salt.size()), iterations, 32,
                                        key.data()));
    return key;
}

Bytes sha256(Bytes const& data) {
    Bytes digest(32);
    SHA256(data.data(), data.size(), digest.data());
    return digest;
}

class DiskEncryption : public DiskTest {
protected:
    /// An encrypted disk whose descriptor has another value for a key.
    void createWith(std::string const& key, std::string const& value) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create({.fileSizeLimit = kSplitLimit, .password = "secret"});
        change(key, value);
    }

    /// Gives a key of the descriptor another value.
    void change(std::string const& key, std::string const& value) {
        kelm::CVMDKDescriptor descriptor(files->getFile(uriOf("disk.vmdk")));
        descriptor.setValue(yx::String::fromUTF8(key), yx::String::fromUTF8(value), false, true);
        putText("disk.vmdk", descriptor.toString().toStdString());
    }

    testing::AssertionResult failsToOpen(std::string const& message, char const* password) {
        return throwsError(message, Props{{"uri", kURI}},
                           [&] { open(yx::IIOStream::ReadOnly, password); });
    }

    static testing::AssertionResult derivationFails(std::string const& message,
                                                    char const* algorithm, int saltBytes) {
        return throwsInvalidArg("CVMDKDisk::deriveEncryptKey", message, Props{}, [&] {
            yx::TCryptBuffer<unsigned char> key;
            kelm::CVMDKDisk::deriveEncryptKey(key, 32, "secret", algorithm,
                                              toBuffer(zeros(static_cast<std::size_t>(saltBytes))));
        });
    }
};

TEST_F(DiskEncryption, DiskKeyIsWrappedUnderThePasswordAndHashed) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret"});
    kelm::CVMDKDescriptor descriptor(files->getFile(uriOf("disk.vmdk")));
    Bytes const salt = toBytes(descriptor.getYxEncryptionKeyDerivationSalt());
    Bytes const iv = toBytes(descriptor.getYxEncryptionIV());
    ASSERT_EQ(32u, salt.size());
    ASSERT_EQ(16u, iv.size());
    Bytes const diskKey = decipherWithOpenSSL(toBytes(descriptor.getYxEncryptedEncryptionKey()),
                                              pbkdf2("secret", salt, 10000), iv);
    EXPECT_TRUE(sameBytes(toBytes(descriptor.getYxEncryptionKeyHash()), sha256(diskKey)));
}

TEST_F(DiskEncryption, StoredGrainIsThePlainOneUnderTheDiskKey) {
    Bytes const grain = pattern(kGrainBytes, 7);
    {
        yx::P<kelm::CVMDKDisk> const disk =
            create({.fileSizeLimit = kSplitLimit, .password = "secret"});
        writeAt(*disk, kGrainBytes, grain); // grain 1
    }
    kelm::CVMDKDescriptor descriptor(files->getFile(uriOf("disk.vmdk")));
    Bytes iv = toBytes(descriptor.getYxEncryptionIV());
    Bytes const diskKey = decipherWithOpenSSL(
        toBytes(descriptor.getYxEncryptedEncryptionKey()),
        pbkdf2("secret", toBytes(descriptor.getYxEncryptionKeyDerivationSalt()), 10000), iv);
    // The grain's index lies over both halves of the disk's initial value.
    iv[0] ^= 1;
    iv[8] ^= 1;
    Bytes const file = toBytes(files->getFile(uriOf("disk-s00000.vmdk")));
    EXPECT_TRUE(sameBytes(grain, decipherWithOpenSSL(slice(file, 65536, 65536), diskKey, iv)));
}

TEST_F(DiskEncryption, RandomValuesDifferFromDiskToDisk) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret"}, "a.vmdk");
    create({.fileSizeLimit = kSplitLimit, .password = "secret"}, "b.vmdk");
    kelm::CVMDKDescriptor a(files->getFile(uriOf("a.vmdk")));
    kelm::CVMDKDescriptor b(files->getFile(uriOf("b.vmdk")));
    EXPECT_NE(toBytes(a.getYxEncryptionIV()), toBytes(b.getYxEncryptionIV()));
    EXPECT_NE(toBytes(a.getYxEncryptionKeyDerivationSalt()),
              toBytes(b.getYxEncryptionKeyDerivationSalt()));
    EXPECT_NE(toBytes(a.getYxEncryptionKeyHash()), toBytes(b.getYxEncryptionKeyHash()));
}

TEST_F(DiskEncryption, EveryEncryptedKindReadsBackWithItsPassword) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes const content = concat({textPattern(200000, 1), pattern(200000, 2)});
        writeAt(*create(kind), 3000000, content);
        EXPECT_TRUE(sameBytes(
            content, readAt(*open(yx::IIOStream::ReadOnly, kind.password), 3000000, 400000)));
    }
}

TEST_F(DiskEncryption, WrongPasswordIsToldAsSuch) {
    create({.password = "secret"});
    EXPECT_TRUE(failsToOpen("Specified VMDK encryption password is not correct.", "Secret"));
}

TEST_F(DiskEncryption, EmptyPasswordIsToldBeforeAnyDerivation) {
    // The derivation would be refused, so it was not run.
    createWith("yxEncKeyDerivAlg", "unknown");
    EXPECT_TRUE(failsToOpen("VMDK is encrypted but no password provided", ""));
}

TEST_F(DiskEncryption, PlainDiskIgnoresThePassword) {
    create({});
    EXPECT_NO_THROW(open(yx::IIOStream::ReadOnly, "anything"));
}

TEST_F(DiskEncryption, UnknownAlgorithmIsRefusedFirst) {
    createWith("yxEncAlg", "rot13");
    EXPECT_TRUE(failsToOpen("Unsupported encryption algorithm used in VMDK: rot13", ""));
}

TEST_F(DiskEncryption, UnknownHashAlgorithmIsReportedAlsoForAWrongPassword) {
    createWith("yxEncKeyHashAlg", "md5");
    EXPECT_TRUE(failsToOpen("Unsupported key hash algorithm used in VMDK: md5", "wrong"));
}

TEST_F(DiskEncryption, UnknownHashAlgorithmIsLookedAtBehindDerivationAndDecryption) {
    createWith("yxEncKeyHashAlg", "md5");
    change("yxEncEncKey", "00");
    EXPECT_TRUE(throwsInvalidArg("COpenSSLCipher::decrypt",
                                 "Size is no whole number of cipher blocks: 1 bytes", Props{},
                                 [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
    change("yxEncKeyDerivAlg", "unknown");
    EXPECT_TRUE(throwsInvalidArg("CVMDKDisk::deriveEncryptKey",
                                 "Unknown encryption key derivation algorithm: unknown", Props{},
                                 [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
}

TEST_F(DiskEncryption, HashOfAnotherLengthIsAWrongPassword) {
    createWith("yxEncKeyHash", "00112233");
    EXPECT_TRUE(failsToOpen("Specified VMDK encryption password is not correct.", "secret"));
}

TEST_F(DiskEncryption, InitialValueOfAnotherLengthIsRefused) {
    for (auto const& [value, size] : {std::pair("00", "1"), std::pair("", "0")}) {
        createWith("yxEncIV", value);
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::CorruptData,
            std::string("Invalid size of yxEncIV in VMDK descriptor: ") + size + " bytes",
            Props{{"uri", kURI}}, [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
    }
}

TEST_F(DiskEncryption, WrappedKeyThatIsNoWholeBlockIsAnError) {
    for (char const* value : {"", "00", "00112233445566778899aabbccddeeff00"}) {
        createWith("yxEncEncKey", value);
        EXPECT_THROW(open(yx::IIOStream::ReadOnly, "secret"), yx::CError) << value;
    }
}

TEST_F(DiskEncryption, ErrorOfTheCipherPassesThrough) {
    createWith("yxEncEncKey", "00");
    EXPECT_TRUE(throwsInvalidArg("COpenSSLCipher::decrypt",
                                 "Size is no whole number of cipher blocks: 1 bytes", Props{},
                                 [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
}

TEST_F(DiskEncryption, AbsentKeysAreReportedByTheDescriptor) {
    for (char const* key : {"yxEncKeyDerivAlg", "yxEncKeyDerivSalt", "yxEncEncKey", "yxEncIV",
                            "yxEncKeyHashAlg", "yxEncKeyHash"}) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create({.fileSizeLimit = kSplitLimit, .password = "secret"});
        std::string text = textOf("disk.vmdk");
        text.replace(text.find("\n" + std::string(key) + "="), 3, "\n#x");
        putText("disk.vmdk", text);
        EXPECT_TRUE(throwsError("VMDK descriptor value '" + std::string(key) + "' not found.",
                                Props{}, [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
    }
}

TEST_F(DiskEncryption, OfSeveralAbsentKeysTheFirstIsReported) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret"});
    std::string text = textOf("disk.vmdk");
    for (char const* const key :
         {"yxEncIV", "yxEncEncKey", "yxEncKeyDerivSalt", "yxEncKeyDerivAlg"}) {
        text.replace(text.find("\n" + std::string(key) + "="), 3, "\n#x");
        putText("disk.vmdk", text);
        EXPECT_TRUE(throwsError("VMDK descriptor value '" + std::string(key) + "' not found.",
                                Props{}, [&] { open(yx::IIOStream::ReadOnly, "secret"); }));
    }
}

TEST_F(DiskEncryption, ExtentsMustAgreeWithTheDescriptor) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret"});
    putExtent("disk-s00001.vmdk", 46);
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadOnly, "secret");
    EXPECT_NO_THROW(readAt(*disk, 0, 1));
    EXPECT_TRUE(throwsInvalidArg(
        "CVMDKSparseExtentFile constructor",
        "VMDK extent file is NOT encrypted but a cipher object was specified.",
        Props{{"uri", "mem:///disks/disk-s00001.vmdk"}}, [&] { readAt(*disk, 5888 * 512, 1); }));
}

TEST_F(DiskEncryption, DerivationIsThePublishedOne) {
    Bytes const salt = fromText("saltSALTsaltSALT");
    for (auto const& [algorithm, iterations] :
         {std::pair("pkcs5-pbkdf2-hmac-sha1:1000", 1000), std::pair(kAlgorithm, 10000)}) {
        yx::TCryptBuffer<unsigned char> key;
        kelm::CVMDKDisk::deriveEncryptKey(key, 32, "secret", algorithm, toBuffer(salt));
        EXPECT_TRUE(sameBytes(pbkdf2("secret", salt, iterations), toBytes(key)));
    }
}

TEST_F(DiskEncryption, PasswordIsTakenAsUTF8) {
    Bytes const salt = fromText("saltSALTsaltSALT");
    yx::TCryptBuffer<unsigned char> key;
    kelm::CVMDKDisk::deriveEncryptKey(key, 32, yx::String(L"p\u00e4ssw\u00f6rd \u20ac"), kAlgorithm,
                                      toBuffer(salt));
    EXPECT_TRUE(
        sameBytes(pbkdf2("p\xc3\xa4ssw\xc3\xb6rd \xe2\x82\xac", salt, 10000), toBytes(key)));
}

TEST_F(DiskEncryption, PasswordEndsAtItsFirstZeroByte) {
    Bytes const salt = fromText("saltSALTsaltSALT");
    yx::TCryptBuffer<unsigned char> key;
    kelm::CVMDKDisk::deriveEncryptKey(key, 32, yx::String(wxString(L"secret\0tail", 11)),
                                      kAlgorithm, toBuffer(salt));
    EXPECT_TRUE(sameBytes(pbkdf2("secret", salt, 10000), toBytes(key)));
}

TEST_F(DiskEncryption, IterationsAreHandedOnIn32Bits) {
    Bytes const salt = fromText("saltSALTsaltSALT");
    yx::TCryptBuffer<unsigned char> key;
    // 2^32 + 1000
    kelm::CVMDKDisk::deriveEncryptKey(key, 32, "secret", "pkcs5-pbkdf2-hmac-sha1:4294968296",
                                      toBuffer(salt));
    EXPECT_TRUE(sameBytes(pbkdf2("secret", salt, 1000), toBytes(key)));
}

TEST_F(DiskEncryption, LimitsOfADerivation) {
    yx::TCryptBuffer<unsigned char> key;
    EXPECT_NO_THROW(kelm::CVMDKDisk::deriveEncryptKey(
        key, 32, "secret", "pkcs5-pbkdf2-hmac-sha1:1000", toBuffer(zeros(8))));
    EXPECT_EQ(32, key.getUsed());
    EXPECT_TRUE(derivationFails("Key derivation iterations are too small: 999",
                                "pkcs5-pbkdf2-hmac-sha1:999", 8));
    EXPECT_TRUE(derivationFails("Key derivation salt is too small: 7 bytes",
                                "pkcs5-pbkdf2-hmac-sha1:1000", 7));
    // Both at once: the salt is tested first.
    EXPECT_TRUE(derivationFails("Key derivation salt is too small: 7 bytes",
                                "pkcs5-pbkdf2-hmac-sha1:999", 7));
    EXPECT_TRUE(derivationFails("Unknown encryption key derivation algorithm: scrypt:1000",
                                "scrypt:1000", 7));
    // The number is read before the salt is looked at.
    for (std::size_t const saltBytes : {std::size_t(8), std::size_t(7)}) {
        EXPECT_TRUE(throwsError("Invalid number: ''", Props{}, [&] {
            kelm::CVMDKDisk::deriveEncryptKey(
                key, 32, "secret", "pkcs5-pbkdf2-hmac-sha1:", toBuffer(zeros(saltBytes)));
        }));
    }
}

TEST_F(DiskEncryption, IterationsBeyondWhatADerivationTakesAreRefused) {
    yx::TCryptBuffer<unsigned char> key;
    EXPECT_THROW(kelm::CVMDKDisk::deriveEncryptKey(
                     key, 32, "secret", "pkcs5-pbkdf2-hmac-sha1:4294967296", toBuffer(zeros(8))),
                 yx::CError);
}

} // namespace
} // namespace test_support
