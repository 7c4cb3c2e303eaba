#include "host/disk/header_finding.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "host/disk/readable_sectors.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/format/marker.h"
#include "kelm/graindata/data_preparer.h"
#include "yx/yx.h"

namespace kelm::host {

namespace {

/// The trail has the copy of the header before its last sector.
constexpr __int64 kFooterFromEndSectors = 2;

/// How far a descriptor within a file can reach.
constexpr __int64 kMaxDescriptorSectors = (5 << 20) / kSectorSizeBytes;

/// How many entries of a directory are looked at for whether it is one.
constexpr __int64 kSampleEntries = kSectorSizeBytes / kDirectoryEntrySizeBytes;

unsigned long long asField(__int64 value) {
    return static_cast<unsigned long long>(value);
}

bool isGrainSizePossible(unsigned long long sectors) {
    return sectors > 0 && sectors <= asField(CVMDKDataPreparer::kMaxGrainSizeSectors);
}

class HeaderFinding {
public:
    HeaderFinding(yx::IIOStream& stream, ExpectedExtent const& expected)
        : m_stream(stream),
          m_expected(expected),
          m_fileSectors(stream.getLength() / kSectorSizeBytes) {}

    std::optional<CVMDKSparseExtentHeader> run() {
        m_header = tryLoad(0);
        if (m_expected.isCompressed || (m_header && m_header->isCompressed()))
            m_footer = tryLoad(m_fileSectors - kFooterFromEndSectors);
        if (auto regular = findRegular())
            return regular;
        for (auto const* candidate : {&m_header, &m_footer}) {
            if (*candidate && isCoherent(**candidate))
                return **candidate;
        }
        return std::nullopt;
    }

private:
    std::optional<CVMDKSparseExtentHeader> tryLoad(__int64 sector) {
        ReadableSectors const record = readReadableSectors(m_stream, sector, 1);
        if (!record.isReadable.front())
            return std::nullopt;
        yx::TBuffer<unsigned char> bytes(kSectorSizeBytes, -1);
        std::copy(record.bytes.begin(), record.bytes.end(), bytes.getData());
        yx::CBufferStream source(&bytes, 2.0);
        yx::CDataInStream in(&source);
        CVMDKSparseExtentHeader header;
        try {
            header.load(in);
        } catch (yx::CError const&) {
            return std::nullopt;
        }
        return header;
    }

    /// Of a file that the library made.
    __int64 chooseGrainSize() const {
        if (!m_expected.isOfOurs) {
            for (auto const* known : {&m_header, &m_footer}) {
                if (*known && isGrainSizePossible((*known)->getGrainSizeSectors()))
                    return static_cast<__int64>((*known)->getGrainSizeSectors());
            }
        }
        return kNewDiskGrainSizeSectors;
    }

    bool isKeyHashRight(CVMDKSparseExtentHeader const& header) const {
        yx::TBuffer<unsigned char> const& hash = header.getEncryptionKeyHash();
        yx::TBuffer<unsigned char> const& expected = m_expected.keyHash;
        return header.isEncrypted() == (expected.getUsed() > 0) &&
               (!header.isEncrypted() ||
                std::equal(hash.getData(), hash.getData() + hash.getUsed(), expected.getData(),
                           expected.getData() + expected.getUsed()));
    }

    /// Whether a header can be that of this extent.
    bool isCoherent(CVMDKSparseExtentHeader const& header) const {
        constexpr unsigned int kBothFlags = kFlagCompressed | kFlagMetaMarkers;
        unsigned int const flags = header.getFlags() & kBothFlags;
        bool const areSizesPossible =
            isGrainSizePossible(header.getGrainSizeSectors()) &&
            header.getCapacitySectors() >= asField(m_expected.sizeSectors) &&
            header.getCapacitySectors() - asField(m_expected.sizeSectors) <
                header.getGrainSizeSectors();
        return header.getVersion() >= kOldestVersion && header.getVersion() <= kNewestVersion &&
               (flags == 0 || flags == kBothFlags) && areSizesPossible &&
               header.getGrainTableEntryCount() == kGrainTableEntryCount &&
               header.getGrainDirectoryOffsetSectors() > 0 && isKeyHashRight(header);
    }

    /// The header of a file that has its metadata where the library puts them; nothing if it has
    /// not.
    std::optional<CVMDKSparseExtentHeader> findRegular() {
        m_grainSizeSectors = chooseGrainSize();
        __int64 const maxGrains = kMaxPositionSectors / m_grainSizeSectors;
        m_grainCount =
            roundUpToMultiple(m_expected.sizeSectors, m_grainSizeSectors) / m_grainSizeSectors;
        if (m_expected.sizeSectors < 0 || m_grainCount > maxGrains)
            return std::nullopt;
        m_tableCount = getVMDKTableCount(m_grainCount);
        if (m_tableCount > m_stream.getLength() / kGrainTableSizeBytes)
            return std::nullopt;
        for (__int64 const firstSector : listFirstSectors()) {
            if (isRegularFrom(firstSector))
                return makeRegular(firstSector);
        }
        if (auto const firstSector = searchFirstSector())
            return makeRegular(*firstSector);
        return std::nullopt;
    }

