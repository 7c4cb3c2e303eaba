#include "host/transfer/salvaged_disk.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <optional>

#include "host/disk/disk_layout.h"
#include "host/disk/disk_opening.h"
#include "host/disk/expected_extent.h"
#include "host/disk/header_overlay.h"
#include "host/disk/safe_disk.h"
#include "host/disk/salvaged_tables.h"
#include "kelm/extent/internal/grain_position.h"

namespace kelm::host {

namespace {

constexpr char kDoubtfulReason[] = "has a grain whose place in the tables is doubtful";
constexpr char kLostEntryReason[] = "has no sound entry in the grain tables";

yx::P<yx::IIOStream> openUnbuffered(yx::IFileSystem& files, yx::CURI const& uri) {
    unsigned int options = 0;
    yx::P<yx::IIOStream> stream = files.openFile(uri, yx::IIOStream::ReadOnly, &options);
    // Read-ahead would let a bad sector spoil its neighbours.
    if (dynamic_cast<yx::IAlignedStreamBase*>(stream.get()))
        return yx::makeObject<yx::COptimizingIOStream>(stream.get());
    return stream;
}

/// What is said of a part of a grain, or of a stretch that belongs to no known grain.
struct SalvagedPart {
    enum class Kind { Absent, Stored, Lost };

    Kind kind = Kind::Absent;
    int sizeBytes = 0;
    bool isDoubtful = false;

    /// Where a parent has it.
    __int64 parentPositionBytes = 0;

    /// Of a stored part; the second says which of its bytes are not there.
    unsigned char const* data = nullptr;
    std::vector<GrainStretch> lost;
    std::string reason;
};

/// The file of an extent, as far as it can be used.
struct OpenExtent {
    yx::P<yx::IIOStream> stream;
    CVMDKSparseExtentHeader header;
    std::optional<StoredGrains> grains;
    std::optional<SalvagedTables> tables;

    /// Why nothing of it can be read; empty if it can.
    std::string lossReason;

    /// Whether the file is to be made by the first write.
    bool isStillToBeMade = false;

    __int64 grainSizeBytes = 0;
    __int64 startGrainIndex = 0;

    // The grain that was read last.
    __int64 lastGrain = -1;
    ReadGrain lastRead;
    yx::TBuffer<unsigned char> lastBytes;
};

} // namespace

/// The disk or one of its parents.
class SalvagedDisk::Level {
public:
    Level(yx::IFileSystem* files, yx::CURI const& mainFile, yx::String const& password,
          SalvageOptions const& options)
        : m_files(files), m_mainFile(mainFile), m_options(options) {
        m_lock = takeReaderLock(files, mainFile);
        yx::P<yx::IIOStream> const stream =
            openVMDKFileStream(files, mainFile, yx::IIOStream::ReadOnly);
        m_descriptor =
            CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
        m_extents = listDescribedExtents(*m_descriptor, mainFile, kSectorSizeBytes, false);
        if (m_extents.empty() || !m_descriptor->hasValue("createType")) {
            throw yx::CIOError(yx::CIOError::CorruptData, "VMDK disk has no extents.",
                               yx::CProps().add("uri", mainFile.toString(true)), nullptr);
        }
        DiskReach(mainFile, options.trust).verifyExtents(*m_descriptor, *files);
        m_key = unwrapDiskKey(*m_descriptor, mainFile, password);
        m_isOnDemand = m_descriptor->getYxCreateExtentFilesOnDemand();
        m_grainSizeBytes = findGrainSize();
    }

    yx::P<CVMDKDescriptor> const& getDescriptor() const { return m_descriptor; }
    yx::CURI const& getMainFile() const { return m_mainFile; }
    std::vector<DiskExtent> const& getExtents() const { return m_extents; }
    __int64 getSizeBytes() const { return m_extents.back().endBytes; }

    bool isChanged() const { return m_isChanged; }
    void setChanged() { m_isChanged = true; }

    /// The file that has a byte of the disk.
    yx::CURI const& getFileAt(__int64 positionBytes) const {
        return m_extents[findExtent(positionBytes)].uri;
    }

