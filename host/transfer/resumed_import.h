#pragma once

#include <string>

#include "host/disk/safe_disk.h"
#include "host/transfer/raw_source.h"

namespace kelm::host {

/// Which image a disk is made of, for its record; "" for a pipe, for standard input ("-"), and for a
/// name that is too long.
std::string nameOfImage(std::string const& image, RawSource const& source);

/// An import that goes on where another one was killed.
struct ResumedImport {
    /// The image, as `RawSource` takes it.
    std::string image;

    /// How many bytes the user says that it has; -1 for none.
    __int64 sizeBytes = -1;

    /// The parent that the user says the disk has; empty for none.
    yx::CURI parent = {};

    /// Refuses to mix two images in one disk, as far as its record tells them apart, and a disk that
    /// is complete: `yx::CInvalidArgError`, in words for the user. `source` is the image.
    void verifyIsOf(SafeDisk& disk, RawSource const& source) const;
};

/// How large the image is that an unfinished disk was being made for; the size of the disk where its
/// record does not say.
__int64 getRecordedImageBytes(SafeDisk& disk);

} // namespace kelm::host
