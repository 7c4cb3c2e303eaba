#pragma once

#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Gives a text descriptor room to grow, by zero bytes behind the text.
///
/// Other software often fills the file of a descriptor to the last byte and leaves the encoding
/// open. The first write to such a disk makes the text longer, and would fail. A descriptor that
/// has room already, or that lies inside an extent file, stays as it is.
void giveDescriptorRoom(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI);

/// The same for a text that is about to be stored there, and is perhaps longer.
void giveDescriptorRoomFor(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                           CVMDKDescriptor const& descriptor);

} // namespace kelm::host
