#include <cstring>

#include "kelm/disk/disk.h"
#include "kelm/disk/internal/disk_key.h"
#include "kelm/extent/internal/disk_key_hash.h"
#include "yx/error.h"
#include "yx/mt_rand.h"
#include "yx/number.h"

namespace kelm {

// The password derives a key, which wraps a random disk key, which enciphers the grains:
//
//   password, salt --PBKDF2--> derived key --AES-256-CBC, IV--> wrapped disk key ("yxEncEncKey")
//   disk key --SHA-256--> key hash ("yxEncKeyHash", and the header of every extent)
//
// A wrong password unwraps to a wrong disk key without an error; only the hash shows it.

namespace {

constexpr wchar_t kKeyDerivationPrefix[] = L"pkcs5-pbkdf2-hmac-sha1:";
constexpr int kKeyDerivationIterations = 10000;
constexpr __int64 kMinKeyDerivationIterations = 1000;
constexpr int kMinSaltSizeBytes = 8;

constexpr char kKeyHashAlgorithm[] = "sha256";

/// The UTF-8 bytes of a password, zeroed when they are given up.
class PasswordBytes {
public:
    explicit PasswordBytes(yx::String const& password) : m_utf8(password.toUTF8()) {}
    PasswordBytes(PasswordBytes const&) = delete;
    PasswordBytes& operator=(PasswordBytes const&) = delete;
    ~PasswordBytes() { yx::initMemory(m_utf8.data(), 0, m_utf8.length()); }

    char const* getData() const { return m_utf8.data(); }

