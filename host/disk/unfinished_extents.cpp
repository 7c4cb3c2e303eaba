#include "host/disk/unfinished_extents.h"

#include "host/disk/extent_recovery.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// A descriptor may say anything, and the tables of an extent take 1/8192 of it in memory.
constexpr __int64 kMaxExtentBytes = __int64{256} << 30;

} // namespace

void UnfinishedExtents::addDisk(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                                std::vector<DiskExtent> const& extents) {
    if (!descriptor.getYxCreateExtentFilesOnDemand())
        return;
    yx::TBuffer<unsigned char> keyHash;
    if (descriptor.isEncrypted())
        keyHash = descriptor.getYxEncryptionKeyHash();
    // The first file is made with the disk.
    for (std::size_t i = 1; i < extents.size(); ++i) {
        if (extents[i].getSizeBytes() > kMaxExtentBytes)
            continue;
        m_candidates.try_emplace(extents[i].uri,
                                 Candidate{mainFile, extents[i], extents.front().uri, keyHash});
    }
}

bool UnfinishedExtents::contains(yx::IFileSystem& files, yx::CURI const& uri) {
    auto const candidate = m_candidates.find(uri);
    if (candidate != m_candidates.end()) {
        bool const isOne = isUnfinished(files, candidate->second);
        m_known[uri] = isOne;
        m_candidates.erase(candidate);
    }
    auto const known = m_known.find(uri);
    return known != m_known.end() && known->second;
}

bool UnfinishedExtents::isUnfinished(yx::IFileSystem& files, Candidate const& candidate) {
    try {
        yx::P<yx::IIOStream> const first =
            openVMDKFileStream(&files, candidate.firstExtent, yx::IIOStream::ReadOnly);
        CVMDKSparseExtentHeader header;
        yx::CDataInStream in(first.get());
        header.load(in);
        if (header.getGrainSizeSectors() < 1 ||
            header.getGrainSizeSectors() > CVMDKDataPreparer::kMaxGrainSizeSectors)
            return false;
        DiskExtent extent = candidate.extent;
        extent.grainSizeBytes =
            static_cast<__int64>(header.getGrainSizeSectors()) * kSectorSizeBytes;
        extent.isCompressed = header.isCompressed();
        return isUnfinishedExtent(&files, candidate.mainFile, extent, candidate.keyHash);
    } catch (yx::CIOError const& error) {
        // Who opens one of the two files is told what is wrong with its bytes.
        bool const isOfBytes = error.getCode() == yx::CIOError::CorruptData ||
                               error.getCode() == yx::CIOError::UnexpectedEnd ||
                               error.getCode() == yx::CIOError::NotFound;
        if (!isOfBytes)
            throw;
        return false;
    }
}

} // namespace kelm::host
