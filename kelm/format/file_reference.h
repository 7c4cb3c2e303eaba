#pragma once

#include "kelm/export.h"
#include "yx/uri.h"

namespace kelm {

/// The normalised URI of the file that a descriptor names: the file of an extent line, or a child
/// disk's hint of its parent. `baseFolder` is the folder of the file that holds the reference.
///
/// The form of the text decides how it is read, never the system that the library runs on, since a
/// descriptor travels between systems: a drive letter with a separator makes a Windows path, a
/// colon before any separator a URI, a backslash anywhere a Windows path, and all else is a Unix
/// path. Relative references are resolved against `baseFolder`.
///
/// Throws what `yx::CURI` throws on bad URI text, and `yx::CBadPathError` for a path that leads
/// above its root where the path has to be normalised to be valid.
KELM_API yx::CURI vmdkFileReferenceToURI(yx::CURI const& baseFolder, yx::String const& reference);

} // namespace kelm