    /// Reads what one grain has of a range that lies in the disk.
    SalvagedPart readPart(__int64 positionBytes, int bytes) {
        std::size_t const index = findExtent(positionBytes);
        OpenExtent& open = ensureOpen(index);
        DiskExtent const& extent = m_extents[index];
        __int64 const inExtent = positionBytes - extent.startBytes;
        __int64 const grain = inExtent / open.grainSizeBytes;
        int const inGrain = static_cast<int>(inExtent % open.grainSizeBytes);
        SalvagedPart part;
        part.sizeBytes = static_cast<int>(std::min<__int64>(
            {bytes, open.grainSizeBytes - inGrain, extent.endBytes - positionBytes}));
        part.parentPositionBytes =
            grainPositionBytes(diskGrainIndexOf(open.startGrainIndex, grain), open.grainSizeBytes) +
            inGrain;
        if (open.isStillToBeMade)
            return part;
        if (!open.lossReason.empty()) {
            part.kind = SalvagedPart::Kind::Lost;
            part.reason = open.lossReason;
            return part;
        }
        readGrainPart(open, grain, inGrain, part);
        return part;
    }

    /// How many bytes from a position on, at most `maxBytes`, are in no file, which is no damage,
    /// and are looked for at the same place of the parent.
    __int64 countAbsentBytes(__int64 positionBytes, __int64 maxBytes) {
        std::size_t const index = findExtent(positionBytes);
        OpenExtent& open = ensureOpen(index);
        DiskExtent const& extent = m_extents[index];
        bool const areElsewhereInParent =
            grainPositionBytes(open.startGrainIndex, open.grainSizeBytes) != extent.startBytes;
        if (!open.lossReason.empty() || areElsewhereInParent)
            return 0;
        __int64 const bytes = std::min(maxBytes, extent.endBytes - positionBytes);
        if (open.isStillToBeMade)
            return bytes;
        __int64 const inExtent = positionBytes - extent.startBytes;
        __int64 const grain = inExtent / open.grainSizeBytes;
        __int64 const grains = (inExtent + bytes - 1) / open.grainSizeBytes - grain + 1;
        __int64 const absent = open.tables->countAbsent(grain, grains);
        return std::min(bytes,
                        std::max<__int64>(0, (grain + absent) * open.grainSizeBytes - inExtent));
    }

private:
    std::size_t findExtent(__int64 positionBytes) const {
        auto const found = std::upper_bound(
            m_extents.begin(), m_extents.end(), positionBytes,
            [](__int64 position, DiskExtent const& extent) { return position < extent.endBytes; });
        assert(found != m_extents.end());
        return static_cast<std::size_t>(found - m_extents.begin());
    }

    /// By the first extent whose header is to be had, as all of a disk are alike nearly always.
    __int64 findGrainSize() {
        constexpr __int64 kUsual = __int64{kNewDiskGrainSizeSectors} * kSectorSizeBytes;
        if (isDiskOfOurs(*m_descriptor))
            return kUsual;
        for (DiskExtent const& extent : m_extents) {
            OpenExtent open;
            tryOpen(extent, open);
            if (open.lossReason.empty() && !open.isStillToBeMade)
                return static_cast<__int64>(open.header.getGrainSizeSectors()) * kSectorSizeBytes;
        }
        return kUsual;
    }

    OpenExtent& ensureOpen(std::size_t index) {
        if (m_open && m_openIndex == index)
            return *m_open;
        m_open.reset();
        m_open = std::make_unique<OpenExtent>();
        m_openIndex = index;
        DiskExtent const& extent = m_extents[index];
        tryOpen(extent, *m_open);
        m_open->startGrainIndex = (extent.startBytes + m_grainSizeBytes - 1) / m_grainSizeBytes;
        bool const isUsable = m_open->lossReason.empty() && !m_open->isStillToBeMade;
        m_open->grainSizeBytes =
            isUsable ? static_cast<__int64>(m_open->header.getGrainSizeSectors()) * kSectorSizeBytes
                     : m_grainSizeBytes;
        if (isUsable) {
            m_open->grains.emplace(*m_open->stream, m_open->header, m_open->startGrainIndex, m_key);
            m_open->tables.emplace(*m_open->stream, m_open->header, *m_open->grains,
                                   m_options.cancel);
        }
        return *m_open;
    }

    /// Opens the file and finds its header, or notes why not.
    void tryOpen(DiskExtent const& extent, OpenExtent& open) {
        if (!m_files->fileExists(extent.uri)) {
            open.isStillToBeMade = m_isOnDemand;
            open.lossReason = m_isOnDemand ? "" : "is missing";
            return;
        }
        std::optional<CVMDKSparseExtentHeader> header;
        try {
            open.stream = openUnbuffered(*m_files, extent.uri);
            header = findHeader(*open.stream, expectExtent(*m_descriptor, m_mainFile, extent));
        } catch (yx::CIOError const& error) {
            open.lossReason = "cannot be opened: " + error.getMessage().toStdString();
            return;
        }
        if (!header || !isUsable(*header, open))
            open.lossReason = "has lost its header";
        else
            open.header = *header;
    }

