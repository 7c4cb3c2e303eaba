#pragma once

#include "host/store/store_calls.h"

namespace kelm::host {

/// A store whose calls, and those of the streams that it opens, are noted in `StoreCalls` as long as
/// they are under way. Once calls were ended there, they fail as `StoreCalls::verifyNotEnded` says.
/// Everything else is passed on.
class WatchedStore : public yx::CBase, public virtual IStore {
public:
    /// Passes on to `store`, which must not be null.
    explicit WatchedStore(yx::P<IStore> store);

    /// The store that everything is passed to, for what it offers beyond `IStore`.
    IStore& getStore() const { return *m_store; }

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
    void abandon() noexcept override { m_store->abandon(); }

private:
    yx::P<IStore> m_store;
};

} // namespace kelm::host
