#pragma once

#include "host/store/store.h"

namespace kelm::host {

/// The files of the operating system, named by `file:` URIs. Opens, looks and deletes as
/// `yx::CNativeFileSystem` does; what else fails is what `throwSystemError` makes of it, with
/// "path".
class LocalStore : public yx::CBase, public virtual IStore {
public:
    LocalStore();

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    yx::CURI resolveName(yx::CURI const& uri) override;
    std::optional<FileStatus> findStatus(yx::CURI const& uri, bool followLinks) override;
    FileStatus getOpenStatus(yx::IStreamBase& stream) override;
    std::vector<FolderEntry> listFolder(yx::CURI const& folder) override;
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override;
    void makeFolder(yx::CURI const& folder) override;
    void removeFolder(yx::CURI const& folder) override;
    void rename(yx::CURI const& from, yx::CURI const& to) override;
    void renameIfAbsent(yx::CURI const& from, yx::CURI const& to) override;
    bool tryAddName(yx::CURI const& from, yx::CURI const& to) override;
    void copyRights(yx::CURI const& from, yx::CURI const& to) override;
    void syncFolder(yx::CURI const& folder) override;
    void verifyMayWriteIn(yx::CURI const& folder) override;
    std::optional<StoreRoom> findRoom(yx::CURI const& folder) override;
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) override;
    void abandon() noexcept override {}

private:
    yx::P<yx::IFileSystem> m_files;
};

} // namespace kelm::host