    bool isUsable(CVMDKSparseExtentHeader const& header, OpenExtent const& open) const {
        auto const grainSizeBytes =
            static_cast<__int64>(header.getGrainSizeSectors()) * kSectorSizeBytes;
        bool const isTooLarge =
            grainSizeBytes > kMaxGrainSizeBytes && !m_options.trust.allowOversize;
        return !isTooLarge &&
               countTables(header) <= open.stream->getLength() / kGrainTableSizeBytes;
    }

    static void readGrainPart(OpenExtent& open, __int64 grain, int inGrain, SalvagedPart& part) {
        SalvagedTables::State const state = open.tables->getState(grain);
        if (state == SalvagedTables::State::Lost) {
            part.kind = SalvagedPart::Kind::Lost;
            part.reason = kLostEntryReason;
            return;
        }
        part.isDoubtful = state == SalvagedTables::State::Doubtful;
        if (part.isDoubtful)
            part.reason = kDoubtfulReason;
        if (open.tables->getSector(grain) == 0)
            return;
        if (open.lastGrain != grain) {
            open.lastRead = open.grains->read(grain, open.tables->getSector(grain), open.lastBytes);
            open.lastGrain = grain;
        }
        part.kind = SalvagedPart::Kind::Stored;
        part.data = open.lastBytes.getData() + inGrain;
        for (GrainStretch const& lost : open.lastRead.lost) {
            int const start = std::max(lost.startBytes - inGrain, 0);
            int const end = std::min(lost.endBytes - inGrain, part.sizeBytes);
            if (start < end)
                part.lost.push_back({start, end});
        }
        if (!part.lost.empty())
            part.reason = open.lastRead.reason;
    }

