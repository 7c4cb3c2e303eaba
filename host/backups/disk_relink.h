#pragma once

#include <memory>

#include "host/backups/durable_files.h"
#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Refuses a disk whose parent must be of another content than `parent` is: `yx::CIOError`
/// `NotAllowed` "The child was made of another content of its parent." with "uri" and "parentURI".
void verifyIsContentOfParent(yx::IFileSystem* fileSystem, yx::CURI const& child, SafeDisk& parent);

/// Hangs a disk, which nobody has open, on another parent, or on none (null), by `storeParent` and
/// `storeNoParent`. It is claimed meanwhile, and must still be a child of `oldParent`: of another
/// one it is `yx::CIOError` `IOFailure` "The disk has got another parent meanwhile." with "uri", of
/// another content the error of `verifyIsContentOfParent`.
void relinkDisk(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& child,
                SafeDisk& oldParent, SafeDisk* newParent);

/// Opens a disk for writing, for who gives it grains of its parents: what a killed attempt has left
/// dead goes first (`dropDeadTails`).
std::unique_ptr<SafeDisk> openToFill(yx::IFileSystem* fileSystem, yx::CURI const& disk,
                                     yx::String const& password, DiskTrust const& trust,
                                     CancelFlag const* cancel);

} // namespace kelm::host
