#include "host/content/hfs_catalog.h"

#include <cstdint>

#include "host/content/big_endian.h"

namespace kelm::host {

namespace {

constexpr std::uint16_t kSignaturePlus = 0x482B;
constexpr std::uint16_t kSignatureCase = 0x4858;

// Places in the header of the volume.
constexpr int kBlockSizeAt = 40;
constexpr int kCatalogExtentsAt = 288;
constexpr int kExtentBytes = 8;

// Places in the first node of a tree.
constexpr int kNodeKindAt = 8;
constexpr int kFirstLeafAt = 24;
constexpr int kNodeSizeAt = 32;
constexpr unsigned char kHeaderNode = 1;

constexpr std::uint32_t kMinBytes = 512;
constexpr std::uint32_t kMaxBlockBytes = 1U << 25;
constexpr std::uint32_t kMaxNodeBytes = 32768;

bool isSizeOf(std::uint32_t bytes, std::uint32_t maxBytes) {
    return bytes >= kMinBytes && bytes <= maxBytes && (bytes & (bytes - 1)) == 0;
}

} // namespace

std::optional<__int64> HFSCatalog::findPlace(__int64 offsetBytes, __int64 bytes) const {
    for (Extent const& extent : extents) {
        __int64 const extentBytes = extent.blockCount * blockBytes;
        if (offsetBytes < extentBytes) {
            return bytes <= extentBytes - offsetBytes
                       ? std::optional(extent.startBlock * blockBytes + offsetBytes)
                       : std::nullopt;
        }
        offsetBytes -= extentBytes;
    }
    return std::nullopt;
}

std::optional<HFSCatalog> readHFSCatalog(unsigned char const* header) {
    auto const signature = readBigEndian<std::uint16_t>(header);
    auto const blockBytes = readBigEndian<std::uint32_t>(header + kBlockSizeAt);
    if ((signature != kSignaturePlus && signature != kSignatureCase) ||
        !isSizeOf(blockBytes, kMaxBlockBytes))
        return std::nullopt;
    HFSCatalog catalog;
    catalog.blockBytes = blockBytes;
    unsigned char const* place = header + kCatalogExtentsAt;
    for (HFSCatalog::Extent& extent : catalog.extents) {
        extent.startBlock = readBigEndian<std::uint32_t>(place);
        extent.blockCount = readBigEndian<std::uint32_t>(place + sizeof(std::uint32_t));
        place += kExtentBytes;
    }
    return catalog;
}

std::optional<HFSNode> readFirstLeaf(unsigned char const* headerNode) {
    auto const nodeBytes = readBigEndian<std::uint16_t>(headerNode + kNodeSizeAt);
    auto const node = readBigEndian<std::uint32_t>(headerNode + kFirstLeafAt);
    // Node 0 is the header itself.
    if (headerNode[kNodeKindAt] != kHeaderNode || node == 0 || !isSizeOf(nodeBytes, kMaxNodeBytes))
        return std::nullopt;
    return HFSNode{__int64{node} * nodeBytes, nodeBytes};
}

} // namespace kelm::host
