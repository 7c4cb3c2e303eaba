#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "host/backups/durable_files.h"
#include "host/system/file_identity.h"
#include "yx/file_system.h"

namespace kelm::host {

/// A note beside a disk of what is being done with its files, so that who was killed over it can go
/// on. It is a file of text with the main file's name and ".moving", ".deleting" or ".copying" behind it:
///
///     kelm moving 1
///     main 2049 131077 1795000000 12345               which file the main file was, and of which
///                                                     store, if not the operating system's
///     file file:///a/disk.vmdk file:///b/day.vmdk     for each file, the main file first
///     end
///
/// A note without its end is none: nothing is begun before the note is whole.
struct DiskNote {
    /// What is being done.
    enum class Work {
        Moving,   ///< the disk gets another name
        Deleting, ///< the disk, perhaps with its children, goes
        Copying,  ///< the disk comes into being as a copy of another one
    };

    /// What this note is about.
    Work work = Work::Moving;

    /// Which file the main file was when the work began; of the other disk, if that is copied.
    FileIdentity mainIdentity = {};

    /// The names of each file of the disk, now and then; the latter are empty where files are
    /// deleted, and those of the other disk where that is copied.
    std::vector<std::pair<yx::CURI, yx::CURI>> files = {};

    /// Where a note on the disk lies.
    static yx::CURI nameFor(yx::CURI const& mainFile, Work work);

    /// The note on a disk; nothing if there is none.
    static std::optional<DiskNote> tryRead(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                                           Work work);

    /// Brings it to the device, with the rights of the disk's main file. A note that is there is
    /// replaced.
    void write(DurableFiles& steps) const { write(steps, files.front().first); }

    /// The same, with the rights of another file.
    void write(DurableFiles& steps, yx::CURI const& like) const;

    /// Takes it away.
    void remove(DurableFiles& steps) const;

    /// What to tell people who use the disk; empty if nothing is being done with it.
    static yx::String describe(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);
};

} // namespace kelm::host