    /// Up to the first zero byte.
    int getSize() const { return static_cast<int>(std::strlen(m_utf8.data())); }

private:
    wxCharBuffer m_utf8;
};

void fillWithRandom(yx::TBuffer<unsigned char>& buffer) {
    yx::CMTRand::drawGlobalData(buffer.getData(), buffer.getUsed());
}

[[noreturn]] void throwBadDerivation(yx::String const& message) {
    throw yx::CInvalidArgError("CVMDKDisk::deriveEncryptKey", message, yx::CProps());
}

} // namespace

void CVMDKDisk::deriveEncryptKey(yx::TCryptBuffer<unsigned char>& key, int keyBytes,
                                 yx::String const& password,
                                 yx::String const& keyDerivationAlgorithm,
                                 yx::TBuffer<unsigned char> const& salt) {
    PasswordBytes const passwordBytes(password);
    key.setUsed(keyBytes);
    wxString iterationsText;
    if (!keyDerivationAlgorithm.wx().StartsWith(kKeyDerivationPrefix, &iterationsText))
        throwBadDerivation("Unknown encryption key derivation algorithm: " +
                           keyDerivationAlgorithm);
    __int64 const iterations = yx::parseInt64(iterationsText, false);
    // Deliberately before the iterations: where both are too small, the salt is reported.
    if (salt.getUsed() < kMinSaltSizeBytes)
        throwBadDerivation("Key derivation salt is too small: " + yx::toString(salt.getUsed()) +
                           " bytes");
    if (iterations < kMinKeyDerivationIterations)
        throwBadDerivation("Key derivation iterations are too small: " + yx::toString(iterations));
    // Deliberate: the count is tested in 64 bits and handed on in 32, which keys depend on.
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(passwordBytes.getData(), passwordBytes.getSize(),
                                           salt.getData(), salt.getUsed(),
                                           static_cast<int>(iterations), keyBytes, key.getData());
}

yx::TBuffer<unsigned char> addNewDiskKey(CVMDKDescriptor& descriptor, yx::String const& password) {
    krym::CCipher_AES256CBC cipher;
    int const keySizeBytes = cipher.getKeySize();
    descriptor.setYxEncryptionAlgorithm(kCipherID);

    // Deliberate: the one initial value serves the wrapping of the key and the grains.
    yx::TBuffer<unsigned char> iv(cipher.getBlockSize(), -1);
    fillWithRandom(iv);
    descriptor.setYxEncryptionIV(iv);

    yx::String const derivation =
        yx::String(kKeyDerivationPrefix) + yx::toString(kKeyDerivationIterations);
    descriptor.setYxEncryptionKeyDerivationAlgorithm(derivation);
    yx::TBuffer<unsigned char> salt(keySizeBytes, -1);
    fillWithRandom(salt);
    descriptor.setYxEncryptionKeyDerivationSalt(salt);

    yx::TCryptBuffer<unsigned char> derivedKey;
    CVMDKDisk::deriveEncryptKey(derivedKey, keySizeBytes, password, derivation, salt);
    yx::TCryptBuffer<unsigned char> diskKey(keySizeBytes, -1);
    fillWithRandom(diskKey);
    yx::TBuffer<unsigned char> wrappedKey(keySizeBytes, -1);
    cipher.encrypt(derivedKey, diskKey.getData(), diskKey.getUsed(), wrappedKey, false,
                   iv.getData());
    descriptor.setYxEncryptedEncryptionKey(wrappedKey);

    descriptor.setYxEncryptionKeyHashAlgorithm(kKeyHashAlgorithm);
    yx::TBuffer<unsigned char> keyHash = hashKey(diskKey);
    descriptor.setYxEncryptionKeyHash(keyHash);
    return keyHash;
}

void CVMDKDisk::unwrapEncryptionKey(yx::String const& password, yx::CProps const& uriProps) {
    auto const fail = [&uriProps](yx::String const& message) {
        throw yx::CError(message, "", -1, uriProps, nullptr);
    };

    if (!m_descriptor->isEncrypted())
        return;
    yx::String const algorithm = m_descriptor->getYxEncryptionAlgorithm();
    if (algorithm != kCipherID)
        fail("Unsupported encryption algorithm used in VMDK: " + algorithm);
    m_cipher = yx::makeObject<krym::CCipher_AES256CBC>();
    if (password.isEmpty())
        fail(kPasswordMissingMessage);

    // One by one: of several keys that are absent, the first is reported.
    yx::String const derivation = m_descriptor->getYxEncryptionKeyDerivationAlgorithm();
    yx::TBuffer<unsigned char> const salt = m_descriptor->getYxEncryptionKeyDerivationSalt();
    yx::TCryptBuffer<unsigned char> derivedKey;
    deriveEncryptKey(derivedKey, m_cipher->getKeySize(), password, derivation, salt);
    yx::TBuffer<unsigned char> const wrappedKey = m_descriptor->getYxEncryptedEncryptionKey();
    m_encryptionIV = m_descriptor->getYxEncryptionIV();
    if (m_encryptionIV.getUsed() != m_cipher->getBlockSize()) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid size of yxEncIV in VMDK descriptor: " +
                               yx::toString(m_encryptionIV.getUsed()) + " bytes",
                           uriProps, nullptr);
    }
    m_cipher->decrypt(derivedKey, wrappedKey.getData(), wrappedKey.getUsed(), m_encryptionKey,
                      false, m_encryptionIV.getData());

    // Deliberately only now: such a disk reports the algorithm also for a wrong password.
    yx::String const hashAlgorithm = m_descriptor->getYxEncryptionKeyHashAlgorithm();
    if (hashAlgorithm != kKeyHashAlgorithm)
        fail("Unsupported key hash algorithm used in VMDK: " + hashAlgorithm);
    m_encryptionKeyHash = m_descriptor->getYxEncryptionKeyHash();
    if (!isHashOfKey(m_encryptionKeyHash, m_encryptionKey))
        fail(kPasswordWrongMessage);
}

void CVMDKDisk::derivePurposeKey(char const* purpose, yx::TCryptBuffer<unsigned char>& key) const {
    if (!m_cipher)
        throw yx::CError("VMDK is not encrypted", "", -1, mainFileProps(), nullptr);
    constexpr unsigned char kFirstBlock = 1;
    krym::CHasher_SHA256 hasher(m_encryptionKey);
    hasher.update(purpose, static_cast<int>(std::strlen(purpose)));
    hasher.update(&kFirstBlock, 1);
    key.setUsed(krym::CHasher_SHA256::kHashSizeBytes);
    hasher.finish(key.getData());
}

yx::P<CVMDKGrainCipher> CVMDKDisk::createGrainCipher() {
    if (!m_cipher)
        throw yx::CError("VMDK is not encrypted", "", -1, mainFileProps(), nullptr);
    // Of its own, since one cipher serves one thread.
    return yx::makeObject<CVMDKGrainCipher>(yx::makeObject<krym::CCipher_AES256CBC>().get(),
                                            m_encryptionKey, m_encryptionIV, m_grainSizeSectors,
                                            m_compressed);
}

} // namespace kelm
