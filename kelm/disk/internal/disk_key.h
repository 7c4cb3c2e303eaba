#pragma once

#include "kelm/format/descriptor.h"
#include "yx/buffer.h"

namespace kelm {

/// Draws a new disk key, wraps it under the password, and enters all that an opening needs of it
/// into the descriptor. Returns the hash of the key, which the extent files carry too; the key
/// itself is dropped.
yx::TBuffer<unsigned char> addNewDiskKey(CVMDKDescriptor& descriptor, yx::String const& password);

} // namespace kelm
