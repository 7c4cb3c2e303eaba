#pragma once

#include "host/backups/durable_files.h"
#include "host/disk/disk_trust.h"
#include "host/system/work_options.h"
#include "yx/error.h"
#include "yx/file_system.h"

namespace kelm::host {

/// What a disk reads over its old parent cannot be known, since that cannot be opened: "The old
/// parent of the disk cannot be read." with "uri" and code -1. The cause says why.
class OldParentError : public yx::CError {
public:
    /// `cause` says why.
    OldParentError(yx::CURI const& child, yx::CError const& cause);
    std::shared_ptr<yx::CError const> clone() const override;
};

/// How a disk is to get another parent.
struct DiskRebaseOptions {
    /// Of all disks that are encrypted.
    yx::String password = {};

    /// How far descriptors are believed.
    DiskTrust trust = {};

    /// Progress is that of one step at a time: comparing, copying.
    WorkOptions work = {};
};

/// Hangs a child disk on another parent, of whatever content, so that it reads as before. What
/// differs between the parents is copied to the child first, zeros too, and flushed; then the link
/// changes (`storeParent`). The content ID stays, so the child's own children still know it.
/// Parents that both have are not read. Returns how many bytes of the disk were copied.
///
/// The disk can be read at any moment. Whoever is killed, or fails, goes on by the same call.
///
/// Errors, apart from those of opening and reading and of `ParentsRoom` and `ParentSwap`: a disk
/// without a parent, and a new parent that is the disk itself or one of its children, is
/// `yx::CIOError` `NotAllowed` "The disk has no parent.", "The new parent is the disk itself, or
/// depends on it.", each with "uri"; old parents that cannot be opened are `OldParentError`.
__int64 rebaseDisk(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& child,
                   yx::CURI const& newParent, DiskRebaseOptions const& options);

} // namespace kelm::host
