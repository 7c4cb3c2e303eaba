#include "host/content/boot_sector.h"

#include <cstdint>
#include <cstring>

#include "host/content/little_endian.h"

namespace kelm::host {

namespace {

constexpr int kMaxClusterShift = 25;

__int64 toSigned(std::uint64_t number) {
    return static_cast<__int64>(number);
}

bool isPowerOfTwo(std::uint64_t number) {
    return number != 0 && (number & (number - 1)) == 0;
}

bool isSectorSize(std::uint64_t bytes) {
    return isPowerOfTwo(bytes) && bytes >= 512 && bytes <= 4096;
}

std::optional<BootSector> readExFAT(unsigned char const* sector) {
    int const sectorShift = sector[108];
    int const clusterShift = sectorShift + sector[109];
    if (sectorShift < 9 || sectorShift > 12 || clusterShift > kMaxClusterShift)
        return std::nullopt;
    BootSector found;
    found.kind = BootSector::Kind::ExFAT;
    found.clusterBytes = __int64{1} << clusterShift;
    found.tableStartBytes = __int64{readLittleEndian<std::uint32_t>(sector + 80)} << sectorShift;
    found.dataStartBytes = __int64{readLittleEndian<std::uint32_t>(sector + 88)} << sectorShift;
    found.rootCluster = readLittleEndian<std::uint32_t>(sector + 96);
    return found;
}

std::optional<BootSector> readNTFS(unsigned char const* sector) {
    std::uint64_t const sectorBytes = readLittleEndian<std::uint16_t>(sector + 11);
    auto const sectorsOfCluster = static_cast<signed char>(sector[13]);
    // A negative one is a power of two.
    std::uint64_t const sectors = sectorsOfCluster >= -kMaxClusterShift && sectorsOfCluster < 0
                                      ? std::uint64_t{1} << -sectorsOfCluster
                                      : sector[13];
    std::uint64_t const cluster = readLittleEndian<std::uint64_t>(sector + 48);
    constexpr std::uint64_t kMaxCluster = std::uint64_t{1} << 48;
    if (!isSectorSize(sectorBytes) || !isPowerOfTwo(sectors) || cluster == 0 ||
        sectorBytes * sectors > (std::uint64_t{1} << kMaxClusterShift) || cluster >= kMaxCluster)
        return std::nullopt;
    BootSector found;
    found.kind = BootSector::Kind::NTFS;
    found.clusterBytes = toSigned(sectorBytes * sectors);
    found.rootCluster = toSigned(cluster);
    found.firstCluster = 0;
    // What cannot be a place in a file of 2^63 bytes is none.
    if (found.rootCluster > INT64_MAX / found.clusterBytes)
        return std::nullopt;
    return found;
}

std::optional<BootSector> readFAT(unsigned char const* sector) {
    std::uint64_t const sectorBytes = readLittleEndian<std::uint16_t>(sector + 11);
    std::uint64_t const sectorsOfCluster = sector[13];
    std::uint64_t const reserved = readLittleEndian<std::uint16_t>(sector + 14);
    std::uint64_t const tables = sector[16];
    bool const isJump = (sector[0] == 0xEB && sector[2] == 0x90) || sector[0] == 0xE9;
    bool const isMedium = sector[21] == 0xF0 || sector[21] >= 0xF8;
    if (!isJump || !isMedium || !isSectorSize(sectorBytes) || !isPowerOfTwo(sectorsOfCluster) ||
        reserved == 0 || tables == 0 || tables > 2)
        return std::nullopt;
    std::uint64_t const shortTable = readLittleEndian<std::uint16_t>(sector + 22);
    std::uint64_t const tableSectors =
        shortTable != 0 ? shortTable : readLittleEndian<std::uint32_t>(sector + 36);
    std::uint64_t const rootSectors =
        (std::uint64_t{readLittleEndian<std::uint16_t>(sector + 17)} * 32 + sectorBytes - 1) /
        sectorBytes;
    if (tableSectors == 0)
        return std::nullopt;
    BootSector found;
    found.kind = shortTable != 0 ? BootSector::Kind::FAT : BootSector::Kind::FAT32;
    found.clusterBytes = toSigned(sectorBytes * sectorsOfCluster);
    found.tableStartBytes = toSigned(reserved * sectorBytes);
    found.dataStartBytes = toSigned((reserved + tables * tableSectors + rootSectors) * sectorBytes);
    if (found.kind == BootSector::Kind::FAT32)
        found.rootCluster = readLittleEndian<std::uint32_t>(sector + 44);
    return found;
}

} // namespace

std::optional<BootSector> readBootSector(unsigned char const* sector) {
    if (std::memcmp(sector + 3, "EXFAT   ", 8) == 0)
        return readExFAT(sector);
    if (std::memcmp(sector + 3, "NTFS    ", 8) == 0)
        return readNTFS(sector);
    return readFAT(sector);
}

bool isBootSectorOfFileSystem(unsigned char const* sector) {
    return readBootSector(sector).has_value();
}

} // namespace kelm::host
