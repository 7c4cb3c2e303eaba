#include "host/transfer/direct_writing.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/grain_place.h"
#include "kelm/kelm.h"
#include "yx/access_stream.h"
#include "yx/error.h"
#include "yx/optimizing_io_stream.h"

namespace kelm::host {

namespace {

constexpr std::size_t kMaxOpenFiles = 16;

bool demandsAlignment(yx::IIOStream* stream) {
    auto* const aligned = dynamic_cast<yx::IAlignedStreamBase*>(stream);
    return aligned && (aligned->getPositionAlign() > 1 || aligned->getBufferAlign() > 1);
}

} // namespace

struct DirectWriting::Extent {
    explicit Extent(DiskExtent const& extent) : described(extent) {}

    DiskExtent described;

    /// Whether its grains can be changed here, once that is known. It stays so: what was written
    /// here is not looked for elsewhere.
    std::optional<bool> isServed;

    /// For what is written, and for the tables, since either moves its position. Null while it is
    /// not open.
    yx::P<yx::IIOStream> file;
    yx::P<yx::IIOStream> tableFile;
    yx::P<CVMDKGrainDirectory> directory;

    /// How long the file was when the directory was read.
    __int64 fileBytes = 0;

    /// Written to since it was last synced.
    bool isChanged = false;

    /// How many flushes there were when the directory was read, and with the last that brought
    /// grains of the usual road to the file.
    __int64 tablesFlush = 0;
    __int64 touchedFlush = 0;
};

DirectWriting::DirectWriting(SafeDisk& disk, int maxTables)
    : m_disk(disk),
      m_tables(yx::makeObject<CVMDKGrainTableCache>(std::max(maxTables, 1))),
      m_touched(disk.getGrainCount()),
      m_flushed(disk.getGrainCount()) {
    if (disk.getDisk().getCompressed() || disk.getDisk().isEncrypted())
        return;
    for (DiskExtent const& extent : disk.listExtents())
        m_extents.emplace_back(extent);
}

DirectWriting::~DirectWriting() = default;

bool DirectWriting::isInDisk(__int64 positionBytes, __int64 bytes) const {
    return positionBytes >= 0 && bytes > 0 && positionBytes <= m_disk.getSizeBytes() - bytes;
}

DirectWriting::Extent& DirectWriting::extentOf(__int64 grainIndex) {
    __int64 const positionBytes = grainIndex * m_disk.getGrainSizeBytes();
    auto const found = std::upper_bound(m_extents.begin(), m_extents.end(), positionBytes,
                                        [](__int64 position, Extent const& extent) {
                                            return position < extent.described.endBytes;
                                        });
    assert(found != m_extents.end() && found->described.startBytes <= positionBytes);
    return *found;
}

/// Whether the file is one of plain grains of the disk. Opens it as the library serves it.
bool DirectWriting::hasServedForm(Extent const& extent) {
    __int64 const startBytes = extent.described.startBytes;
    FileGrain const first = m_disk.getFileGrain(startBytes);
    if (!first.isGrainOfDisk || first.isCompressed)
        return false;
    // What the library refuses it refuses here.
    m_disk.isGrainWrittenHere(startBytes / m_disk.getGrainSizeBytes());
    return true;
}

bool DirectWriting::isServed(Extent& extent) {
    if (extent.isServed)
        return *extent.isServed;
    __int64 const startBytes = extent.described.startBytes;
    if (m_disk.findMissingEnd(startBytes) > startBytes)
        return false;
    try {
        extent.isServed = hasServedForm(extent);
        if (*extent.isServed)
            openFile(extent);
    } catch (yx::CError const& error) {
        // The usual road meets it too.
        error.nop();
        extent.isServed = false;
    }
    if (!*extent.isServed)
        return false;
    extent.isServed = extent.directory && !demandsAlignment(extent.file.get());
    return *extent.isServed;
}

void DirectWriting::openFile(Extent& extent) {
    if (extent.directory && m_open.front() == &extent)
        return;
    m_open.remove(&extent);
    if (!extent.file) {
        makeRoomForFile();
        unsigned int reserved = 0;
        extent.file = m_disk.getFileSystem()->openFile(extent.described.uri,
                                                       yx::IIOStream::ReadWrite, &reserved);
    }
    m_open.push_front(&extent);
    if (!extent.directory)
        readTables(extent);
}

/// Closes what was not used for longest.
void DirectWriting::makeRoomForFile() {
    while (m_open.size() >= kMaxOpenFiles) {
        Extent& oldest = *m_open.back();
        if (oldest.isChanged)
            oldest.file->flush();
        oldest.isChanged = false;
        oldest.directory.reset();
        oldest.tableFile.reset();
        oldest.file.reset();
        m_open.pop_back();
    }
}

/// Reads header and directory; tables come when they are needed.
void DirectWriting::readTables(Extent& extent) {
    extent.directory.reset();
    unsigned int reserved = 0;
    extent.tableFile =
        m_disk.getFileSystem()->openFile(extent.described.uri, yx::IIOStream::ReadOnly, &reserved);
    yx::P<yx::IIOStream> const stream =
        yx::makeObject<yx::COptimizingIOStream>(extent.tableFile.get());
    CVMDKSparseExtentHeader header;
    yx::CDataInStream in(stream.get());
    header.load(in);
    bool const isPlain =
        !header.isCompressed() && !header.isEncrypted() &&
        header.getGrainSizeSectors() ==
            static_cast<unsigned long long>(m_disk.getGrainSizeBytes() / kSectorSizeBytes);
    if (!isPlain) {
        throw yx::CIOError(yx::CIOError::NotSupported, "The extent is not like the others.",
                           yx::CProps().add("uri", extent.described.uri.toString(true)), nullptr);
    }
    extent.fileBytes = extent.tableFile->getLength();
    extent.directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), yx::IIOStream::ReadOnly,
                                                           header, m_tables.get());
    extent.tablesFlush = m_flushCount;
}

