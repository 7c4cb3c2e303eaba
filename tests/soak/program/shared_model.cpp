#include "tests/soak/program/shared_model.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <sys/mman.h>

namespace soak {

void SharedModel::settle() {
    int const count = pendingCount;
    for (int i = 0; i < count; ++i) {
        PendingWrite const& write = pending[static_cast<std::size_t>(i)];
        std::fill_n(flushed.begin() + write.firstSector, write.sectorCount, write.stamp);
    }
    pendingCount = 0;
}

Stamp SharedModel::expectedStamp(int sector) const {
    for (int i = pendingCount; i-- > 0;) {
        PendingWrite const& write = pending[static_cast<std::size_t>(i)];
        if (write.covers(sector))
            return write.stamp;
    }
    return flushed[static_cast<std::size_t>(sector)];
}

bool SharedModel::isGrainPending(int grain) const {
    int const first = grain * kGrainSectors;
    return std::any_of(pending.begin(), pending.begin() + pendingCount,
                       [first](PendingWrite const& write) {
                           return write.firstSector < first + kGrainSectors &&
                                  write.firstSector + write.sectorCount > first;
                       });
}

Stamp SharedModel::identify(unsigned char const* bytes, int sector) const {
    Stamp const old = flushed[static_cast<std::size_t>(sector)];
    if (holdsStamp(bytes, sector, old))
        return old;
    for (int i = pendingCount; i-- > 0;) {
        PendingWrite const& write = pending[static_cast<std::size_t>(i)];
        if (write.covers(sector) && holdsStamp(bytes, sector, write.stamp))
            return write.stamp;
    }
    throw Violation("sector " + std::to_string(sector) + " holds neither what was flushed (stamp " +
                    std::to_string(old) + ") nor what was written since");
}

SharedMemory::SharedMemory(std::size_t sizeBytes)
    : m_memory(
          ::mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
      m_sizeBytes(sizeBytes) {
    if (m_memory == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
}

SharedMemory::~SharedMemory() {
    ::munmap(m_memory, m_sizeBytes);
}

} // namespace soak
