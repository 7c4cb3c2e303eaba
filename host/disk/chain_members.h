#pragma once

#include <vector>

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// A disk or one of its parents, as its descriptor describes it.
struct ChainMember {
    /// The URI of its main file.
    yx::CURI mainFile;

    /// What the main file says of the disk. Never null.
    yx::P<CVMDKDescriptor> descriptor;

    /// In order, without gaps. The files may be missing.
    std::vector<DiskExtent> extents;
};

/// The descriptor that the main file of a disk holds. Errors are those of reading it.
yx::P<CVMDKDescriptor> readDescriptor(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);

/// The disk and its parents, the nearest first. No password is needed, since none of this is
/// enciphered. The files are reached as the disk reaches them (`SafeDisk::getFileSystem`).
///
/// The list ends before a parent that is missing or whose descriptor or first extent cannot be
/// read: who needs a grain of it gets the error that tells why. It also ends after
/// `kMaxChainLength` parents.
std::vector<ChainMember> listChainMembers(SafeDisk& disk);

} // namespace kelm::host
