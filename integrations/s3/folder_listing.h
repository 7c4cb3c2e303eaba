#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/store/store.h"
#include "integrations/s3/object_server.h"

namespace kelm::s3 {

/// What a bucket has below a folder: the objects whose keys go on behind the folder's key and a
/// separator, and folders for those in which another separator follows. In the order of their
/// bytes. Of an object and a folder of one name, the object is named; names that no URI in normal
/// form can have are left out. `yx::CIOError` `NotFound` if there is nothing, but for the bucket
/// itself.
std::vector<host::FolderEntry> listFolder(ObjectServer& server, ObjectLocation const& folder,
                                          yx::CURI const& uri);

/// The same where one answer of the server has all of the folder, be it nothing; else nothing, also
/// if the server refuses to list it.
std::optional<std::vector<host::FolderEntry>> tryListFolder(ObjectServer& server,
                                                            ObjectLocation const& folder,
                                                            yx::CURI const& uri);

/// Whether there is anything below the key as a folder. A bucket that may not be listed has none.
bool isFolder(ObjectServer& server, ObjectLocation const& location, yx::CURI const& uri);

} // namespace kelm::s3
