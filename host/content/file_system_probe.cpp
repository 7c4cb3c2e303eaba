#include "host/content/file_system_probe.h"

#include "yx/error.h"

#if KELM_HAS_BLKID

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <memory>
#include <vector>

#include <blkid/blkid.h>
#include <sys/mman.h>
#include <unistd.h>

#include "host/content/boot_sector.h"
#include "host/content/hfs_catalog.h"
#include "host/content/little_endian.h"
#include "host/system/file_descriptor.h"
#include "yx/memory.h"

namespace kelm::host {

namespace {

// All that libblkid looks for is here: ZFS has a copy of its label in the first 512 KiB, LUKS its
// second header in the first 4 MiB + 16 KiB; RAIDs have theirs in the last 2 MiB.
constexpr __int64 kHeadBytes = 8 << 20;
constexpr __int64 kTailBytes = 2 << 20;

/// Of what lies elsewhere.
constexpr __int64 kMaxFarBytes = 16 << 20;
constexpr __int64 kMaxFarRangeBytes = 1 << 20;
constexpr int kMaxRootClusters = 100;

constexpr int kBlockBytes = 64 * 1024;
constexpr int kSectorBytesOfProbe = 512;

/// A range of a disk as a file in memory, of which only what is copied takes space. The rest reads
/// as zeros.
class PartialCopy {
public:
    PartialCopy(ByteSource& disk, __int64 startBytes, __int64 sizeBytes, CancelFlag const* cancel)
        : m_disk(disk),
          m_startBytes(startBytes),
          m_sizeBytes(sizeBytes),
          m_cancel(cancel),
          m_file(FileDescriptor::own(::memfd_create("kelm-probe", MFD_CLOEXEC))) {
        if (!m_file.isOpen() || ::ftruncate(m_file.get(), sizeBytes) != 0)
            throwSystemError("Cannot make a file in memory", "memfd");
    }

    int getFile() const { return m_file.get(); }

    /// Copies a range as far as it is there. Such a range begins and ends with blocks.
    void copy(__int64 positionBytes, __int64 bytes) {
        __int64 const endBytes = std::min(m_sizeBytes, positionBytes + bytes);
        positionBytes = positionBytes / kBlockBytes * kBlockBytes;
        for (; positionBytes < endBytes; positionBytes += kBlockBytes)
            copyBlock(positionBytes);
    }

    /// The same for what lies anywhere, as long as it is not too much in all.
    void copyFar(__int64 positionBytes, __int64 bytes) {
        bytes = std::min(bytes, kMaxFarRangeBytes);
        bool const isThere = positionBytes >= 0 && positionBytes < m_sizeBytes;
        if (!isThere || m_farBytes + bytes > kMaxFarBytes)
            return;
        m_farBytes += bytes + __int64{2} * kBlockBytes;
        copy(positionBytes, bytes);
    }

    /// Bytes of the range itself.
    bool tryRead(__int64 positionBytes, unsigned char* data, int bytes) {
        if (positionBytes < 0 || positionBytes > m_sizeBytes - bytes)
            return false;
        m_disk.read(m_startBytes + positionBytes, data, bytes);
        return true;
    }

private:
    void copyBlock(__int64 positionBytes) {
        if (m_cancel)
            m_cancel->check();
        int const bytes =
            static_cast<int>(std::min<__int64>(kBlockBytes, m_sizeBytes - positionBytes));
        m_disk.read(m_startBytes + positionBytes, m_block.data(), bytes);
        if (yx::isAllZero(m_block.data(), static_cast<std::size_t>(bytes)))
            return;
        if (::pwrite(m_file.get(), m_block.data(), static_cast<std::size_t>(bytes),
                     positionBytes) != bytes)
            throwSystemError("Cannot write a file in memory", "memfd");
    }

