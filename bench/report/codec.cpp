#include "bench/report/codec.h"

#include <cstring>
#include <thread>

#include "bench/report/machine.h"
#include "bench/report/process.h"

namespace bench {

namespace {

constexpr unsigned char kIV[16] = {1, 2, 3};

/// Calls `work` on as many threads as there are cores, with the number of each and how many.
void onAllCores(std::function<void(std::size_t first, std::size_t step)> const& work) {
    auto const count = static_cast<std::size_t>(coreCount());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < count; ++i)
        threads.emplace_back(work, i, count);
    for (std::thread& thread : threads)
        thread.join();
}

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

void BareCodec::compressAllOnAllCores() const {
    onAllCores([this](std::size_t first, std::size_t step) {
        mzu::CMiniZCompressor coder(1);
        Buffer target(2 * kGrainBytes, -1);
        for (std::size_t i = first; i < m_grains.size(); i += step)
            coder.compressSingleStep(m_grains[i]->getData(), kGrainBytes, target.getData(),
                                     target.getUsed());
    });
}

void BareCodec::decompressAllOnAllCores(
    std::function<void(std::size_t index, unsigned char const*)> const& use) const {
    onAllCores([this, &use](std::size_t first, std::size_t step) {
        mzu::CMiniZCompressor coder(1);
        Buffer target(kGrainBytes, -1);
        for (std::size_t i = first; i < m_records.size(); i += step) {
            coder.decompressSingleStep(m_records[i]->getData(), m_records[i]->getUsed(),
                                       target.getData(), kGrainBytes);
            if (use)
                use(i, target.getData());
        }
    });
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
