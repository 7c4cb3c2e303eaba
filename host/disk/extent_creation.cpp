#include "host/disk/extent_creation.h"

#include <cassert>

#include "yx/log.h"
#include "yx/memory_file_system.h"

namespace kelm::host {

namespace {

void writeHeaderFirst(yx::IIOStream& stream, yx::TBuffer<unsigned char> const& content) {
    assert(content.getUsed() > kSectorSizeBytes);
    stream.write(content.getData(), kSectorSizeBytes, nullptr);
    stream.flush();
    stream.write(content.getData() + kSectorSizeBytes, content.getUsed() - kSectorSizeBytes,
                 nullptr);
    stream.flush();
    stream.close();
}

} // namespace

yx::TBuffer<unsigned char> makeExtentFileContent(DiskExtent const& extent,
                                                 yx::TBuffer<unsigned char> const& keyHash) {
    // Up to the end of a last grain that is cut short, which could not be read otherwise.
    __int64 const grainCount =
        (extent.getSizeBytes() + extent.grainSizeBytes - 1) / extent.grainSizeBytes;
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::TBuffer<unsigned char> zeroBuffer(static_cast<int>(extent.grainSizeBytes), -1);
    yx::initMemory(zeroBuffer.getData(), 0, static_cast<std::size_t>(zeroBuffer.getUsed()));
    createEmptyVMDKSparseExtentFile(memory.get(), extent.uri, extent.isCompressed, grainCount,
                                    extent.getGrainSizeSectors(), zeroBuffer, nullptr, 0, keyHash);
    return memory->getFile(extent.uri);
}

void createExtentFileDurably(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                             yx::TBuffer<unsigned char> const& keyHash) {
    yx::TBuffer<unsigned char> const content = makeExtentFileContent(extent, keyHash);
    try {
        writeHeaderFirst(*openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadWrite),
                         content);
    } catch (...) {
        try {
            fileSystem->deleteFile(extent.uri, true);
        } catch (yx::CError const& error) {
            yx::logWarning(error,
                           "Cannot delete the unfinished file '" + extent.uri.toString(true) + "'.",
                           "");
        }
        throw;
    }
}

yx::TBuffer<unsigned char> keyHashOf(CVMDKDisk& disk) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDescriptor();
    if (!descriptor->isEncrypted())
        return {};
    return descriptor->getYxEncryptionKeyHash();
}

void syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadWrite);
    // A stream flushes what is on its file only if it wrote there itself.
    unsigned char first = 0;
    stream->read(&first, 1);
    stream->seek(0);
    stream->write(&first, 1, nullptr);
    stream->flush();
    stream->close();
}

} // namespace kelm::host