    std::vector<__int64> listFirstSectors() const {
        std::vector<__int64> sectors;
        for (auto const* known : {&m_header, &m_footer}) {
            if (*known && (*known)->getDescriptorSizeSectors() <= asField(kMaxDescriptorSectors) &&
                (*known)->getDescriptorOffsetSectors() <= asField(kMaxDescriptorSectors))
                sectors.push_back(findFirstMetadataSector(**known));
        }
        if (!m_expected.holdsDescriptor)
            sectors.push_back(1);
        return sectors;
    }

    RegularPlaces placesFrom(__int64 firstSector) const {
        return calcRegularPlaces(
            {m_tableCount, m_expected.isCompressed, firstSector, m_grainSizeSectors});
    }

    /// Whether one of the directories is where it would be, or a header says that both are.
    bool isRegularFrom(__int64 firstSector) {
        RegularPlaces const places = placesFrom(firstSector);
        if (isDirectory(places.directorySector, places.tableSector, places.strideSectors) ||
            isDirectory(places.redundantDirectorySector, places.redundantTableSector,
                        places.strideSectors))
            return true;
        return std::any_of(m_candidates.begin(), m_candidates.end(), [&](auto const* known) {
            return *known &&
                   (*known)->getGrainDirectoryOffsetSectors() == asField(places.directorySector) &&
                   (*known)->getRedundantGrainDirectoryOffsetSectors() ==
                       asField(places.redundantDirectorySector);
        });
    }

    /// Whether most of the first entries of a directory are those that they should be.
    bool isDirectory(__int64 sector, __int64 tableSector, __int64 strideSectors) {
        ReadableSectors const entries = readReadableSectors(m_stream, sector, 1);
        return entries.isReadable.front() &&
               isDirectoryIn(entries.bytes.data(), tableSector, strideSectors);
    }

    bool isDirectoryIn(unsigned char const* entries, __int64 tableSector,
                       __int64 strideSectors) const {
        __int64 const count = std::min(m_tableCount, kSampleEntries);
        __int64 right = 0;
        for (__int64 i = 0; i < count; ++i) {
            if (loadLittleEndian<unsigned int>(entries + i * kDirectoryEntrySizeBytes) ==
                tableSector + i * strideSectors)
                ++right;
        }
        return count > 0 && right * 2 >= count;
    }

    /// Behind a descriptor whose length is not known comes the redundant directory.
    std::optional<__int64> searchFirstSector() {
        if (!m_expected.holdsDescriptor || m_tableCount == 0)
            return std::nullopt;
        __int64 const endSector = std::min(m_fileSectors, kMaxDescriptorSectors);
        for (__int64 firstSector = 2; firstSector < endSector; ++firstSector) {
            RegularPlaces const places = placesFrom(firstSector);
            if (isDirectory(places.redundantDirectorySector, places.redundantTableSector,
                            places.strideSectors))
                return firstSector;
        }
        return std::nullopt;
    }

    CVMDKSparseExtentHeader makeRegular(__int64 firstSector) const {
        constexpr unsigned int kPlainFlags =
            kFlagNewLineDetectionValid | kFlagRedundantGrainDirectory;
        RegularPlaces const places = placesFrom(firstSector);
        bool const isCompressed = m_expected.isCompressed;
        CVMDKSparseExtentHeader header = m_header   ? *m_header
                                         : m_footer ? *m_footer
                                                    : CVMDKSparseExtentHeader();
        header.setVersion(isCompressed ? kNewestVersion : kOldestVersion);
        header.setFlags(isCompressed ? kPlainFlags | kFlagCompressed | kFlagMetaMarkers
                                     : kPlainFlags);
        header.setCompressAlgorithm(isCompressed ? kCompressAlgorithmDeflate
                                                 : kCompressAlgorithmNone);
        header.setGrainSizeSectors(asField(m_grainSizeSectors));
        header.setCapacitySectors(asField(m_grainCount * m_grainSizeSectors));
        header.setGrainTableEntryCount(kGrainTableEntryCount);
        header.setDescriptorOffsetSectors(firstSector > 1 ? 1 : 0);
        header.setDescriptorSizeSectors(asField(firstSector - 1));
        header.setRedundantGrainDirectoryOffsetSectors(asField(places.redundantDirectorySector));
        header.setGrainDirectoryOffsetSectors(asField(places.directorySector));
        header.setOverheadSectors(asField(places.overheadSectors));
        setEncryption(header);
        return keepIfRight(header);
    }

