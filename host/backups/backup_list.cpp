#include "host/backups/backup_list.h"

#include <algorithm>
#include <cassert>
#include <map>
#include <set>
#include <string_view>

#include "host/backups/descriptor_file.h"
#include "host/disk/disk_files.h"
#include "host/disk/disk_layout.h"
#include "host/disk/disk_record.h"
#include "host/disk/kept_file.h"
#include "host/store/file_names.h"
#include "host/store/folder_files.h"
#include "host/system/error_text.h"
#include "host/system/name_text.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/kelm.h"
#include "yx/optimizing_io_stream.h"

namespace kelm::host {

namespace {

constexpr std::string_view kDiskExtension = ".vmdk";

/// What the list needs beside what it shows.
struct Link {
    unsigned int contentID = 0;
    unsigned int parentContentID = kNoParentContentID;
    std::vector<yx::CURI> files;
};

CVMDKSparseExtentHeader readHeader(yx::IIOStream* stream) {
    yx::CDataInStream in(stream);
    CVMDKSparseExtentHeader header;
    header.load(in);
    return header;
}

void failWith(BackupDisk& disk, BackupState state, std::string problem) {
    assert(state != BackupState::Complete && !problem.empty());
    disk.state = state;
    disk.problem = std::move(problem);
}

/// The extents as they are, whatever name a disk in one file had when its descriptor was written.
std::vector<DiskExtent> listExtents(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                                    bool isEmbedded) {
    std::vector<DiskExtent> extents =
        listDescribedExtents(descriptor, mainFile, kSectorSizeBytes, false);
    bool const namesItself =
        std::any_of(extents.begin(), extents.end(),
                    [&](DiskExtent const& extent) { return extent.uri == mainFile; });
    if (isEmbedded && !namesItself && !extents.empty())
        extents.front().uri = mainFile;
    return extents;
}

/// Reads one disk.
class DiskReader {
public:
    /// `mainFile` is the disk's main file, open.
    DiskReader(yx::IFileSystem* fileSystem, KeptFile& mainFile, BackupDisk& disk, Link& link)
        : m_fileSystem(fileSystem), m_mainFile(mainFile), m_disk(disk), m_link(link) {}

    /// False for a file that is a part of some disk, not one of its own.
    bool read() {
        yx::P<yx::IIOStream> const stream = openMainFile();
        if (isBareExtent(stream.get()))
            return false;
        CVMDKDescriptorAccessor const accessor(stream.get(), yx::IIOStream::ReadOnly);
        yx::P<CVMDKDescriptor> const descriptor = accessor.getDescriptor();
        m_disk.state = BackupState::Complete;
        readRecord(*descriptor);
        readParent(*descriptor);
        readFiles(*descriptor, accessor.getEmbeddedInSparseExtentFile());
        return true;
    }

private:
    yx::P<yx::IIOStream> openMainFile() {
        return yx::makeObject<yx::COptimizingIOStream>(m_mainFile.openStream().get());
    }

    bool isBareExtent(yx::IIOStream* stream) {
        unsigned char start[4] = {};
        if (stream->readLax(start, sizeof start) < static_cast<int>(sizeof start))
            return false;
        stream->seek(0);
        auto const magic = loadLittleEndian<unsigned int>(start);
        if (magic != kHeaderMagic && magic != kEncryptionExtensionHeaderMagic)
            return false;
        CVMDKSparseExtentHeader const header = readHeader(stream);
        stream->seek(0);
        return header.getDescriptorOffsetSectors() == 0;
    }

    void readRecord(CVMDKDescriptor& descriptor) {
        DiskRecord const record(descriptor);
        m_disk.time = record.getTime();
        m_disk.source = record.getSource();
        m_disk.host = record.getHost();
        m_disk.label = record.getLabel();
        m_disk.isEncrypted = descriptor.isEncrypted();
        m_disk.isOnDemand = descriptor.getYxCreateExtentFilesOnDemand();
        if (record.getState() == DiskState::Unfinished)
            failWith(m_disk, BackupState::Unfinished, "it was not filled to its end");
    }

    void readParent(CVMDKDescriptor const& descriptor) {
        m_link.contentID = descriptor.getContentID();
        m_link.parentContentID = descriptor.getParentContentID();
        yx::String hint;
        if (m_link.parentContentID != kNoParentContentID &&
            descriptor.tryGetParentFileNameHint(hint)) {
            m_disk.parentFile =
                vmdkFileReferenceToURI(m_disk.mainFile.getParent(), hint).toNormalized();
        }
    }

    void readFiles(CVMDKDescriptor& descriptor, bool isEmbedded) {
        std::vector<DiskExtent> const extents =
            listExtents(descriptor, m_disk.mainFile, isEmbedded);
        m_link.files.push_back(m_disk.mainFile);
        for (DiskExtent const& extent : extents) {
            m_disk.sizeBytes = extent.endBytes;
            if (extent.uri != m_disk.mainFile)
                m_link.files.push_back(extent.uri);
        }
        m_disk.imageBytes = DiskRecord(descriptor).getImageBytes(m_disk.sizeBytes);
        for (yx::CURI const& file : m_link.files) {
            FileUse const use = measureFile(file);
            m_disk.ownBytes += use.allocatedBytes;
            m_disk.fileCount += use.exists ? 1 : 0;
            if (!use.exists && !m_disk.isOnDemand) {
                failWith(m_disk, BackupState::Damaged,
                         "a file of it is missing: " + displayName(file));
            }
        }
        readCompression(extents);
    }

