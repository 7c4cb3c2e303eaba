#include "kelm/graindata/grain_cipher.h"

#include <cassert>

#include "kelm/graindata/data_preparer.h"
#include "kelm/graindata/grain.h"
#include "kelm/graindata/internal/record_cipher.h"
#include "yx/error.h"

namespace kelm {

namespace {

constexpr char kCipherConstructorName[] = "CVMDKGrainCipher constructor";

[[noreturn]] void refuseCipherArgument(char const* what, __int64 value, char const* unit) {
    throw yx::CInvalidArgError(kCipherConstructorName,
                               yx::String("Invalid ") + what + ": " + yx::toString(value) + unit,
                               yx::CProps());
}

[[noreturn]] void refuseGrainSize(char const* form, int sizeBytes) {
    throw yx::CIOError(yx::CIOError::CorruptData,
                       yx::String(form) + " VMDK grain data has an invalid size: " +
                           yx::toString(sizeBytes) + " bytes",
                       yx::CProps(), nullptr);
}

/// What lies enciphered behind a record's header.
__int64 calcStoredSizeBytes(unsigned char const* record, int blockSizeBytes) {
    return roundUpToMultiple(loadGrainRecordCompressedSize(record), blockSizeBytes);
}

} // namespace

CVMDKGrainCipher::CVMDKGrainCipher(krym::ICipher* cipher,
                                   yx::TCryptBuffer<unsigned char> const& encryptionKey,
                                   yx::TBuffer<unsigned char> const& encryptionIV,
                                   __int64 grainSizeSectors, bool compressed)
    : m_cipher(cipher),
      m_encryptionKey(encryptionKey),
      m_encryptionIV(encryptionIV),
      m_grainSizeBytes(grainSizeSectors * kSectorSizeBytes),
      m_compressed(compressed),
      m_blockSizeBytes(cipher->getBlockSize()) {
    if (grainSizeSectors < 1 || grainSizeSectors > CVMDKDataPreparer::kMaxGrainSizeSectors)
        refuseCipherArgument("grain size", grainSizeSectors, " sectors");
    if (m_blockSizeBytes < 1 || m_blockSizeBytes > kSectorSizeBytes)
        refuseCipherArgument("block size of cipher", m_blockSizeBytes, " bytes");
    // The cipher gets a bare pointer and reads a whole block from it.
    if (m_encryptionIV.getUsed() < m_blockSizeBytes)
        refuseCipherArgument("size of initialization vector", m_encryptionIV.getUsed(), " bytes");
}

CVMDKGrainCipher::CVMDKGrainCipher(CVMDKGrainCipher const&) = default;
CVMDKGrainCipher& CVMDKGrainCipher::operator=(CVMDKGrainCipher const&) = default;
CVMDKGrainCipher::~CVMDKGrainCipher() = default;

void CVMDKGrainCipher::encipher(yx::TBuffer<unsigned char> const& prepared, __int64 grainIndex,
                                yx::TBuffer<unsigned char>& target) {
    assert(&prepared != &target);
    bool const isSound = m_compressed ? prepared.getUsed() >= kGrainRecordHeaderSizeBytes
                                      : prepared.getUsed() == m_grainSizeBytes;
    if (!isSound)
        refuseGrainSize("Prepared", prepared.getUsed());
    CVMDKGrain::makeGrainEncryptIV(m_grainIV, m_encryptionIV, grainIndex);
    if (m_compressed)
        RecordCipher{*m_cipher, m_encryptionKey, m_grainIV}.encipher(prepared.getData(),
                                                                     prepared.getUsed(), target);
    else
        m_cipher->encrypt(m_encryptionKey, prepared.getData(), prepared.getUsed(), target, false,
                          m_grainIV.getData());
}

void CVMDKGrainCipher::decipher(yx::TBuffer<unsigned char> const& enciphered, __int64 grainIndex,
                                yx::TBuffer<unsigned char>& target) {
    assert(&enciphered != &target);
    verifyIsEnciphered(enciphered, m_grainSizeBytes, m_compressed, m_blockSizeBytes);
    CVMDKGrain::makeGrainEncryptIV(m_grainIV, m_encryptionIV, grainIndex);
    if (!m_compressed) {
        m_cipher->decrypt(m_encryptionKey, enciphered.getData(), enciphered.getUsed(), target,
                          false, m_grainIV.getData());
        return;
    }
    unsigned char const* const record = enciphered.getData();
    int const storedSizeBytes = static_cast<int>(calcStoredSizeBytes(record, m_blockSizeBytes));
    int const recordSizeBytes =
        static_cast<int>(loadGrainRecordCompressedSize(record)) + kGrainRecordHeaderSizeBytes;
    RecordCipher{*m_cipher, m_encryptionKey, m_grainIV}.decipher(record, storedSizeBytes, target);
    // What was enciphered behind the data is padding, but whether it still is nobody has checked.
    target.setUsed(static_cast<int>(roundUpToMultiple(recordSizeBytes, kSectorSizeBytes)));
    yx::initMemory(target.getData() + recordSizeBytes, 0,
                   static_cast<std::size_t>(target.getUsed() - recordSizeBytes));
}

void CVMDKGrainCipher::verifyIsEnciphered(yx::TBuffer<unsigned char> const& data,
                                          __int64 grainSizeBytes, bool compressed,
                                          int blockSizeBytes) {
    bool isSound = data.getUsed() == grainSizeBytes;
    if (compressed)
        isSound = data.getUsed() >= kGrainRecordHeaderSizeBytes &&
                  calcStoredSizeBytes(data.getData(), blockSizeBytes) <=
                      data.getUsed() - kGrainRecordHeaderSizeBytes;
    if (!isSound)
        refuseGrainSize("Enciphered", data.getUsed());
}

} // namespace kelm
