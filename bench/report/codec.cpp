#include "bench/report/codec.h"

#include <cstring>

#include "bench/report/process.h"

namespace bench {

namespace {

constexpr unsigned char kIV[16] = {1, 2, 3};

} // namespace

BareCodec::BareCodec(std::vector<yx::P<Buffer>> const& grains) : m_grains(grains) {
    for (yx::P<Buffer> const& grain : grains) {
        int const size = m_coder.compressSingleStep(grain->getData(), kGrainBytes,
                                                    m_target.getData(), m_target.getUsed());
        yx::P<Buffer> const record = yx::makeObject<Buffer>(size, -1);
        std::memcpy(record->getData(), m_target.getData(), static_cast<std::size_t>(size));
        m_records.push_back(record);
        m_compressedBytes += size;
    }
}

void BareCodec::compressAll() {
    for (yx::P<Buffer> const& grain : m_grains)
        m_coder.compressSingleStep(grain->getData(), kGrainBytes, m_target.getData(),
                                   m_target.getUsed());
}

void BareCodec::decompressAll(std::function<void(unsigned char const*)> const& use) {
    for (yx::P<Buffer> const& record : m_records) {
        if (m_coder.decompressSingleStep(record->getData(), record->getUsed(), m_target.getData(),
                                         kGrainBytes) != kGrainBytes)
            fail("a grain does not decompress");
        if (use)
            use(m_target.getData());
    }
}

BareCipher::BareCipher() : m_key(m_cipher.getKeySize(), -1) {
    yx::initMemory(m_key.getData(), 1, static_cast<std::size_t>(m_key.getUsed()));
}

void BareCipher::encipher(unsigned char const* grain) {
    m_cipher.encrypt(m_key, grain, kGrainBytes, m_target, false, kIV);
}

void BareCipher::decipher(unsigned char const* grain) {
    m_cipher.decrypt(m_key, grain, kGrainBytes, m_target, false, kIV);
}

} // namespace bench
