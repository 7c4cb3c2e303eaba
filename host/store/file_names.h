#pragma once

#include <string>

#include "yx/uri.h"

namespace kelm::host {

/// The URI of a file that a user names: a path of the operating system, a `file:` URI, or one of
/// another store (`isStoreURI`), with the errors of `storeOf`, then. Links and ".." are resolved,
/// in the folder alone for a file that does not exist yet, so that every spelling of one file gives
/// one URI, and with it one lock file. A folder that does not exist, and a link to nowhere, is
/// `CIOError` `NotFound` with "uri" (in words of its own for an unknown scheme); a name that is no
/// UTF-8 is `NotSupported` with "name", and so is one whose real path is no UTF-8; a URI whose
/// escapes are no UTF-8 is `NotSupported` with "uri".
yx::CURI uriFromArgument(std::string const& argument);

/// The same for a file that is named by a URI: `IStore::resolveName`; only normalised where the URI
/// has no store.
yx::CURI resolveName(yx::CURI const& uri);

/// Whether two names mean one file: they are equal once normalised, or lead to the same file of a
/// store, by whatever links.
bool isSameFile(yx::CURI const& left, yx::CURI const& right);

/// Whether a name is that of something else than a regular file, links followed: a device, a pipe,
/// a folder. What does not exist is nothing else, and neither is a file of a URI without a store.
bool isOtherThanFile(yx::CURI const& uri);

/// Whether a descriptor in `folder` that says `reference` means `file`.
bool isReferenceTo(yx::CURI const& folder, yx::String const& reference, yx::CURI const& file);

/// The text by which a descriptor in `folder` refers to `file`: a relative path if `file` lies in
/// or below the folder or beside it, otherwise its URI. Read back by `vmdkFileReferenceToURI`. A
/// name whose escapes are no UTF-8 goes in as a URI, in which they stay as they are. A name may
/// begin or end with a blank, so the text is for values in quotes.
yx::String makeFileReference(yx::CURI const& folder, yx::CURI const& file);

} // namespace kelm::host
