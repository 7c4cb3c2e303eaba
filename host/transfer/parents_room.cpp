#include "host/transfer/parents_room.h"

#include <cassert>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/disk/chain_members.h"
#include "host/store/file_status.h"
#include "host/store/free_space.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// How often a signal is looked for, in grains.
constexpr __int64 kCancelInterval = 4096;

/// The run of tables that is read in one go.
constexpr int kParentTablesInMemory = 64;

/// What has files of the disk, and how much is to go there.
struct FileStore {
    yx::CURI folder;
    __int64 neededBytes = 0;
};

/// A store, and a device in it.
using StoreDevice = std::pair<std::string, unsigned long long>;

std::optional<StoreDevice> deviceOf(yx::CURI const& file) {
    std::optional<FileIdentity> const folder = identifyFile(file.getParent());
    return folder ? std::optional<StoreDevice>({folder->store, folder->device}) : std::nullopt;
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
        if (m_index == m_extents.size())
            return 0;
        DiskExtent const& extent = m_extents[m_index];
        if (!m_tables) {
            if (!m_files->fileExists(extent.uri))
                return 0;
            m_tables.emplace(m_files, extent.uri);
        }
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

/// Counts what copies of grains take in the files of one disk.
class CopySizes {
public:
    /// The copies are of what a disk and its parents hold, or its parents alone.
    enum class Holders { All, Parents };

    CopySizes(SafeDisk& disk, Holders holders, bool isCompressed)
        : m_disk(disk), m_isCompressed(isCompressed) {
        std::vector<ChainMember> members = listChainMembers(disk);
        for (std::size_t i = holders == Holders::All ? 0 : 1; i < members.size(); ++i)
            m_holders.emplace_back(disk.getFileSystem(), std::move(members[i]));
    }

    /// Grains come in rising order.
    __int64 calcBytes(__int64 grain) {
        __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
        if (!m_isCompressed)
            return grainSizeBytes;
        for (ParentSlots& parent : m_holders) {
            std::optional<__int64> const bytes =
                parent.getBytesAt(grain * grainSizeBytes, grainSizeBytes);
            if (!bytes)
                break;
            if (*bytes > 0)
                return *bytes;
        }
        return kSectorSizeBytes;
    }

private:
    SafeDisk& m_disk;
    bool m_isCompressed;
    std::vector<ParentSlots> m_holders;
};

/// Looks for a signal now and then.
class CancelSometimes {
public:
    explicit CancelSometimes(CancelFlag const* cancel) : m_cancel(cancel) {}

    void check() {
        if (m_cancel && m_count++ % kCancelInterval == 0)
            m_cancel->check();
    }

private:
    CancelFlag const* m_cancel;
    __int64 m_count = 0;
};

} // namespace

/// By the devices that they are on.
class ParentsRoom::Stores {
public:
    std::map<StoreDevice, FileStore> byDevice;
};

ParentsRoom::ParentsRoom() : m_stores(std::make_unique<Stores>()) {}

ParentsRoom::~ParentsRoom() = default;

void ParentsRoom::add(SafeDisk& disk, GrainSet const& grains, CancelFlag const* cancel) {
    CopySizes sizes(disk, CopySizes::Holders::Parents, disk.getDisk().getCompressed());
    std::vector<DiskExtent> const& extents = disk.listExtents();
    std::size_t extent = 0;
    std::optional<StoreDevice> device = deviceOf(extents.front().uri);
    CancelSometimes sometimes(cancel);
    for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
         grain = grains.findNext(grain + 1)) {
        sometimes.check();
        while (extents[extent].endBytes <= grain * disk.getGrainSizeBytes())
            device = deviceOf(extents[++extent].uri);
        if (!device)
            continue;
        m_stores->byDevice.try_emplace(*device, FileStore{extents[extent].uri.getParent()})
            .first->second.neededBytes += sizes.calcBytes(grain);
    }
}

void ParentsRoom::addNewDisk(SafeDisk& source, GrainSet const& grains, NewDiskPlace const& place,
                             CancelFlag const* cancel) {
    std::optional<StoreDevice> const device = deviceOf(place.mainFile);
    if (!device)
        return;
    CopySizes sizes(source, CopySizes::Holders::All, place.isCompressed);
    CancelSometimes sometimes(cancel);
    __int64& neededBytes =
        m_stores->byDevice.try_emplace(*device, FileStore{place.mainFile.getParent()})
            .first->second.neededBytes;
    for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
         grain = grains.findNext(grain + 1)) {
        sometimes.check();
        neededBytes += sizes.calcBytes(grain);
    }
}

void ParentsRoom::verify(char const* message) const {
    for (auto const& [device, store] : m_stores->byDevice) {
        std::optional<__int64> const freeBytes = getFreeBytes(store.folder);
        if (!freeBytes || store.neededBytes <= *freeBytes)
            continue;
        throw yx::CIOError(yx::CIOError::NoSpace, message,
                           yx::CProps()
                               .add("uri", store.folder.toString(true))
                               .add("neededBytes", yx::toString(store.neededBytes))
                               .add("freeBytes", yx::toString(*freeBytes)),
                           nullptr);
    }
}

} // namespace kelm::host
