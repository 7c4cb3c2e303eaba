#include "host/digest/disk_digests.h"

#include "host/disk/digest_file_name.h"

namespace kelm::host {

DiskDigests DiskDigests::open(yx::IFileSystem* fileSystem, SafeDisk& disk) {
    DiskDigests digests;
    yx::CURI const uri = digestFileOf(disk.getDisk().getMainFileURI());
    if (!fileSystem->fileExists(uri))
        return digests;
    digests.file = DigestFile::open(fileSystem, uri, DigestKeys(disk.getDisk()));
    if (!digests.file)
        return digests;
    DigestHeader const& header = digests.file->getHeader();
    bool const isOfDisk = header.contentID == disk.getDisk().getDescriptor()->getContentID() &&
                          header.diskSizeBytes == disk.getSizeBytes() &&
                          header.grainSizeBytes == disk.getGrainSizeBytes();
    digests.state = isOfDisk ? DigestState::UpToDate : DigestState::OutOfDate;
    return digests;
}

} // namespace kelm::host
