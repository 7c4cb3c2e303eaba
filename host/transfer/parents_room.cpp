#include "host/transfer/parents_room.h"

#include <cassert>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "host/disk/chain_members.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// How often a signal is looked for, in grains.
constexpr __int64 kCancelInterval = 4096;

/// The run of tables that is read in one go.
constexpr int kParentTablesInMemory = 64;

/// A file system of the machine that has files of the disk.
struct FileStore {
    yx::CURI folder;
    __int64 neededBytes = 0;
};

std::string folderPathOf(yx::CURI const& file) {
    return yx::toNativePath(file.getParent()).toStdString();
}

std::optional<dev_t> deviceOf(yx::CURI const& file) {
    struct stat status = {};
    if (file.getScheme() != "file" || ::stat(folderPathOf(file).c_str(), &status) != 0)
        return std::nullopt;
    return status.st_dev;
}

/// Nothing if that cannot be learned.
std::optional<__int64> getFreeBytes(yx::CURI const& folder) {
    struct statvfs status = {};
    if (::statvfs(yx::toNativePath(folder).toStdString().c_str(), &status) != 0)
        return std::nullopt;
    // The system's administrator may use up what is kept back from others.
    auto const blocks = ::geteuid() == 0 ? status.f_bfree : status.f_bavail;
    return static_cast<__int64>(blocks) * static_cast<__int64>(status.f_frsize);
}

/// The tables of one file of a parent.
struct OpenTables {
    OpenTables(yx::IFileSystem* files, yx::CURI const& file)
        : stream(openVMDKFileStream(files, file, yx::IIOStream::ReadOnly)) {
        yx::CDataInStream in(stream.get());
        header.load(in);
        directory = yx::makeObject<CVMDKGrainDirectory>(
            stream.get(), yx::IIOStream::ReadOnly, header,
            yx::makeObject<CVMDKGrainTableCache>(kParentTablesInMemory).get());
    }

    yx::P<yx::IIOStream> stream;
    CVMDKSparseExtentHeader header;
    yx::P<CVMDKGrainDirectory> directory;
};

/// What a parent's grains take in its files. Serves positions in rising order.
class ParentSlots {
public:
    ParentSlots(yx::IFileSystem* files, ChainMember member)
        : m_files(files), m_extents(std::move(member.extents)) {}

    /// The size of the slot of the grain at a position; 0 if the parent does not hold it. Nothing
    /// if the file is not compressed or has grains of another size: such grains are compressed
    /// anew.
    std::optional<__int64> getBytesAt(__int64 positionBytes, __int64 grainSizeBytes) {
        while (m_index < m_extents.size() && m_extents[m_index].endBytes <= positionBytes) {
            ++m_index;
            m_tables.reset();
        }
        if (m_index == m_extents.size() || !m_files->fileExists(m_extents[m_index].uri))
            return 0;
        DiskExtent const& extent = m_extents[m_index];
        if (!m_tables)
            m_tables.emplace(m_files, extent.uri);
        bool const isAlike =
            m_tables->header.isCompressed() &&
            static_cast<__int64>(m_tables->header.getGrainSizeSectors()) * kSectorSizeBytes ==
                grainSizeBytes &&
            extent.startBytes % grainSizeBytes == 0;
        if (!isAlike)
            return std::nullopt;
        __int64 posSectors = 0;
        __int64 slotSectors = 0;
        m_tables->directory->getGrainInfo((positionBytes - extent.startBytes) / grainSizeBytes,
                                          posSectors, slotSectors);
        return posSectors == 0 ? 0 : slotSectors * kSectorSizeBytes;
    }

private:
    yx::IFileSystem* m_files;
    std::vector<DiskExtent> m_extents;
    std::size_t m_index = 0;
    std::optional<OpenTables> m_tables;
};

class ParentsRoom {
public:
    ParentsRoom(SafeDisk& disk, CancelFlag const* cancel) : m_disk(disk), m_cancel(cancel) {
        std::vector<ChainMember> members = listChainMembers(disk);
        for (std::size_t i = 1; i < members.size(); ++i)
            m_parents.emplace_back(disk.getFileSystem(), std::move(members[i]));
        for (DiskExtent const& extent : disk.listExtents())
            m_devices.push_back(deviceOf(extent.uri));
    }

    void verify() {
        count();
        for (auto const& [device, store] : m_stores) {
            std::optional<__int64> const freeBytes = getFreeBytes(store.folder);
            if (!freeBytes || store.neededBytes <= *freeBytes)
                continue;
            throw yx::CIOError(yx::CIOError::NoSpace, "There is no room for what the parents hold.",
                               yx::CProps()
                                   .add("uri", store.folder.toString(true))
                                   .add("neededBytes", yx::toString(store.neededBytes))
                                   .add("freeBytes", yx::toString(*freeBytes)),
                               nullptr);
        }
    }

private:
    void count() {
        std::size_t extent = 0;
        for (__int64 grain = 0; grain < m_disk.getGrainCount(); ++grain) {
            if (m_cancel && grain % kCancelInterval == 0)
                m_cancel->check();
            __int64 const startBytes = grain * m_disk.getGrainSizeBytes();
            while (m_disk.listExtents()[extent].endBytes <= startBytes)
                ++extent;
            if (m_devices[extent] && !m_disk.isGrainWrittenHere(grain) &&
                m_disk.isGrainWritten(grain))
                storeOf(extent).neededBytes += calcBytes(grain);
        }
    }

    FileStore& storeOf(std::size_t extent) {
        yx::CURI const& file = m_disk.listExtents()[extent].uri;
        return m_stores.try_emplace(*m_devices[extent], FileStore{file.getParent()}).first->second;
    }

    __int64 calcBytes(__int64 grain) {
        __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
        if (!m_disk.getDisk().getCompressed())
            return grainSizeBytes;
        for (ParentSlots& parent : m_parents) {
            std::optional<__int64> const bytes =
                parent.getBytesAt(grain * grainSizeBytes, grainSizeBytes);
            if (!bytes)
                break;
            if (*bytes > 0)
                return *bytes;
        }
        return kSectorSizeBytes;
    }

    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    std::vector<ParentSlots> m_parents;

    /// For each extent; nothing for one that is on no file system of the machine.
    std::vector<std::optional<dev_t>> m_devices;
    std::map<dev_t, FileStore> m_stores;
};

} // namespace

void verifyRoomForParentsGrains(SafeDisk& disk, CancelFlag const* cancel) {
    ParentsRoom(disk, cancel).verify();
}

} // namespace kelm::host