    yx::IFileSystem* m_files;
    yx::CURI m_mainFile;
    SalvageOptions const& m_options;
    yx::P<yx::CLockFile> m_lock;
    yx::P<CVMDKDescriptor> m_descriptor;
    std::vector<DiskExtent> m_extents;
    DiskKey m_key;
    bool m_isOnDemand = false;
    bool m_isChanged = false;
    __int64 m_grainSizeBytes = 0;
    std::unique_ptr<OpenExtent> m_open;
    std::size_t m_openIndex = 0;
};

SalvagedDisk::SalvagedDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                           yx::String const& password, SalvageOptions const& options)
    : m_options(options) {
    // A damaged header may name grains of any size; they are judged here once it is put right.
    DiskTrust trust = options.trust;
    trust.allowOversize = true;
    m_files = yx::makeObject<DiskFileSystem>(yx::makeObject<HeaderOverlay>(fileSystem).get(), uri,
                                             yx::IIOStream::ReadOnly, trust);
    if (!m_files->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    openLevels(uri.toNormalized(), password);
}

SalvagedDisk::~SalvagedDisk() = default;

void SalvagedDisk::openLevels(yx::CURI const& uri, yx::String const& password) {
    m_levels.push_back(std::make_unique<Level>(m_files.get(), uri, password, m_options));
    while (m_levels.size() <= kMaxChainLength) {
        Level const& child = *m_levels.back();
        yx::String hint;
        unsigned int const contentID = child.getDescriptor()->getParentContentID();
        if (contentID == kNoParentContentID)
            return;
        if (!child.getDescriptor()->tryGetParentFileNameHint(hint)) {
            m_missingParent = child.getMainFile();
            m_missingReason = "does not name its parent";
            return;
        }
        m_missingParent = vmdkFileReferenceToURI(child.getMainFile().getParent(), hint);
        if (!m_files->fileExists(m_missingParent)) {
            m_missingReason = "is missing";
            return;
        }
        try {
            m_levels.push_back(
                std::make_unique<Level>(m_files.get(), m_missingParent, password, m_options));
            if (m_levels.back()->getDescriptor()->getContentID() != contentID)
                m_levels.back()->setChanged();
        } catch (yx::CIOError const& error) {
            m_missingReason = "cannot be opened: " + error.getMessage().toStdString();
            return;
        }
        m_missingParent = yx::CURI();
    }
}

__int64 SalvagedDisk::getSizeBytes() const {
    return m_levels.front()->getSizeBytes();
}

yx::P<CVMDKDescriptor> SalvagedDisk::getDescriptor() const {
    return m_levels.front()->getDescriptor();
}

std::vector<yx::CURI> SalvagedDisk::listFiles() const {
    std::vector<yx::CURI> files;
    for (std::unique_ptr<Level> const& level : m_levels) {
        files.push_back(level->getMainFile());
        for (DiskExtent const& extent : level->getExtents()) {
            if (extent.uri != level->getMainFile())
                files.push_back(extent.uri);
        }
    }
    return files;
}

bool SalvagedDisk::read(__int64 positionBytes, unsigned char* buffer, int bytes) {
    assert(positionBytes >= 0 && bytes >= 0 && positionBytes <= getSizeBytes() - bytes);
    return readFrom(0, {positionBytes, positionBytes, true}, buffer, bytes);
}

__int64 SalvagedDisk::countAbsentBytes(__int64 positionBytes, __int64 maxBytes) {
    assert(positionBytes >= 0 && maxBytes > 0 && positionBytes <= getSizeBytes() - maxBytes);
    bool const mayMissParent =
        !m_missingParent.isEmpty() ||
        std::any_of(m_levels.begin(), m_levels.end(),
                    [](std::unique_ptr<Level> const& level) { return level->isChanged(); });
    // What should come from such a one is damage.
    if (mayMissParent)
        return 0;
    __int64 bytes = maxBytes;
    for (std::unique_ptr<Level> const& level : m_levels) {
        // A child may be larger than its parent.
        if (bytes == 0 || positionBytes >= level->getSizeBytes())
            break;
        bytes = level->countAbsentBytes(positionBytes, bytes);
    }
    return bytes;
}

void SalvagedDisk::note(Place const& place, int startBytes, int endBytes, yx::CURI const& file,
                        std::string const& reason) {
    if (place.isNoted)
        m_damage.add({place.diskPositionBytes + startBytes, place.diskPositionBytes + endBytes,
                      file, reason});
}

bool SalvagedDisk::readFrom(std::size_t level, Place place, unsigned char* buffer, int bytes) {
    Level& disk = *m_levels[level];
    bool isStored = false;
    while (bytes > 0) {
        if (m_options.cancel)
            m_options.cancel->check();
        if (place.positionBytes >= disk.getSizeBytes()) {
            std::memset(buffer, 0, static_cast<std::size_t>(bytes));
            break;
        }
        SalvagedPart const part = disk.readPart(place.positionBytes, bytes);
        Place const below{part.parentPositionBytes, place.diskPositionBytes, place.isNoted};
        bool const isWhollyLost = part.kind == SalvagedPart::Kind::Lost || part.isDoubtful;
        if (isWhollyLost)
            note(place, 0, part.sizeBytes, disk.getFileAt(place.positionBytes), part.reason);
        switch (part.kind) {
        case SalvagedPart::Kind::Absent:
            isStored |= readFromBelow(level, below.noted(!isWhollyLost), buffer, part.sizeBytes);
            break;
        case SalvagedPart::Kind::Lost:
            isStored |= readInstead(level, below, buffer, part.sizeBytes);
            break;
        case SalvagedPart::Kind::Stored:
            isStored = true;
            std::memcpy(buffer, part.data, static_cast<std::size_t>(part.sizeBytes));
            for (GrainStretch const& lost : part.lost) {
                if (!isWhollyLost) {
                    note(place, lost.startBytes, lost.endBytes, disk.getFileAt(place.positionBytes),
                         part.reason);
                }
                readInstead(level, below.behind(lost.startBytes), buffer + lost.startBytes,
                            lost.endBytes - lost.startBytes);
            }
            break;
        }
        place = place.behind(part.sizeBytes);
        buffer += part.sizeBytes;
        bytes -= part.sizeBytes;
    }
    return isStored;
}

/// In the place of something damaged, which has been noted.
bool SalvagedDisk::readInstead(std::size_t level, Place const& place, unsigned char* buffer,
                               int bytes) {
    if (m_options.fromParent)
        return readFromBelow(level, place.noted(false), buffer, bytes);
    std::memset(buffer, 0, static_cast<std::size_t>(bytes));
    return false;
}

bool SalvagedDisk::readFromBelow(std::size_t level, Place const& place, unsigned char* buffer,
                                 int bytes) {
    if (level + 1 < m_levels.size()) {
        Level const& parent = *m_levels[level + 1];
        if (!parent.isChanged())
            return readFrom(level + 1, place, buffer, bytes);
        note(place, 0, bytes, parent.getMainFile(), "is not the parent that it was");
        if (m_options.fromParent)
            return readFrom(level + 1, place.noted(false), buffer, bytes);
    } else if (!m_missingParent.isEmpty()) {
        note(place, 0, bytes, m_missingParent, m_missingReason);
    }
    std::memset(buffer, 0, static_cast<std::size_t>(bytes));
    return false;
}

} // namespace kelm::host
