#include "host/disk/disk_key.h"

#include <algorithm>
#include <cassert>

#include "yx/mt_rand.h"
#include "yx/number.h"

namespace kelm::host {

namespace {

constexpr char kDerivationPrefix[] = "pkcs5-pbkdf2-hmac-sha1:";
constexpr int kSaltSizeBytes = 32;

yx::CProps propsOfDisk(yx::CURI const& mainFile) {
    return yx::CProps().add("uri", mainFile.toString(true));
}

bool isDigestOf(yx::TBuffer<unsigned char> const& hash, yx::TBuffer<unsigned char> const& key) {
    krym::CDigestType_SHA256 type;
    yx::P<krym::IDigest> const digest = type.createDigest();
    digest->update(key.getData(), key.getUsed());
    digest->finish();
    auto const* const expected = static_cast<unsigned char const*>(digest->getData());
    return std::equal(hash.getData(), hash.getData() + hash.getUsed(), expected,
                      expected + digest->getSize());
}

} // namespace

KeyDerivationSettings getKeyDerivation(CVMDKDescriptor const& descriptor) {
    yx::String const derivation = descriptor.getYxEncryptionKeyDerivationAlgorithm();
    wxString rounds;
    if (!derivation.wx().StartsWith(kDerivationPrefix, &rounds)) {
        throw yx::CInvalidArgError("getKeyDerivation",
                                   "Unknown encryption key derivation algorithm: " + derivation,
                                   yx::CProps());
    }
    return {descriptor.getYxEncryptionKeyDerivationSalt(), yx::parseInt64(rounds, false)};
}

KeyDerivationSettings drawKeyDerivation(__int64 rounds) {
    KeyDerivationSettings derivation{yx::TBuffer<unsigned char>(kSaltSizeBytes, -1), rounds};
    yx::CMTRand::drawGlobalData(derivation.salt.getData(), derivation.salt.getUsed());
    return derivation;
}

DiskKey unwrapDiskKey(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                      yx::String const& password) {
    DiskKey result;
    if (!descriptor.isEncrypted())
        return result;
    if (password.isEmpty())
        throw yx::CError(kPasswordMissingMessage, "", -1, propsOfDisk(mainFile), nullptr);
    yx::P<krym::ICipher> const cipher = yx::makeObject<krym::CCipher_AES256CBC>();
    result.iv = descriptor.getYxEncryptionIV();
    yx::TBuffer<unsigned char> const wrapped = descriptor.getYxEncryptedEncryptionKey();
    if (descriptor.getYxEncryptionAlgorithm() != cipher->getID() ||
        result.iv.getUsed() != cipher->getBlockSize() ||
        wrapped.getUsed() != cipher->getKeySize()) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The encryption of the disk is damaged.",
                           propsOfDisk(mainFile), nullptr);
    }
    yx::TCryptBuffer<unsigned char> derivedKey;
    CVMDKDisk::deriveEncryptKey(derivedKey, cipher->getKeySize(), password,
                                descriptor.getYxEncryptionKeyDerivationAlgorithm(),
                                descriptor.getYxEncryptionKeyDerivationSalt());
    cipher->decrypt(derivedKey, wrapped.getData(), wrapped.getUsed(), result.key, false,
                    result.iv.getData());
    result.keyHash = descriptor.getYxEncryptionKeyHash();
    if (!isDigestOf(result.keyHash, result.key))
        throw yx::CError(kPasswordWrongMessage, "", -1, propsOfDisk(mainFile), nullptr);
    result.cipher = cipher;
    return result;
}

void wrapDiskKey(CVMDKDescriptor& descriptor, DiskKey const& diskKey, yx::String const& password,
                 KeyDerivationSettings const& derivation) {
    assert(diskKey.cipher);
    yx::String const text = kDerivationPrefix + yx::toString(derivation.rounds);
    yx::TCryptBuffer<unsigned char> derivedKey;
    CVMDKDisk::deriveEncryptKey(derivedKey, diskKey.cipher->getKeySize(), password, text,
                                derivation.salt);
    yx::TBuffer<unsigned char> wrapped;
    diskKey.cipher->encrypt(derivedKey, diskKey.key.getData(), diskKey.key.getUsed(), wrapped,
                            false, diskKey.iv.getData());
    descriptor.setYxEncryptionKeyDerivationAlgorithm(text);
    descriptor.setYxEncryptionKeyDerivationSalt(derivation.salt);
    descriptor.setYxEncryptedEncryptionKey(wrapped);
}

} // namespace kelm::host
