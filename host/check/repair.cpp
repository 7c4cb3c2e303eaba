#include "host/check/repair.h"

#include <algorithm>
#include <cassert>

#include "host/check/extent_repair.h"
#include "host/check/undo_file.h"
#include "host/disk/disk_file_system.h"
#include "host/disk/disk_layout.h"
#include "host/disk/expected_extent.h"
#include "host/disk/extent_creation.h"
#include "host/disk/header_overlay.h"
#include "host/disk/readable_sectors.h"
#include "host/store/file_moving.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

yx::CProps repairProps(yx::CURI const& uri) {
    return yx::CProps().add("uri", uri.toString(true));
}

/// The files of a disk, held alone.
class LockedDisk {
public:
    LockedDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, DiskTrust trust)
        : m_fileSystem(fileSystem), m_uri(uri.toNormalized()) {
        if (!fileSystem->fileExists(uri)) {
            throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.", repairProps(uri),
                               nullptr);
        }
        // A damaged header may name grains of any size, and an unfinished disk can be damaged too.
        trust.allowOversize = true;
        trust.unfinished = UnfinishedDisks::InChain;
        m_files = yx::makeObject<DiskFileSystem>(yx::makeObject<HeaderOverlay>(fileSystem).get(),
                                                 m_uri, yx::IIOStream::ReadWrite, trust);
        m_lock = yx::makeObject<yx::CLockFile>(m_files.get(), CVMDKDisk::getLockFileURI(m_uri),
                                               yx::CLockFile::Exclusive, false, true);
        yx::P<yx::IIOStream> const stream =
            openVMDKFileStream(m_files.get(), m_uri, yx::IIOStream::ReadOnly);
        descriptor = CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
        extents = listDescribedExtents(*descriptor, m_uri, kSectorSizeBytes, false);
        for (DiskExtent const& extent : extents) {
            // Taken under the eyes of the rules for what a disk may reach, and locked.
            if (m_files->fileExists(extent.uri))
                openVMDKFileStream(m_files.get(), extent.uri, yx::IIOStream::ReadOnly);
        }
        __int64 const grainSizeBytes = findGrainSizeBytes();
        for (DiskExtent& extent : extents)
            extent.grainSizeBytes = grainSizeBytes;
    }

    /// A stream on the file as it is, without what is shown in the place of a lost header.
    yx::P<yx::IIOStream> open(yx::CURI const& file, yx::IIOStream::Access access) const {
        unsigned int options = yx::IFileSystem::DoNotMakeFile;
        if (access == yx::IIOStream::ReadOnly)
            options = 0;
        yx::P<yx::IIOStream> stream = m_fileSystem->openFile(file, access, &options);
        if (dynamic_cast<yx::IAlignedStreamBase*>(stream.get()))
            return yx::makeObject<yx::COptimizingIOStream>(stream.get());
        return stream;
    }

    bool isThere(yx::CURI const& file) const { return m_files->fileExists(file); }

    /// Whether the disk has such a file.
    bool hasFile(yx::CURI const& file) const {
        return file == m_uri ||
               std::any_of(extents.begin(), extents.end(),
                           [&](DiskExtent const& extent) { return extent.uri == file; });
    }

    yx::CURI const& getMainFile() const { return m_uri; }

    yx::P<CVMDKDescriptor> descriptor;
    std::vector<DiskExtent> extents;

private:
    /// By the first header that is to be had.
    __int64 findGrainSizeBytes() const {
        for (DiskExtent const& extent : extents) {
            if (!isThere(extent.uri))
                continue;
            yx::P<yx::IIOStream> const stream = open(extent.uri, yx::IIOStream::ReadOnly);
            if (auto const header = findHeader(*stream, expectExtent(*descriptor, m_uri, extent)))
                return static_cast<__int64>(header->getGrainSizeSectors()) * kSectorSizeBytes;
        }
        return __int64{kNewDiskGrainSizeSectors} * kSectorSizeBytes;
    }

    yx::IFileSystem* m_fileSystem;
    yx::CURI m_uri;
    yx::P<DiskFileSystem> m_files;
    yx::P<yx::CLockFile> m_lock;
};

