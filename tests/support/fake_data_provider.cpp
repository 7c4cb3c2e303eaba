#include "tests/support/fake_data_provider.h"

#include "yx/error.h"

namespace test_support {

unsigned char FakeDataProvider::byteAt(__int64 position) {
    // Without a sign, so that the last positions that there are have bytes, too.
    auto const place = static_cast<unsigned long long>(position);
    return static_cast<unsigned char>(place * 7 + place / 512 + 1);
}

std::vector<unsigned char> FakeDataProvider::bytesAt(__int64 position, int sizeBytes) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(sizeBytes));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = byteAt(position + static_cast<__int64>(i));
    return bytes;
}

void FakeDataProvider::setPreparedGrain(std::vector<unsigned char> prepared) {
    m_prepared = std::move(prepared);
    m_isPreparedSet = true;
}

void FakeDataProvider::begin(Request const& request) {
    m_requests.push_back(request);
    if (m_failing)
        throw yx::CIOError(yx::CIOError::IOFailure, "Scripted provider failure.", yx::CProps(),
                           nullptr);
}

void FakeDataProvider::getData(__int64 position, void* buffer, int bytes) {
    begin({Request::Data, position, bytes, false});
    auto const data = bytesAt(position, bytes);
    yx::copyMemory(buffer, data.data(), data.size());
}

void FakeDataProvider::getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                                            int grainSizeBytes, bool compressed) {
    begin({Request::PreparedGrain, position, grainSizeBytes, compressed});
    auto const prepared = m_isPreparedSet ? m_prepared : bytesAt(position, grainSizeBytes);
    data.setUsed(static_cast<int>(prepared.size()));
    yx::copyMemory(data.getData(), prepared.data(), prepared.size());
}

bool FakeDataProvider::isGrainWritten(__int64 position) {
    begin({Request::IsWritten, position, 0, false});
    return m_written;
}

} // namespace test_support
