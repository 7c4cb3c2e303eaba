#include "kelm/extent/low_level_file_stream.h"

namespace kelm {

namespace {

yx::P<yx::IIOStream> openFile(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                              yx::IIOStream::Access access) {
    unsigned int reserved = 0;
    return fileSystem->openFile(uri, access, &reserved);
}

} // namespace

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                                 yx::IIOStream::Access access)
    : yx::COptimizingIOStream(openFile(fileSystem, uri, access).get()) {}

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(CVMDKLowLevelFileStream const&) = default;
CVMDKLowLevelFileStream& CVMDKLowLevelFileStream::operator=(CVMDKLowLevelFileStream const&) =
    default;

void CVMDKLowLevelFileStream::close() {
    yx::COptimizingInStream::close();
}

yx::P<yx::IIOStream> openVMDKFileStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                        yx::IIOStream::Access access) {
    return yx::makeObject<CVMDKLowLevelFileStream>(fileSystem, uri, access);
}

} // namespace kelm