/// Where the file has a grain; 0 if it has none, or not all of it.
__int64 DirectWriting::findPlace(Extent& extent, __int64 grainIndex) {
    __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
    __int64 posSectors = 0;
    __int64 slotSizeSectors = 0;
    extent.directory->getGrainInfo(grainIndex - extent.described.getStartGrainIndex(), posSectors,
                                   slotSizeSectors);
    bool const isWhole = posSectors > 0 && slotSizeSectors * kSectorSizeBytes >= grainSizeBytes &&
                         posSectors <= (extent.fileBytes - grainSizeBytes) / kSectorSizeBytes;
    return isWhole ? posSectors * kSectorSizeBytes : 0;
}

DirectWriting::Stretch DirectWriting::findGrain(__int64 grainIndex) {
    bool const isWhole = (grainIndex + 1) * m_disk.getGrainSizeBytes() <= m_disk.getSizeBytes();
    if (m_extents.empty() || !isWhole || m_touched.contains(grainIndex))
        return {};
    Extent& extent = extentOf(grainIndex);
    if (!isServed(extent))
        return {};
    openFile(extent);
    __int64 place = findPlace(extent, grainIndex);
    if (place == 0 && extent.tablesFlush < extent.touchedFlush && m_flushed.contains(grainIndex)) {
        readTables(extent);
        place = findPlace(extent, grainIndex);
    }
    if (place == 0)
        return {};
    return {&extent, place, m_disk.getGrainSizeBytes()};
}

/// As long as it can be.
DirectWriting::Stretch DirectWriting::findStretch(__int64 positionBytes, __int64 maxBytes) {
    __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
    __int64 const inGrain = positionBytes % grainSizeBytes;
    __int64 grain = positionBytes / grainSizeBytes;
    Stretch stretch = findGrain(grain);
    stretch.positionInFile += inGrain;
    stretch.bytes = grainSizeBytes - inGrain;
    while (stretch.bytes < maxBytes) {
        Stretch const next = findGrain(++grain);
        if (next.extent != stretch.extent ||
            (next.extent && next.positionInFile != stretch.positionInFile + stretch.bytes))
            break;
        stretch.bytes += grainSizeBytes;
    }
    stretch.bytes = std::min(stretch.bytes, maxBytes);
    return stretch;
}

void DirectWriting::readStretch(Stretch const& stretch, __int64 positionBytes,
                                unsigned char* target) {
    try {
        stretch.extent->file->seek(stretch.positionInFile);
        stretch.extent->file->read(target, static_cast<int>(stretch.bytes));
    } catch (yx::CIOError& error) {
        addGrainPlace(error, m_disk, positionBytes / m_disk.getGrainSizeBytes());
        throw;
    }
}