    void readCompression(std::vector<DiskExtent> const& extents) {
        if (extents.empty())
            return;
        yx::CURI const& first = extents.front().uri;
        if (first == m_disk.mainFile)
            m_disk.isCompressed = readHeader(openMainFile().get()).isCompressed();
        else if (m_fileSystem->fileExists(first))
            m_disk.isCompressed =
                readHeader(openVMDKFileStream(m_fileSystem, first, yx::IIOStream::ReadOnly).get())
                    .isCompressed();
    }

    yx::IFileSystem* m_fileSystem;
    KeptFile& m_mainFile;
    BackupDisk& m_disk;
    Link& m_link;
};

/// Finds disks and what binds them.
class Collector {
public:
    explicit Collector(yx::IFileSystem* fileSystem) : m_fileSystem(fileSystem) {}

    void addFolder(yx::CURI const& folder) {
        for (yx::CURI const& file : listFilesBelow(folder)) {
            if (isFileOfChange(file))
                continue;
            yx::P<KeptFile> const opened = tryOpen(file);
            if (opened && isDiskMainFile(*opened->openStream()))
                addDisk(file, opened);
            else if (file.getExtension().toStdString() == kDiskExtension)
                m_suspects.push_back(file);
        }
    }

    /// To be called once, after all folders.
    std::vector<BackupDisk> finish() {
        addSuspects();
        // The list grows while parents that lie elsewhere come in.
        for (std::size_t i = 0; i < m_disks.size(); ++i)
            bind(i);
        return std::move(m_disks);
    }

private:
    yx::P<KeptFile> openOnce(yx::CURI const& file) const {
        unsigned int options = 0;
        return yx::makeObject<KeptFile>(
            m_fileSystem->openFile(file, yx::IIOStream::ReadOnly, &options));
    }

    /// Null for what cannot be opened.
    yx::P<KeptFile> tryOpen(yx::CURI const& file) const {
        try {
            return openOnce(file);
        } catch (yx::CIOError const& error) {
            error.nop();
            return {};
        }
    }

    /// `opened` is null for a file that is not open yet.
    std::optional<std::size_t> addDisk(yx::CURI const& file, yx::P<KeptFile> const& opened) {
        if (auto const found = m_indexes.find(file); found != m_indexes.end())
            return found->second;
        BackupDisk disk;
        disk.mainFile = file;
        Link link;
        try {
            yx::P<KeptFile> const mainFile = opened ? opened : openOnce(file);
            if (!DiskReader(m_fileSystem, *mainFile, disk, link).read())
                return std::nullopt;
        } catch (yx::CError const& error) {
            failWith(disk, BackupState::Damaged, describeError(error));
        }
        std::size_t const index = m_disks.size();
        m_indexes.emplace(file, index);
        m_parts.insert(link.files.begin(), link.files.end());
        m_disks.push_back(std::move(disk));
        m_links.push_back(std::move(link));
        return index;
    }

    void addSuspects() {
        for (yx::CURI const& file : m_suspects) {
            if (m_parts.contains(file) || !m_indexes.emplace(file, m_disks.size()).second)
                continue;
            BackupDisk disk;
            disk.mainFile = file;
            disk.fileCount = 1;
            disk.ownBytes = measureFile(file).allocatedBytes;
            failWith(disk, BackupState::Damaged, "it begins as no disk does");
            m_disks.push_back(std::move(disk));
            m_links.emplace_back();
        }
    }

    void bind(std::size_t index) {
        if (m_disks[index].parentFile.isEmpty()) {
            if (m_links[index].parentContentID != kNoParentContentID)
                failUnlessDamaged(index, BackupState::ParentMissing, "its parent has no name");
            return;
        }
        std::optional<std::size_t> const parent = findParent(m_disks[index].parentFile);
        if (!parent) {
            failUnlessDamaged(index, BackupState::ParentMissing,
                              "its parent is missing: " + displayName(m_disks[index].parentFile));
            return;
        }
        m_disks[index].parent = parent;
        m_disks[index].parentFile = m_disks[*parent].mainFile;
        if (m_disks[*parent].state != BackupState::Damaged &&
            m_links[*parent].contentID != m_links[index].parentContentID) {
            failUnlessDamaged(index, BackupState::ParentChanged,
                              "its parent has changed: " + displayName(m_disks[index].parentFile));
        }
    }

    std::optional<std::size_t> findParent(yx::CURI const& file) {
        // Its own name, or one by which a link leads to it.
        if (auto const found = m_indexes.find(file); found != m_indexes.end())
            return found->second;
        if (!m_fileSystem->fileExists(file))
            return std::nullopt;
        return addDisk(resolveName(file), {});
    }

