#include "integrations/nbdkit/served_disk.h"

#include <algorithm>

#include "host/disk/chain_keys.h"
#include "host/disk/parent_chain.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/whole_reading.h"
#include "yx/native_file_system.h"

namespace kelm::nbd {

namespace {

constexpr __int64 kMaxGrainsLookedAt = 16384;
constexpr int kDefaultCompressionLevel = -1;

} // namespace

ServedDisk::ServedDisk(DiskSettings const& settings)
    : m_settings(settings), m_fileSystem(yx::makeObject<yx::CNativeFileSystem>()) {}

host::SafeDisk& ServedDisk::disk() const {
    if (!m_disk) {
        throw yx::CIOError(yx::CIOError::Closed, "The disk is not open.",
                           yx::CProps().add("uri", m_settings.uri.toString(true)), nullptr);
    }
    return *m_disk;
}

void ServedDisk::open(yx::IIOStream::Access access) {
    if (m_disk && (access == yx::IIOStream::ReadOnly || isWritable()))
        return;
    close();
    yx::String const& password = m_settings.password.get();
    if (!password.isEmpty()) {
        host::deriveKeysOfChain(m_fileSystem.get(), m_settings.uri,
                                {password, m_settings.parentPassword.get()}, *m_settings.keys,
                                host::countThreads({}));
    }
    host::DiskTrust trust = m_settings.trust;
    // Whoever goes on filling the disk takes what it holds for the image's.
    if (access == yx::IIOStream::ReadWrite)
        trust.unfinished = host::UnfinishedDisks::Refused;
    auto opened = std::make_unique<host::SafeDisk>(
        m_fileSystem.get(), m_settings.uri, access, password, kDefaultCompressionLevel,
        m_settings.maxCachedTables.value_or(CVMDKGrainTableCache::kDefaultLimit), trust);
    // A table that left the cache by itself could come back stale while it has changes.
    if (access == yx::IIOStream::ReadWrite && m_settings.maxCachedTables)
        opened->limitTables(*m_settings.maxCachedTables);
    m_parents = host::openParents(m_fileSystem.get(), *opened, password);
    host::beginWholeReading(*opened, nullptr);
    m_disk = std::move(opened);
    m_access = access;
}

void ServedDisk::close() {
    std::unique_ptr<host::SafeDisk> const closing = std::move(m_disk);
    m_parents.clear();
    if (closing)
        closing->flush();
}

void ServedDisk::read(__int64 positionBytes, void* buffer, int bytes) {
    host::readWithGrainPlace(disk(), positionBytes, buffer, bytes);
}

void ServedDisk::write(__int64 positionBytes, void const* buffer, int bytes) {
    disk().write(positionBytes, buffer, bytes);
}

void ServedDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    disk().writeZeros(positionBytes, bytes);
}

std::vector<StoredRun> ServedDisk::listRuns(__int64 positionBytes, __int64 bytes,
                                            std::size_t maxRuns) {
    host::SafeDisk& served = disk();
    __int64 const grainSizeBytes = served.getGrainSizeBytes();
    __int64 const firstGrain = positionBytes / grainSizeBytes;
    __int64 const endBytes = positionBytes + std::min(bytes, kMaxGrainsLookedAt * grainSizeBytes);
    std::vector<StoredRun> runs;
    for (__int64 grain = firstGrain; positionBytes < endBytes; ++grain) {
        bool const isStored = served.isGrainWritten(grain);
        if (runs.empty() || runs.back().isStored != isStored) {
            if (runs.size() == maxRuns)
                break;
            runs.push_back({0, isStored});
        }
        __int64 const nextBytes = std::min(endBytes, (grain + 1) * grainSizeBytes);
        runs.back().lengthBytes += nextBytes - positionBytes;
        positionBytes = nextBytes;
    }
    return runs;
}

} // namespace kelm::nbd
