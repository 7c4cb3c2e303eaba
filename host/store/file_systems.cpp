#include "host/store/file_systems.h"

#include <cassert>

#include "host/store/stores.h"
#include "yx/native_file_system.h"

namespace kelm::host {

FileSystems::FileSystems() : FileSystems(yx::makeObject<yx::CNativeFileSystem>()) {}

FileSystems::FileSystems(yx::P<yx::IFileSystem> local) : m_local(std::move(local)) {
    assert(m_local);
}

yx::IFileSystem& FileSystems::find(yx::CURI const& uri) const {
    if (uri.getScheme() == "file")
        return *m_local;
    return storeOf(uri);
}

yx::P<yx::IIOStream> FileSystems::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                           unsigned int* options) {
    return find(uri).openFile(uri, access, options);
}

bool FileSystems::fileExists(yx::CURI const& uri) {
    return find(uri).fileExists(uri);
}

void FileSystems::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    find(uri).deleteFile(uri, ignoreMissing);
}

void FileSystems::moveFile(yx::CURI const& from, yx::CURI const& to) {
    host::moveFile(&find(from), from, to);
}

} // namespace kelm::host