/// Writes sectors of a file and brings them to the device. Whole runs go in one write.
void writeSectors(yx::IIOStream& stream, std::vector<UndoFile::Sector> const& sectors,
                  std::vector<unsigned char> UndoFile::Sector::*bytes) {
    for (UndoFile::Sector const& sector : sectors) {
        stream.seek(sector.sector * kSectorSizeBytes);
        stream.write((sector.*bytes).data(), kSectorSizeBytes, nullptr);
    }
    stream.flush();
}

/// Brings back what was there, which is the right thing after any number of attempts.
__int64 rollBack(LockedDisk const& disk, UndoFile const& undo) {
    __int64 count = 0;
    for (UndoFile::File const& file : undo.files) {
        if (!disk.hasFile(file.uri)) {
            throw yx::CIOError(yx::CIOError::NotAllowed,
                               "The copy of the repair is not of this disk.", repairProps(file.uri),
                               nullptr);
        }
        yx::P<yx::IIOStream> const stream = disk.open(file.uri, yx::IIOStream::ReadWrite);
        std::vector<UndoFile::Sector> known;
        std::copy_if(file.sectors.begin(), file.sectors.end(), std::back_inserter(known),
                     [&](UndoFile::Sector const& sector) {
                         return sector.wasReadable &&
                                sector.sector * kSectorSizeBytes < file.lengthBytes;
                     });
        writeSectors(*stream, known, &UndoFile::Sector::before);
        if (stream->getLength() != file.lengthBytes)
            stream->setLength(file.lengthBytes);
        stream->flush();
        stream->close();
        count += static_cast<__int64>(known.size());
    }
    return count;
}

/// Undoes a repair that did not come to its end, and removes what is left of its copy.
void undoBrokenOff(yx::IFileSystem* fileSystem, LockedDisk const& disk) {
    yx::CURI const name = UndoFile::nameAtWork(disk.getMainFile());
    if (std::optional<UndoFile> const undo = UndoFile::tryRead(fileSystem, name))
        rollBack(disk, *undo);
    fileSystem->deleteFile(name, true);
}

/// A repair cuts nothing off, and gives back an end that was lost.
__int64 lengthAfterRepair(UndoFile::File const& file) {
    __int64 lengthBytes = file.lengthBytes;
    for (UndoFile::Sector const& sector : file.sectors)
        lengthBytes = std::max(lengthBytes, (sector.sector + 1) * kSectorSizeBytes);
    return lengthBytes;
}

bool isAsRepaired(yx::IIOStream& stream, UndoFile::File const& file) {
    // What has been added since would be cut off.
    return stream.getLength() == lengthAfterRepair(file) &&
           std::all_of(
               file.sectors.begin(), file.sectors.end(), [&](UndoFile::Sector const& sector) {
                   return readReadableSectors(stream, sector.sector, 1).bytes == sector.after;
               });
}

void verifyIsUnchanged(LockedDisk const& disk, UndoFile const& undo) {
    for (UndoFile::File const& file : undo.files) {
        if (!isAsRepaired(*disk.open(file.uri, yx::IIOStream::ReadOnly), file)) {
            throw yx::CIOError(yx::CIOError::NotAllowed,
                               "The disk has been changed since its repair.", repairProps(file.uri),
                               nullptr);
        }
    }
}

UndoFile::File noteChanges(yx::CURI const& uri, yx::IIOStream& stream, ExtentRepair const& repair) {
    UndoFile::File file;
    file.uri = uri;
    file.lengthBytes = stream.getLength();
    for (auto const& [number, bytes] : repair.sectors) {
        UndoFile::Sector sector;
        sector.sector = number;
        sector.after = bytes;
        ReadableSectors const before = readReadableSectors(stream, number, 1);
        sector.wasReadable = before.isReadable.front();
        sector.before = before.bytes;
        // The last sector of a file may be a part of one.
        __int64 const restBytes = file.lengthBytes - number * kSectorSizeBytes;
        if (restBytes > 0 && restBytes < kSectorSizeBytes) {
            stream.seek(number * kSectorSizeBytes);
            stream.read(sector.before.data(), static_cast<int>(restBytes));
            sector.wasReadable = true;
        }
        file.sectors.push_back(std::move(sector));
    }
    return file;
}

