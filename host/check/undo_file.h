#pragma once

#include <optional>
#include <vector>

#include "yx/file_system.h"

namespace kelm::host {

/// The sectors of the files of a disk that a repair changes, as they were and as they will be. They
/// lie in a file beside the disk: with ".repairing" behind the main file's name from before the
/// first change until after the last, and with ".repaired" from then on.
///
/// Since all of it is on the device before anything is changed, a repair that was killed or lost
/// its power is undone, wherever it was, by writing the old sectors again, as often as it takes.
struct UndoFile {
    /// A sector of a file.
    struct Sector {
        /// From the start of the file.
        __int64 sector = 0;

        /// Whether it could be read. If not, or if it did not lie in the file, there is nothing to
        /// put back, and the old bytes are zeros.
        bool wasReadable = true;

        /// 512 bytes each.
        std::vector<unsigned char> before;
        std::vector<unsigned char> after;
    };

    /// A file of the disk.
    struct File {
        /// Its name, normalised.
        yx::CURI uri;

        /// Its length before the repair, in bytes.
        __int64 lengthBytes = 0;
        std::vector<Sector> sectors;
    };

    /// Those of which something was changed.
    std::vector<File> files;

    /// Where the file lies while a repair is at work, and afterwards.
    static yx::CURI nameAtWork(yx::CURI const& mainFile);
    static yx::CURI nameWhenDone(yx::CURI const& mainFile);

    /// Writes the file and brings it and its name to the device. One that is there is replaced.
    void write(yx::IFileSystem* fileSystem, yx::CURI const& file) const;

    /// Nothing if there is no such file, or if it is not whole: then nothing has been changed yet.
    static std::optional<UndoFile> tryRead(yx::IFileSystem* fileSystem, yx::CURI const& file);
};

} // namespace kelm::host
