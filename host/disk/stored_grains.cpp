#include "host/disk/stored_grains.h"

#include <algorithm>
#include <cassert>

#include "host/disk/readable_sectors.h"
#include "host/store/forwarding_stream.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm::host {

namespace {

/// Shows zeros behind the end of a file that is no whole number of sectors, up to where its last
/// sector would end. A record whose padding was cut off is whole.
class WholeSectorStream : public ForwardingStream {
public:
    using ForwardingStream::ForwardingStream;

    static yx::P<yx::IIOStream> over(yx::IIOStream& stream) {
        yx::P<yx::IIOStream> whole(&stream);
        if (stream.getLength() % kSectorSizeBytes == 0)
            return whole;
        return yx::makeObject<WholeSectorStream>(whole);
    }

    /// A read that needs zeros leaves the stream where the file ends.
    void read(void* target, int sizeBytes) override {
        __int64 const fileBytes = getLength();
        __int64 const startBytes = getPosition();
        __int64 const endBytes = startBytes + sizeBytes;
        bool const needsZeros = startBytes <= fileBytes && endBytes > fileBytes &&
                                endBytes <= roundUpToMultiple(fileBytes, __int64{kSectorSizeBytes});
        if (!needsZeros) {
            getTarget()->read(target, sizeBytes);
            return;
        }
        int const inFile = static_cast<int>(fileBytes - startBytes);
        getTarget()->read(target, inFile);
        std::fill_n(static_cast<unsigned char*>(target) + inFile, sizeBytes - inFile,
                    static_cast<unsigned char>(0));
    }
};

} // namespace

StoredGrains::StoredGrains(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                           __int64 startGrainIndex, DiskKey const& key)
    : m_stream(stream),
      m_isCompressed(header.isCompressed()),
      m_isEncrypted(header.isEncrypted()),
      m_grainSizeSectors(static_cast<__int64>(header.getGrainSizeSectors())),
      m_startGrainIndex(startGrainIndex),
      m_recordStream(m_isCompressed ? WholeSectorStream::over(stream)
                                    : yx::P<yx::IIOStream>(&stream)),
      m_grain(m_recordStream.get(), yx::IIOStream::ReadOnly, m_grainSizeSectors, nullptr,
              m_isCompressed, -1, nullptr, m_isEncrypted ? key.cipher.get() : nullptr, key.key,
              key.iv) {}

bool StoredGrains::namesGrain(__int64 extentGrainIndex, __int64 sector) {
    assert(m_isCompressed);
    unsigned char record[kSectorSizeBytes];
    auto const diskGrainIndex =
        static_cast<unsigned long long>(extentGrainIndex + m_startGrainIndex);
    return readSectorToEnd(m_stream, sector, record) >= kGrainRecordHeaderSizeBytes &&
           loadGrainRecordLBA(record) ==
               diskGrainIndex * static_cast<unsigned long long>(m_grainSizeSectors);
}

bool StoredGrains::isRecordOf(__int64 extentGrainIndex, __int64 sector) {
    return namesGrain(extentGrainIndex, sector) &&
           readCoded(extentGrainIndex, sector, m_probe).lost.empty();
}

ReadGrain StoredGrains::read(__int64 extentGrainIndex, __int64 sector,
                             yx::TBuffer<unsigned char>& target) {
    if (sector < 1 || sector * kSectorSizeBytes >= m_stream.getLength())
        return loseAll("lies outside the file", target);
    if (m_isCompressed && !namesGrain(extentGrainIndex, sector))
        return loseAll("has a record that names another grain or cannot be read", target);
    if (m_isCompressed || m_isEncrypted)
        return readCoded(extentGrainIndex, sector, target);
    return readBySectors(sector, target);
}

ReadGrain StoredGrains::readCoded(__int64 extentGrainIndex, __int64 sector,
                                  yx::TBuffer<unsigned char>& target) {
    try {
        // A slot of any size serves for reading.
        m_grain.open(extentGrainIndex, extentGrainIndex + m_startGrainIndex, sector,
                     m_grainSizeSectors);
        target.setUsed(static_cast<int>(m_grainSizeSectors * kSectorSizeBytes));
        m_grain.read(target.getData(), target.getUsed());
        return {};
    } catch (yx::CError const& error) {
        return loseAll("cannot be read: " + error.getMessage().toStdString(), target);
    }
}

ReadGrain StoredGrains::readBySectors(__int64 sector, yx::TBuffer<unsigned char>& target) {
    ReadableSectors const sectors = readReadableSectors(m_stream, sector, m_grainSizeSectors);
    target.setUsed(static_cast<int>(sectors.bytes.size()));
    std::copy(sectors.bytes.begin(), sectors.bytes.end(), target.getData());
    ReadGrain result;
    for (std::size_t i = 0; i < sectors.isReadable.size(); ++i) {
        if (sectors.isReadable[i])
            continue;
        int const startBytes = static_cast<int>(i) * kSectorSizeBytes;
        if (!result.lost.empty() && result.lost.back().endBytes == startBytes)
            result.lost.back().endBytes += kSectorSizeBytes;
        else
            result.lost.push_back({startBytes, startBytes + kSectorSizeBytes});
        result.reason = "cannot be read, or lies behind the end of the file";
    }
    return result;
}

ReadGrain StoredGrains::loseAll(std::string const& reason,
                                yx::TBuffer<unsigned char>& target) const {
    target.setUsed(static_cast<int>(m_grainSizeSectors * kSectorSizeBytes));
    std::fill_n(target.getData(), target.getUsed(), static_cast<unsigned char>(0));
    return {{{0, target.getUsed()}}, reason};
}

} // namespace kelm::host
