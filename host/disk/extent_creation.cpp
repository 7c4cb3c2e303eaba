#include "host/disk/extent_creation.h"

namespace kelm::host {

void createExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                      yx::TBuffer<unsigned char> const& keyHash) {
    yx::TBuffer<unsigned char> zeroBuffer(static_cast<int>(extent.grainSizeBytes), -1);
    yx::initMemory(zeroBuffer.getData(), 0, static_cast<std::size_t>(zeroBuffer.getUsed()));
    createEmptyVMDKSparseExtentFile(fileSystem, extent.uri, extent.isCompressed,
                                    extent.getSizeBytes() / extent.grainSizeBytes,
                                    extent.getGrainSizeSectors(), zeroBuffer, nullptr, 0, keyHash);
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
