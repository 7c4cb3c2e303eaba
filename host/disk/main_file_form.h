#pragma once

#include "yx/stream.h"

namespace kelm::host {

/// Refuses what is given as a disk and is none, in words that say what it is; the library would
/// only say which part of a descriptor is missing. Each error is a `yx::CIOError` with "uri":
///
/// - a raw image, or anything else that begins with bytes of no text: `CorruptData` "The file is a
///   raw image, not a disk, or its beginning is destroyed."
/// - a text in UTF-16, as an editor may have stored it: `NotSupported` "The descriptor is stored as
///   UTF-16. Store it as UTF-8."
///
/// Sparse extents pass, and so do texts, whatever they say. The stream's position moves.
void verifyIsExtentOrText(yx::IIOStream& stream, yx::CURI const& uri);

} // namespace kelm::host
