#include "integrations/nbdkit/served_disk.h"

#include <algorithm>

#include <sys/resource.h>

#include "host/disk/chain_keys.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_systems.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/whole_reading.h"

namespace kelm::nbd {

namespace {

constexpr __int64 kMaxGrainsLookedAt = 16384;
constexpr int kDefaultCompressionLevel = -1;

/// Of 4 KiB, for the map that all requests share.
constexpr int kDefaultMapTables = 16384;

/// Of 2 KiB, for the road straight to the grains of a disk that is written to.
constexpr int kDefaultWritingTables = 8192;
constexpr int kWritingShares = 2;

template <class IsGrainWritten>
std::vector<StoredRun> listRunsOf(__int64 grainSizeBytes, IsGrainWritten const& isGrainWritten,
                                  __int64 positionBytes, __int64 bytes, std::size_t maxRuns) {
    __int64 const firstGrain = positionBytes / grainSizeBytes;
    __int64 const endBytes = positionBytes + std::min(bytes, kMaxGrainsLookedAt * grainSizeBytes);
    std::vector<StoredRun> runs;
    for (__int64 grain = firstGrain; positionBytes < endBytes; ++grain) {
        bool const isStored = isGrainWritten(grain);
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

} // namespace

ServedDisk::ServedDisk(DiskSettings const& settings)
    : m_settings(settings), m_fileSystem(yx::makeObject<host::FileSystems>()) {}

/// Calls `use` with the disk, or one of its readers, and returns what it returns.
template <class Use>
auto ServedDisk::useDisk(Use const& use) {
    std::shared_lock const opening(m_opening);
    return useOpenDisk(use);
}

/// The same while `m_opening` is held.
template <class Use>
auto ServedDisk::useOpenDisk(Use const& use) {
    if (m_readers)
        return m_readers->use(use);
    verifyIsOpen();
    std::lock_guard const writing(m_writing);
    return use(*m_disk);
}

void ServedDisk::verifyIsOpen() const {
    if (isOpen())
        return;
    throw yx::CIOError(yx::CIOError::Closed, "The disk is not open.",
                       yx::CProps().add("uri", m_settings.uri.toString(true)), nullptr);
}

/// Calls `use` with the road of a disk that is open for writing; one that is open for reading
/// refuses to be changed in its own words.
template <class Use>
void ServedDisk::useWriting(Use const& use) {
    std::shared_lock const opening(m_opening);
    if (!m_direct) {
        useOpenDisk(use);
        return;
    }
    std::lock_guard const writing(m_writing);
    use(*m_direct);
}

bool ServedDisk::isWritable() const {
    std::shared_lock const opening(m_opening);
    return m_disk != nullptr;
}

__int64 ServedDisk::getSizeBytes() {
    return useDisk([](host::SafeDisk& disk) { return disk.getSizeBytes(); });
}

__int64 ServedDisk::getGrainSizeBytes() {
    return useDisk([](host::SafeDisk& disk) { return disk.getGrainSizeBytes(); });
}

void ServedDisk::flush() {
    useWriting([](auto& disk) { disk.flush(); });
}

void ServedDisk::open(yx::IIOStream::Access access) {
    std::lock_guard const opening(m_opening);
    if (m_disk || (m_readers && access == yx::IIOStream::ReadOnly))
        return;
    closeOpened();
    yx::String const& password = m_settings.password.get();
    if (!password.isEmpty()) {
        host::deriveKeysOfChain(m_fileSystem.get(), m_settings.uri,
                                {password, m_settings.parentPassword.get()}, *m_settings.keys,
                                host::countThreads({}));
    }
    // Each road of a disk that is written to has tables of its own.
    std::unique_ptr<host::SafeDisk> opened =
        openOnce(access, access == yx::IIOStream::ReadWrite ? kWritingShares : 1);
    m_grainSizeBytes = opened->getGrainSizeBytes();
    m_parents = host::openParents(m_fileSystem.get(), *opened, password);
    host::beginWholeReading(*opened, nullptr);
    if (access == yx::IIOStream::ReadWrite) {
        m_disk = std::move(opened);
        int const tables = m_settings.maxCachedTables ? *m_settings.maxCachedTables / kWritingShares
                                                      : kDefaultWritingTables;
        m_direct = std::make_unique<host::DirectWriting>(*m_disk, tables);
        return;
    }
    int const readers = countReaders(*opened);
    // The map that the readers share counts as one of them.
    int const shares = readers + 1;
    if (m_settings.maxCachedTables)
        opened = openOnce(access, shares);
    m_readers.emplace(std::move(opened), readers,
                      [this, shares] { return openOnce(yx::IIOStream::ReadOnly, shares); });
    int const mapTables =
        m_settings.maxCachedTables ? *m_settings.maxCachedTables / shares : kDefaultMapTables;
    m_readers->useDirectReading(
        std::make_unique<host::DirectReading>(openOnce(access, shares), mapTables));
}

/// As one of so many that share what may be kept of tables.
std::unique_ptr<host::SafeDisk> ServedDisk::openOnce(yx::IIOStream::Access access,
                                                     int shares) const {
    host::DiskTrust trust = m_settings.trust;
    // Whoever goes on filling the disk takes what it holds for the image's.
    if (access == yx::IIOStream::ReadWrite)
        trust.unfinished = host::UnfinishedDisks::Refused;
    int tables = CVMDKGrainTableCache::kDefaultLimit;
    if (m_settings.maxCachedTables)
        tables = std::max(1, *m_settings.maxCachedTables / shares);
    auto opened = std::make_unique<host::SafeDisk>(m_fileSystem.get(), m_settings.uri, access,
                                                   m_settings.password.get(),
                                                   kDefaultCompressionLevel, tables, trust);
    opened->mergeChain(tables);
    // A table that left the cache by itself could come back stale while it has changes.
    if (access == yx::IIOStream::ReadWrite && m_settings.maxCachedTables)
        opened->limitTables(tables);
    return opened;
}

/// One for each core, but fewer where their files would be more than half of those that the process
/// may open.
int ServedDisk::countReaders(host::SafeDisk& disk) const {
    std::size_t files = disk.listFiles().size();
    for (auto const& parent : m_parents)
        files += parent->listFiles().size();
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1;
    rlim_t const affordable = limit.rlim_cur / 2 / std::max<rlim_t>(files, 1);
    return static_cast<int>(
        std::clamp<rlim_t>(affordable, 1, static_cast<rlim_t>(host::countThreads({}))));
}

void ServedDisk::close() {
    std::lock_guard const opening(m_opening);
    closeOpened();
}

void ServedDisk::closeOpened() {
    std::unique_ptr<host::SafeDisk> const closing = std::move(m_disk);
    std::unique_ptr<host::DirectWriting> const writing = std::move(m_direct);
    m_readers.reset();
    m_parents.clear();
    if (writing)
        writing->flush();
}

void ServedDisk::read(__int64 positionBytes, void* buffer, int bytes) {
    std::shared_lock const opening(m_opening);
    if (m_readers) {
        m_readers->read(positionBytes, buffer, bytes);
        return;
    }
    verifyIsOpen();
    std::lock_guard const writing(m_writing);
    m_direct->read(positionBytes, buffer, bytes);
}

void ServedDisk::write(__int64 positionBytes, void const* buffer, int bytes) {
    useWriting([=](auto& disk) { disk.write(positionBytes, buffer, bytes); });
}

void ServedDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    useWriting([=](auto& disk) { disk.writeZeros(positionBytes, bytes); });
}

std::vector<StoredRun> ServedDisk::listRuns(__int64 positionBytes, __int64 bytes,
                                            std::size_t maxRuns) {
    std::shared_lock const opening(m_opening);
    if (m_readers) {
        return listRunsOf(
            m_grainSizeBytes, [this](__int64 grain) { return m_readers->isGrainWritten(grain); },
            positionBytes, bytes, maxRuns);
    }
    return useOpenDisk([=, this](host::SafeDisk& disk) {
        return listRunsOf(
            m_grainSizeBytes, [&disk](__int64 grain) { return disk.isGrainWritten(grain); },
            positionBytes, bytes, maxRuns);
    });
}

} // namespace kelm::nbd