    ByteSource& m_disk;
    __int64 m_startBytes;
    __int64 m_sizeBytes;
    CancelFlag const* m_cancel;
    FileDescriptor m_file;
    __int64 m_farBytes = 0;
    std::vector<unsigned char> m_block = std::vector<unsigned char>(kBlockBytes);
};

/// The label of FAT32 is a file of the root folder, which is a chain of clusters.
void copyRootFolder(PartialCopy& copy, BootSector const& boot) {
    constexpr std::uint32_t kClusterMask = 0x0FFFFFFF;
    __int64 cluster = boot.rootCluster;
    for (int i = 0; i < kMaxRootClusters && cluster >= boot.firstCluster; ++i) {
        __int64 const entryBytes = boot.tableStartBytes + cluster * 4;
        std::array<unsigned char, 4> entry{};
        copy.copyFar(boot.startOf(cluster), boot.clusterBytes);
        copy.copyFar(entryBytes, 4);
        if (!copy.tryRead(entryBytes, entry.data(), static_cast<int>(entry.size())))
            return;
        cluster = readLittleEndian<std::uint32_t>(entry.data());
        if (boot.kind == BootSector::Kind::FAT32)
            cluster &= kClusterMask;
    }
}

/// The label of HFS+ is the name of the root folder, in the first leaf of the catalog.
void copyCatalogStart(PartialCopy& copy) {
    std::array<unsigned char, kHFSHeaderBytes> sector{};
    if (!copy.tryRead(kHFSHeaderStartBytes, sector.data(), kHFSHeaderBytes))
        return;
    std::optional<HFSCatalog> const catalog = readHFSCatalog(sector.data());
    std::optional<__int64> const header =
        catalog ? catalog->findPlace(0, kHFSHeaderBytes) : std::nullopt;
    if (!header || !copy.tryRead(*header, sector.data(), kHFSHeaderBytes))
        return;
    copy.copyFar(*header, kBlockBytes);
    std::optional<HFSNode> const leaf = readFirstLeaf(sector.data());
    std::optional<__int64> const place =
        leaf ? catalog->findPlace(leaf->offsetBytes, leaf->sizeBytes) : std::nullopt;
    if (place)
        copy.copyFar(*place, leaf->sizeBytes);
}

void copyWhatIsFar(PartialCopy& copy) {
    copyCatalogStart(copy);
    std::array<unsigned char, kSectorBytesOfProbe> sector{};
    if (!copy.tryRead(0, sector.data(), kSectorBytesOfProbe))
        return;
    std::optional<BootSector> const boot = readBootSector(sector.data());
    if (!boot)
        return;
    // The first records of the table of files: one is the volume itself.
    if (boot->kind == BootSector::Kind::NTFS)
        copy.copyFar(boot->startOf(boot->rootCluster), kBlockBytes);
    else if (boot->kind != BootSector::Kind::FAT)
        copyRootFolder(copy, *boot);
}

struct ProbeEnd {
    void operator()(blkid_struct_probe* probe) const { blkid_free_probe(probe); }
};

std::string valueOf(blkid_probe probe, char const* name) {
    char const* value = nullptr;
    std::size_t bytes = 0;
    if (blkid_probe_lookup_value(probe, name, &value, &bytes) != 0 || bytes == 0)
        return "";
    // The size has the zero at the end.
    return std::string(value, bytes - 1);
}

[[noreturn]] void throwProbeFailed() {
    throw yx::CIOError(yx::CIOError::IOFailure, "The file system cannot be looked at.",
                       yx::CProps(), nullptr);
}

} // namespace

bool canProbeFileSystems() {
    return true;
}

std::optional<FileSystem> probeFileSystem(ByteSource& disk, __int64 startBytes, __int64 sizeBytes,
                                          CancelFlag const* cancel) {
    assert(startBytes >= 0 && sizeBytes >= 0 && startBytes <= disk.getSizeBytes() - sizeBytes);
    if (sizeBytes < kSectorBytesOfProbe)
        return std::nullopt;
    PartialCopy copy(disk, startBytes, sizeBytes, cancel);
    copy.copy(0, kHeadBytes);
    copy.copy(std::max<__int64>(0, sizeBytes - kTailBytes), kTailBytes);
    copyWhatIsFar(copy);
    std::unique_ptr<blkid_struct_probe, ProbeEnd> const probe(blkid_new_probe());
    if (!probe || blkid_probe_set_device(probe.get(), copy.getFile(), 0, sizeBytes) != 0)
        throwProbeFailed();
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL |
                                                       BLKID_SUBLKS_UUID | BLKID_SUBLKS_USAGE);
    constexpr int kAmbivalent = -2;
    int const result = blkid_do_safeprobe(probe.get());
    if (result == kAmbivalent)
        return FileSystem();
    if (result < 0)
        throwProbeFailed();
    if (result > 0)
        return std::nullopt;
    return FileSystem{valueOf(probe.get(), "TYPE"), valueOf(probe.get(), "USAGE"),
                      valueOf(probe.get(), "LABEL"), valueOf(probe.get(), "UUID")};
}

} // namespace kelm::host

#else

namespace kelm::host {

bool canProbeFileSystems() {
    return false;
}

std::optional<FileSystem> probeFileSystem(ByteSource& /*disk*/, __int64 /*startBytes*/,
                                          __int64 /*sizeBytes*/, CancelFlag const* /*cancel*/) {
    throw yx::CIOError(yx::CIOError::NotSupported,
                       "This build of kelm cannot tell file systems: it was made without libblkid.",
                       yx::CProps(), nullptr);
}

} // namespace kelm::host

#endif
