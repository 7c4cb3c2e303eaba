#include "host/backups/disk_relink.h"

#include "host/backups/disk_claims.h"
#include "host/backups/disk_parts.h"
#include "host/disk/dead_tails.h"
#include "host/store/file_names.h"

namespace kelm::host {

void verifyIsContentOfParent(yx::IFileSystem* fileSystem, yx::CURI const& child, SafeDisk& parent) {
    CVMDKDescriptor const descriptor = readDescriptorFile(fileSystem, child).parse();
    if (descriptor.getParentContentID() == parent.getDisk().getDescriptor()->getContentID())
        return;
    throw yx::CIOError(
        yx::CIOError::NotAllowed, "The child was made of another content of its parent.",
        yx::CProps()
            .add("uri", child.toString(true))
            .add("parentURI", parent.getDisk().getMainFileURI().toNormalized().toString(true)),
        nullptr);
}

void relinkDisk(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& child,
                SafeDisk& oldParent, SafeDisk* newParent) {
    DiskClaims claims(fileSystem);
    claims.add(readDiskParts(fileSystem, child));
    // Only now nobody changes it any more.
    DiskParts const parts = readDiskParts(fileSystem, child);
    if (!isSameFile(parts.parentFile, oldParent.getDisk().getMainFileURI())) {
        throw yx::CIOError(yx::CIOError::IOFailure, "The disk has got another parent meanwhile.",
                           yx::CProps().add("uri", child.toString(true)), nullptr);
    }
    verifyIsContentOfParent(fileSystem, child, oldParent);
    if (!newParent) {
        storeNoParent(steps, parts.descriptor);
        return;
    }
    CVMDKDisk& parent = newParent->getDisk();
    storeParent(steps, parts.descriptor,
                makeFileReference(child.getParent(), parent.getMainFileURI()),
                parent.getDescriptor()->getContentID());
}

std::unique_ptr<SafeDisk> openToFill(yx::IFileSystem* fileSystem, yx::CURI const& disk,
                                     yx::String const& password, DiskTrust const& trust,
                                     CancelFlag const* cancel) {
    auto const open = [&] {
        return std::make_unique<SafeDisk>(fileSystem, disk, yx::IIOStream::ReadWrite, password, -1,
                                          CVMDKGrainTableCache::kDefaultLimit, trust);
    };
    std::unique_ptr<SafeDisk> opened = open();
    if (dropDeadTails(*opened, cancel)) {
        opened.reset();
        opened = open();
    }
    return opened;
}

} // namespace kelm::host
