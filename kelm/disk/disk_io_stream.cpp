#include "kelm/disk/disk_io_stream.h"

#include <algorithm>

#include "yx/error.h"

namespace kelm {

CVMDKDiskIOStream::CVMDKDiskIOStream(CVMDKDisk* disk) {
    construct(disk);
}

CVMDKDiskIOStream::CVMDKDiskIOStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                     yx::IIOStream::Access access, yx::String const& password) {
    constexpr int kDefaultCompressionLevel = -1;
    construct(yx::makeObject<CVMDKDisk>(fileSystem, uri, access, password, kDefaultCompressionLevel,
                                        nullptr, nullptr)
                  .get());
}

void CVMDKDiskIOStream::construct(CVMDKDisk* disk) {
    m_disk = yx::P<CVMDKDisk>(disk);
    m_uri = disk->getMainFileURI();
}

CVMDKDisk& CVMDKDiskIOStream::openDisk() const {
    if (!m_disk)
        throw yx::CIOError(yx::CIOError::Closed, "", yx::CProps(), nullptr);
    return *m_disk;
}

__int64 CVMDKDiskIOStream::getLength() const {
    return openDisk().getSizeBytes();
}

__int64 CVMDKDiskIOStream::getPosition() const {
    return openDisk().getPosition();
}

void CVMDKDiskIOStream::seek(__int64 position) {
    openDisk().seek(position);
}

yx::P<yx::IStreamLock> CVMDKDiskIOStream::lockRange(__int64, __int64, LockType) {
    // Deliberate: a closed stream makes no difference here.
    throw yx::CFileSystemError(yx::CFileSystemError::LockingNotSupported,
                               yx::CError("VMDK Disk I/O stream does not support lockRange.", "",
                                          -1, yx::CProps(), nullptr));
}

void CVMDKDiskIOStream::close() {
    m_disk.reset();
}

void CVMDKDiskIOStream::read(void* target, int sizeBytes) {
    openDisk().read(target, sizeBytes);
}

int CVMDKDiskIOStream::readLax(void* target, int sizeBytes) {
    int const available =
        static_cast<int>(std::min<__int64>(getLength() - getPosition(), sizeBytes));
    read(target, available);
    return available;
}

int CVMDKDiskIOStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool CVMDKDiskIOStream::waitReadable(int) const {
    static_cast<void>(openDisk());
    return true;
}

bool CVMDKDiskIOStream::isEndOfStream() const {
    return getLength() <= getPosition();
}

int CVMDKDiskIOStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CVMDKDiskIOStream::write(void const* source, int sizeBytes, yx::IWriteBarrier*) {
    openDisk().write(source, sizeBytes);
}

void CVMDKDiskIOStream::writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                                        yx::IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

yx::P<yx::IWriteBarrier> CVMDKDiskIOStream::createWriteBarrier(yx::IWriteBarrier*) {
    flush();
    return yx::makeObject<yx::CDummyWriteBarrier>();
}

void CVMDKDiskIOStream::flush() {
    openDisk().flushChanges();
}

void CVMDKDiskIOStream::setLength(__int64) {
    static_cast<void>(openDisk());
    throw yx::CIOError(yx::CIOError::NotSupported, "", yx::CProps(), nullptr);
}

} // namespace kelm