    /// What is wrong with the disk itself comes first.
    void failUnlessDamaged(std::size_t index, BackupState state, std::string const& problem) {
        if (m_disks[index].state == BackupState::Complete)
            failWith(m_disks[index], state, problem);
    }

    yx::IFileSystem* m_fileSystem;
    std::vector<BackupDisk> m_disks;
    std::vector<Link> m_links; // of the disk with the same index
    std::map<yx::CURI, std::size_t> m_indexes;
    std::set<yx::CURI> m_parts;
    std::vector<yx::CURI> m_suspects;
};

/// Without the extension, so that "day-2.vmdk" comes behind "day.vmdk".
std::string nameInOrder(BackupDisk const& disk) {
    std::string name = displayName(disk.mainFile);
    if (name.ends_with(kDiskExtension))
        name.resize(name.size() - kDiskExtension.size());
    return name;
}

/// Puts disks into the order of the list and counts what hangs together.
class Arranger {
public:
    explicit Arranger(std::vector<BackupDisk> disks)
        : m_disks(std::move(disks)), m_children(m_disks.size()), m_places(m_disks.size()) {
        for (std::size_t i = 0; i < m_disks.size(); ++i) {
            if (m_disks[i].parent)
                m_children[*m_disks[i].parent].push_back(i);
            else
                m_roots.push_back(i);
        }
        for (std::vector<std::size_t>& children : m_children)
            sort(children);
        sort(m_roots);
    }

    std::vector<BackupDisk> arrange() {
        for (std::size_t const root : m_roots)
            placeTree(root);
        placeCircles();
        assert(m_arranged.size() == m_disks.size());
        countDependents();
        return std::move(m_arranged);
    }

private:
    void sort(std::vector<std::size_t>& indexes) const {
        std::sort(indexes.begin(), indexes.end(), [this](std::size_t left, std::size_t right) {
            BackupDisk const& one = m_disks[left];
            BackupDisk const& other = m_disks[right];
            if (one.time != other.time)
                return one.time < other.time;
            return precedesByNumbers(nameInOrder(one), nameInOrder(other));
        });
    }

    /// Without recursion: a chain may be as long as somebody likes who makes descriptors by hand.
    void placeTree(std::size_t root) {
        std::vector<std::size_t> waiting{root};
        while (!waiting.empty()) {
            std::size_t const index = waiting.back();
            waiting.pop_back();
            place(index);
            std::vector<std::size_t> const& children = m_children[index];
            waiting.insert(waiting.end(), children.rbegin(), children.rend());
        }
    }

    void place(std::size_t index) {
        BackupDisk disk = m_disks[index];
        if (disk.parent) {
            disk.parent = m_places[*disk.parent];
            BackupDisk const& parent = m_arranged[*disk.parent];
            disk.parentCount = parent.parentCount + 1;
            if (disk.state == BackupState::Complete && parent.state != BackupState::Complete) {
                failWith(disk, BackupState::ParentFailing,
                         "a parent fails: " + displayName(parent.mainFile));
            }
            if (disk.state == BackupState::Complete &&
                disk.parentCount > CVMDKParentDiskDataProvider::kMaxChainDepth) {
                failWith(disk, BackupState::ParentFailing, "it has too many parents");
            }
        }
        m_places[index] = m_arranged.size();
        m_isPlaced.insert(index);
        m_arranged.push_back(std::move(disk));
    }

    /// Disks that are their own ancestors hang on no root.
    void placeCircles() {
        for (std::size_t i = 0; i < m_disks.size(); ++i) {
            if (m_isPlaced.contains(i))
                continue;
            BackupDisk disk = m_disks[i];
            disk.parent.reset();
            failWith(disk, BackupState::ParentFailing, "its parents form a circle");
            m_arranged.push_back(std::move(disk));
        }
    }

    /// Every disk stands behind its parent.
    void countDependents() {
        for (auto disk = m_arranged.rbegin(); disk != m_arranged.rend(); ++disk) {
            if (disk->parent)
                m_arranged[*disk->parent].dependentCount += disk->dependentCount + 1;
        }
    }

    std::vector<BackupDisk> m_disks;
    std::vector<std::size_t> m_roots;
    std::vector<std::vector<std::size_t>> m_children; // of the disk with the same index
    std::vector<std::size_t> m_places;                // of each disk among the arranged ones
    std::set<std::size_t> m_isPlaced;
    std::vector<BackupDisk> m_arranged;
};

} // namespace

char const* nameOf(BackupState state) {
    switch (state) {
    case BackupState::Complete:
        return "complete";
    case BackupState::Unfinished:
        return "unfinished";
    case BackupState::ParentMissing:
        return "parent missing";
    case BackupState::ParentChanged:
        return "parent changed";
    case BackupState::ParentFailing:
        return "parent failing";
    case BackupState::Damaged:
        break;
    }
    return "damaged";
}

std::vector<BackupDisk> listBackups(yx::IFileSystem* fileSystem,
                                    std::vector<yx::CURI> const& folders) {
    Collector collector(fileSystem);
    for (yx::CURI const& folder : folders)
        collector.addFolder(folder);
    return Arranger(collector.finish()).arrange();
}

} // namespace kelm::host