    void setEncryption(CVMDKSparseExtentHeader& header) const {
        bool const isEncrypted = m_expected.keyHash.getUsed() > 0;
        header.setEncryptionExtensionEnabled(isEncrypted);
        header.setEncryptionAlgorthm(isEncrypted ? kEncryptionAlgorithmAES256CBC
                                                 : kEncryptionAlgorithmNone);
        header.setEncryptionKeyHashAlgorthm(isEncrypted ? kKeyHashAlgorithmSHA256 : 0);
        header.setEncryptionKeyHash(m_expected.keyHash);
    }

    /// The header of the file, if it says the same; version and flags are then its own.
    CVMDKSparseExtentHeader keepIfRight(CVMDKSparseExtentHeader const& regular) const {
        if (!m_header || !isCoherent(*m_header))
            return regular;
        CVMDKSparseExtentHeader same = regular;
        same.setVersion(m_header->getVersion());
        same.setFlags(m_header->getFlags());
        same.setCompressAlgorithm(m_header->getCompressAlgorithm());
        return makeHeaderRecord(same) == makeHeaderRecord(*m_header) ? *m_header : regular;
    }

    yx::IIOStream& m_stream;
    ExpectedExtent const& m_expected;
    __int64 m_fileSectors;
    std::optional<CVMDKSparseExtentHeader> m_header;
    std::optional<CVMDKSparseExtentHeader> m_footer;
    std::vector<std::optional<CVMDKSparseExtentHeader> const*> m_candidates{&m_header, &m_footer};
    __int64 m_grainSizeSectors = 0;
    __int64 m_grainCount = 0;
    __int64 m_tableCount = 0;
};

} // namespace

std::optional<CVMDKSparseExtentHeader> findHeader(yx::IIOStream& stream,
                                                  ExpectedExtent const& expected) {
    return HeaderFinding(stream, expected).run();
}

std::string makeHeaderRecord(CVMDKSparseExtentHeader header) {
    yx::TBuffer<unsigned char> bytes;
    yx::CBufferStream target(&bytes, 2.0);
    yx::CDataOutStream out(&target);
    header.store(out);
    assert(bytes.getUsed() == kSectorSizeBytes);
    return {reinterpret_cast<char const*>(bytes.getData()),
            static_cast<std::size_t>(bytes.getUsed())};
}

__int64 countTables(CVMDKSparseExtentHeader const& header) {
    auto const grainSize = static_cast<__int64>(header.getGrainSizeSectors());
    auto const capacity = static_cast<__int64>(header.getCapacitySectors());
    return getVMDKTableCount(roundUpToMultiple(capacity, grainSize) / grainSize);
}

std::optional<CVMDKSparseExtentHeader> tryReadHeader(yx::IIOStream& stream) {
    stream.seek(0);
    yx::CDataInStream in(&stream);
    unsigned int const magic = in.readUInt32();
    if (magic != kHeaderMagic && magic != kEncryptionExtensionHeaderMagic)
        return std::nullopt;
    stream.seek(0);
    CVMDKSparseExtentHeader header;
    yx::CDataInStream again(&stream);
    header.load(again);
    return header;
}

__int64 findFirstMetadataSector(CVMDKSparseExtentHeader const& header) {
    if (header.getDescriptorOffsetSectors() == 0)
        return 1;
    return static_cast<__int64>(header.getDescriptorOffsetSectors() +
                                header.getDescriptorSizeSectors());
}

std::optional<RegularPlaces> findRegularPlaces(CVMDKSparseExtentHeader const& header,
                                               __int64 fileBytes) {
    unsigned long long const fileSectors = asField(fileBytes / kSectorSizeBytes);
    bool const areSizesPossible = isGrainSizePossible(header.getGrainSizeSectors()) &&
                                  header.getGrainTableEntryCount() == kGrainTableEntryCount &&
                                  header.getCapacitySectors() <= asField(kMaxPositionSectors) &&
                                  header.getDescriptorOffsetSectors() <= fileSectors &&
                                  header.getDescriptorSizeSectors() <= fileSectors;
    if (!areSizesPossible || countTables(header) > fileBytes / kGrainTableSizeBytes)
        return std::nullopt;
    RegularPlaces const places = calcRegularPlaces(
        {countTables(header), header.isCompressed(), findFirstMetadataSector(header),
         static_cast<__int64>(header.getGrainSizeSectors())});
    bool const isRegular =
        header.getGrainDirectoryOffsetSectors() == asField(places.directorySector) &&
        header.getRedundantGrainDirectoryOffsetSectors() ==
            asField(places.redundantDirectorySector);
    return isRegular ? std::optional(places) : std::nullopt;
}

} // namespace kelm::host
