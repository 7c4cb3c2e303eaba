#include "host/transfer/image_hasher.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

namespace {

constexpr int kZeroBlockBytes = 65536;

} // namespace

void ImageHasher::add(void const* data, int bytes) {
    m_hasher.update(data, bytes);
    m_bytes += bytes;
}

void ImageHasher::addZeros(__int64 bytes) {
    static constexpr std::array<unsigned char, kZeroBlockBytes> kZeroBlock{};
    for (__int64 left = bytes; left > 0; left -= kZeroBlockBytes)
        add(kZeroBlock.data(), static_cast<int>(std::min<__int64>(left, kZeroBlockBytes)));
}

void ImageHasher::addFromDisk(SafeDisk& disk, __int64 endBytes, WorkOptions const& options) {
    assert(endBytes <= disk.getSizeBytes());
    TransferProgress progress(options, endBytes);
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    yx::TBuffer<unsigned char> buffer;
    // Grains before this one are known to be zeros.
    __int64 unwrittenEnd = 0;
    while (m_bytes < endBytes) {
        __int64 const grain = m_bytes / grainSizeBytes;
        __int64 const grainEnd = (grain + 1) * grainSizeBytes;
        auto const bytes = static_cast<int>(std::min(grainEnd, endBytes) - m_bytes);
        if (grain >= unwrittenEnd && disk.isGrainWritten(grain)) {
            buffer.setUsed(bytes);
            readWithGrainPlace(disk, m_bytes, buffer.getData(), bytes);
            add(buffer.getData(), bytes);
        } else {
            if (grain >= unwrittenEnd)
                unwrittenEnd =
                    grain + countUnwrittenGrains(disk, grain, disk.getGrainCount() - grain);
            addZeros(bytes);
        }
        progress.advanceTo(m_bytes);
    }
    progress.finish(endBytes);
}

Digest ImageHasher::finish() {
    Digest digest;
    m_hasher.finish(digest.data());
    return digest;
}

std::string formatImageDigest(Digest const& digest) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string line;
    for (unsigned char const byte : digest) {
        line += kDigits[byte >> 4];
        line += kDigits[byte & 15];
    }
    return line + "  -\n";
}

} // namespace kelm::host
