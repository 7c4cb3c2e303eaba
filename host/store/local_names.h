#pragma once

#include "yx/uri.h"

namespace kelm::host {

/// The text of a name's bytes. Bytes that are no UTF-8, which would come out as the name of another
/// file, are `CIOError` `NotSupported` with `message` and "name".
yx::String decodeLocalName(char const* name, char const* message);

/// The URI of a file of the operating system by its path, which may be relative to the current
/// folder. Links and ".." are resolved, in the folder alone for a file that does not exist yet. A
/// folder that does not exist, and a link to a file that does not exist, is `CIOError` `NotFound`
/// with "uri"; a real path that is no UTF-8 is as for `decodeLocalName`.
yx::CURI resolveLocalName(yx::String const& path);

} // namespace kelm::host
