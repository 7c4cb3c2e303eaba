#pragma once

#include "host/disk/disk_file_system.h"

namespace kelm::host {

/// Takes the digests of a disk away before a change that leaves the disk its content ID: the disk
/// then holds grains of its own that its digests do not name, and nothing else would tell them from
/// grains that somebody has put there. A change with a new content ID needs no such care, since the
/// digests are then of another content.
class DigestRemoval {
public:
    /// `files` are those of the disk, and must outlive the object.
    explicit DigestRemoval(DiskFileSystem& files) : m_files(files) {}

    /// Takes the digests away, unless that was done before.
    void ensureDone() {
        if (m_isDone)
            return;
        m_files.deleteDigests();
        m_isDone = true;
    }

    /// Digests have been made anew.
    void renew() { m_isDone = false; }

private:
    DiskFileSystem& m_files;
    bool m_isDone = false;
};

} // namespace kelm::host
