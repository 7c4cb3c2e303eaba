#pragma once

#include "yx/file_system.h"

namespace kelm::host {

/// What a file system can offer beside `yx::IFileSystem`: to give a file another name in one step.
/// Use `moveFile`, which works on every file system.
class IFileMover : public virtual yx::IBase {
public:
    /// As the function `moveFile`.
    virtual void moveFile(yx::CURI const& from, yx::CURI const& to) = 0;
};

/// Gives a file another name in its folder. A file of that name is never replaced: it is `CIOError`
/// `AlreadyExists` with "uri". A missing file is `NotFound`, with "uri" or, if it would have been
/// renamed, "path".
///
/// Files of a store (`IStore`, `yx::CNativeFileSystem`) are renamed, and so are those of an
/// `IFileMover`. Others are copied, brought to their device and only then deleted, so that a failure leaves the old file,
/// and perhaps a part of the copy.
void moveFile(yx::IFileSystem* fileSystem, yx::CURI const& from, yx::CURI const& to);

/// Moves a file out of the way, by a suffix to its name: "." and `suffix`, or that with a number
/// behind it if there is such a file. Returns the new name.
yx::CURI moveAside(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& suffix);

} // namespace kelm::host
