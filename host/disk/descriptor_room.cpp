#include "host/disk/descriptor_room.h"

#include "kelm/format/constants.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// An encoding line and longer content IDs.
constexpr __int64 kDescriptorRoomBytes = __int64{4} * kSectorSizeBytes;

constexpr unsigned int kLongestContentID = 0xFFFFFFFF;

/// `descriptor` may be null, for the text that is stored already.
void giveRoom(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
              CVMDKDescriptor const* descriptor) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, mainFileURI, yx::IIOStream::ReadWrite);
    CVMDKDescriptorAccessor accessor(stream.get(), yx::IIOStream::ReadWrite);
    if (accessor.getEmbeddedInSparseExtentFile())
        return;
    CVMDKDescriptor asStored = descriptor ? *descriptor : *accessor.getDescriptor();
    asStored.setEncodingUTF8();
    asStored.setContentID(kLongestContentID);
    auto const storedBytes = static_cast<__int64>(asStored.toString().toStdString().size());
    if (storedBytes < stream->getLength())
        return;
    stream->setLength(storedBytes + kDescriptorRoomBytes);
    stream->flush();
    stream->close();
}

} // namespace

void giveDescriptorRoom(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI) {
    giveRoom(fileSystem, mainFileURI, nullptr);
}

void giveDescriptorRoomFor(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                           CVMDKDescriptor const& descriptor) {
    giveRoom(fileSystem, mainFileURI, &descriptor);
}

} // namespace kelm::host
