#pragma once

#include <string>

#include "yx/stream.h"

namespace kelm::host {

/// What stands behind the name of a file that is not complete yet, whatever it holds by then.
inline constexpr char kUnfinishedFileSuffix[] = ".kelm-part";

/// Whether a file looks like the main file of a disk: a sparse extent, or a descriptor text. False
/// for a file that cannot be read, for all that is no regular file, and for one whose name ends in
/// `kUnfinishedFileSuffix`.
bool isDiskMainFile(std::string const& path);

/// The same for the file of a URI, in any store; false for a URI without one.
bool isDiskMainFile(yx::CURI const& uri);

/// The same for an open file, whatever its name. The position moves.
bool isDiskMainFile(yx::IInStream& stream);

/// What a file takes on its file system, in bytes.
struct FileUse {
    /// Whether the file is there; if not, the sizes are 0.
    bool exists = false;

    /// With the holes.
    __int64 lengthBytes = 0;

    /// Without the holes.
    __int64 allocatedBytes = 0;
};

/// Asks a file's store about it. What cannot be asked counts as missing.
FileUse measureFile(yx::CURI const& uri);

} // namespace kelm::host
