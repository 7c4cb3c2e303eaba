#include "integrations/python/disk_opening.h"

#include "host/store/file_names.h"

namespace kelm::python {

namespace {

constexpr int kUsualLevel = -1;

} // namespace

std::unique_ptr<host::SafeDisk> openToRead(yx::IFileSystem* fileSystem, std::string const& path,
                                           Access const& access) {
    return std::make_unique<host::SafeDisk>(
        fileSystem, host::uriFromArgument(path), yx::IIOStream::ReadOnly, access.password.get(),
        kUsualLevel, CVMDKGrainTableCache::kDefaultLimit, access.trust);
}

} // namespace kelm::python
