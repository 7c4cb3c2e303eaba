#pragma once

#include "kelm/format/descriptor.h"
#include "yx/uri.h"

namespace kelm::host {

/// The key of the checksum.
inline constexpr char kDescriptorChecksumKey[] = "ddb.kelm.checksum";

/// Whether a descriptor is as its last writer among our programs left it.
enum class ChecksumState {
    Absent, ///< no such writer, or not one of ours
    Valid,
    Different, ///< other software has edited the text, or it is damaged
};

/// The descriptor of a disk of ours has a checksum over its lines, which other software ignores:
///
///     ddb.kelm.checksum = "6dcd4ce2..."              64 hexadecimal digits
///
/// It is the SHA-256 of all other lines, each with a line feed, but for what has to change, or may,
/// by a write of one sector alone:
///
/// - of the lines of "CID" and "ddb.kelm.state" it takes only the keys;
/// - of an extent line that names the very file in which the descriptor lies it does not take that
///   name, which follows the file when it is renamed or copied;
/// - it takes no comments. They mean nothing, and make up for the length of such a name.
///
/// `mainFile` is where the descriptor lies.
ChecksumState getChecksumState(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile);

/// Makes the checksum true, or adds it. Comes last of all changes to the text.
void updateChecksum(CVMDKDescriptor& descriptor, yx::CURI const& mainFile);

} // namespace kelm::host
