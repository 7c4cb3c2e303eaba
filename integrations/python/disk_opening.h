#pragma once

#include <memory>
#include <string>

#include "host/disk/safe_disk.h"
#include "integrations/python/conversions.h"

namespace kelm::python {

/// Opens the disk that the user names for reading.
std::unique_ptr<host::SafeDisk> openToRead(yx::IFileSystem* fileSystem, std::string const& path,
                                           Access const& access);

} // namespace kelm::python