void apply(yx::IFileSystem* fileSystem, LockedDisk const& disk, UndoFile const& undo) {
    yx::CURI const atWork = UndoFile::nameAtWork(disk.getMainFile());
    yx::CURI const done = UndoFile::nameWhenDone(disk.getMainFile());
    undo.write(fileSystem, atWork);
    for (UndoFile::File const& file : undo.files) {
        yx::P<yx::IIOStream> const stream = disk.open(file.uri, yx::IIOStream::ReadWrite);
        writeSectors(*stream, file.sectors, &UndoFile::Sector::after);
        stream->close();
    }
    fileSystem->deleteFile(done, true);
    moveFile(fileSystem, atWork, done);
    syncFile(fileSystem, done);
}

} // namespace

bool RepairReport::hasMended() const {
    return std::any_of(files.begin(), files.end(),
                       [](FileRepair const& file) { return !file.mended.empty(); });
}

bool RepairReport::hasLeft() const {
    return std::any_of(files.begin(), files.end(),
                       [](FileRepair const& file) { return !file.left.empty(); });
}

RepairReport repairDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                        yx::String const& password, RepairOptions const& options) {
    LockedDisk const disk(fileSystem, uri, options.trust);
    DiskKey const key = unwrapDiskKey(*disk.descriptor, disk.getMainFile(), password);
    bool const isBrokenOff = fileSystem->fileExists(UndoFile::nameAtWork(disk.getMainFile()));
    if (isBrokenOff && !options.isDryRun)
        undoBrokenOff(fileSystem, disk);
    bool const isOnDemand = disk.descriptor->getYxCreateExtentFilesOnDemand();
    RepairReport report;
    UndoFile undo;
    for (DiskExtent const& extent : disk.extents) {
        FileRepair said{extent.uri, {}, {}};
        if (disk.isThere(extent.uri)) {
            yx::P<yx::IIOStream> const stream = disk.open(extent.uri, yx::IIOStream::ReadOnly);
            RepairedExtent const known{expectExtent(*disk.descriptor, disk.getMainFile(), extent),
                                       extent.getStartGrainIndex(), key};
            ExtentRepair repair = planExtentRepair(*stream, known, options.cancel);
            said.mended = std::move(repair.mended);
            said.left = std::move(repair.left);
            if (!repair.sectors.empty())
                undo.files.push_back(noteChanges(extent.uri, *stream, repair));
        } else if (!isOnDemand) {
            said.left.emplace_back("the file is missing");
        }
        if (!said.mended.empty() || !said.left.empty())
            report.files.push_back(std::move(said));
    }
    if (!options.isDryRun && !undo.files.empty())
        apply(fileSystem, disk, undo);
    return report;
}

__int64 undoRepair(yx::IFileSystem* fileSystem, yx::CURI const& uri, DiskTrust const& trust) {
    LockedDisk const disk(fileSystem, uri, trust);
    yx::CURI const atWork = UndoFile::nameAtWork(disk.getMainFile());
    yx::CURI const done = UndoFile::nameWhenDone(disk.getMainFile());
    if (fileSystem->fileExists(atWork)) {
        std::optional<UndoFile> const undo = UndoFile::tryRead(fileSystem, atWork);
        __int64 const count = undo ? rollBack(disk, *undo) : 0;
        // A part of the copy, where names cannot be changed in one step.
        if (!UndoFile::tryRead(fileSystem, done))
            fileSystem->deleteFile(done, true);
        fileSystem->deleteFile(atWork, true);
        return count;
    }
    std::optional<UndoFile> const undo = UndoFile::tryRead(fileSystem, done);
    if (!undo) {
        throw yx::CIOError(yx::CIOError::NotFound, "No repair of the disk can be undone.",
                           repairProps(uri), nullptr);
    }
    verifyIsUnchanged(disk, *undo);
    // From here on it is a repair that did not come to its end.
    moveFile(fileSystem, done, atWork);
    syncFile(fileSystem, atWork);
    __int64 const count = rollBack(disk, *undo);
    fileSystem->deleteFile(atWork, true);
    return count;
}

} // namespace kelm::host