void DirectWriting::writeStretch(Stretch const& stretch, unsigned char const* source) {
    m_disk.beginDirectChange();
    stretch.extent->isChanged = true;
    stretch.extent->file->seek(stretch.positionInFile);
    stretch.extent->file->write(source, static_cast<int>(stretch.bytes), nullptr);
}

/// In one grain. Changes nothing where there are zeros already.
void DirectWriting::zeroStretch(Stretch const& stretch, __int64 positionBytes) {
    auto const size = static_cast<std::size_t>(stretch.bytes);
    m_present.setUsed(static_cast<int>(stretch.bytes));
    readStretch(stretch, positionBytes, m_present.getData());
    if (yx::isAllZero(m_present.getData(), size))
        return;
    m_zeros.setUsed(static_cast<int>(stretch.bytes));
    yx::initMemory(m_zeros.getData(), 0, size);
    writeStretch(stretch, m_zeros.getData());
}

/// Comes before a change on the usual road, which may be done in part.
void DirectWriting::noteUsual(__int64 positionBytes, __int64 bytes) {
    if (m_extents.empty())
        return;
    __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
    __int64 const lastGrain = (positionBytes + bytes - 1) / grainSizeBytes;
    for (__int64 grain = positionBytes / grainSizeBytes; grain <= lastGrain; ++grain)
        m_touched.add(grain);
    m_hasTouched = true;
}

void DirectWriting::settleTouched() {
    ++m_flushCount;
    if (!m_hasTouched)
        return;
    for (__int64 grain = m_touched.findNext(0); grain < m_touched.getGrainCount();
         grain = m_touched.findNext(grain + 1)) {
        m_flushed.add(grain);
        extentOf(grain).touchedFlush = m_flushCount;
    }
    m_touched.clear();
    m_hasTouched = false;
}

void DirectWriting::read(__int64 positionBytes, void* buffer, int bytes) {
    if (m_extents.empty() || !isInDisk(positionBytes, bytes)) {
        readWithGrainPlace(m_disk, positionBytes, buffer, bytes);
        return;
    }
    auto* target = static_cast<unsigned char*>(buffer);
    for (__int64 left = bytes; left > 0;) {
        Stretch const stretch = findStretch(positionBytes, left);
        if (stretch.extent)
            readStretch(stretch, positionBytes, target);
        else
            readWithGrainPlace(m_disk, positionBytes, target, static_cast<int>(stretch.bytes));
        positionBytes += stretch.bytes;
        target += stretch.bytes;
        left -= stretch.bytes;
    }
}

void DirectWriting::write(__int64 positionBytes, void const* buffer, int bytes) {
    if (m_extents.empty() || !isInDisk(positionBytes, bytes)) {
        m_disk.write(positionBytes, buffer, bytes);
        return;
    }
    auto const* source = static_cast<unsigned char const*>(buffer);
    for (__int64 left = bytes; left > 0;) {
        Stretch const stretch = findStretch(positionBytes, left);
        if (stretch.extent) {
            writeStretch(stretch, source);
        } else {
            noteUsual(positionBytes, stretch.bytes);
            m_disk.write(positionBytes, source, static_cast<int>(stretch.bytes));
        }
        positionBytes += stretch.bytes;
        source += stretch.bytes;
        left -= stretch.bytes;
    }
}

void DirectWriting::writeZeros(__int64 positionBytes, __int64 bytes) {
    if (m_extents.empty() || !isInDisk(positionBytes, bytes)) {
        m_disk.writeZeros(positionBytes, bytes);
        return;
    }
    __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
    while (bytes > 0) {
        __int64 const inGrain = grainSizeBytes - positionBytes % grainSizeBytes;
        Stretch const stretch = findStretch(positionBytes, std::min(bytes, inGrain));
        if (stretch.extent) {
            zeroStretch(stretch, positionBytes);
        } else {
            noteUsual(positionBytes, stretch.bytes);
            m_disk.writeZeros(positionBytes, stretch.bytes);
        }
        positionBytes += stretch.bytes;
        bytes -= stretch.bytes;
    }
}

void DirectWriting::flush() {
    m_disk.flush();
    settleTouched();
    for (Extent* const extent : m_open) {
        if (extent->isChanged)
            extent->file->flush();
        extent->isChanged = false;
    }
}

} // namespace kelm::host
