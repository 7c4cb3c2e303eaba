#pragma once

#include "yx/stream.h"

namespace kelm::host {

/// Gives a compressed extent the trail that must end its file, at a sector boundary: footer marker,
/// copy of the header, end-of-stream marker. A file that was cut off within a sector would
/// otherwise stay as it is until a grain is added, since the library puts the trail behind the last
/// byte.
///
/// A trail that stands in the wrong place moves to the next sector boundary. Where there is no
/// trail, one is written behind all that the file holds; nothing else is overwritten or removed.
/// Extents that are not compressed have no trail and stay as they are.
///
/// Returns whether the file was changed; if so, the change is on the device. The stream is open for
/// writing, and nobody else uses the file. Errors of the stream pass, as does a header that cannot
/// be read.
bool repairTrail(yx::IIOStream& stream);

} // namespace kelm::host
