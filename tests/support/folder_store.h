#pragma once

#include <atomic>
#include <string>

#include <sys/types.h>

#include "host/store/local_store.h"

namespace test_support {

/// A store of the scheme `test` whose files lie in a folder of the machine: `test:/a/b.vmdk` is the
/// file "a/b.vmdk" in it. Nothing of it shows that its files are the operating system's: no file
/// descriptors, no `file:` URIs but in the words of errors. Locks keep out other processes, too.
class FolderStore : public yx::CBase, public virtual kelm::host::IStore {
public:
    /// `folder` is a real path without a separator at its end.
    explicit FolderStore(std::string folder);

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    yx::CURI resolveName(yx::CURI const& uri) override;
    std::optional<kelm::host::FileStatus> findStatus(yx::CURI const& uri,
                                                     bool followLinks) override;
    kelm::host::FileStatus getOpenStatus(yx::IStreamBase& stream) override;
    std::vector<kelm::host::FolderEntry> listFolder(yx::CURI const& folder) override;
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override;
    void makeFolder(yx::CURI const& folder) override;
    void removeFolder(yx::CURI const& folder) override;
    void rename(yx::CURI const& from, yx::CURI const& to) override;
    void renameIfAbsent(yx::CURI const& from, yx::CURI const& to) override;
    bool tryAddName(yx::CURI const& from, yx::CURI const& to) override;
    void copyRights(yx::CURI const& from, yx::CURI const& to) override;
    void syncFolder(yx::CURI const& folder) override;
    void verifyMayWriteIn(yx::CURI const& folder) override;
    std::optional<kelm::host::StoreRoom> findRoom(yx::CURI const& folder) override;
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) override;

    /// From now on every call, and every operation on a stream, is `IOFailure` "The store was given
    /// up.", and calls that wait (`setWaiting`) end.
    void abandon() noexcept override { m_isAbandoned = true; }

    /// From now on files may have so many bytes.
    void setMaxFileLengthBytes(__int64 bytes) { m_maxFileLengthBytes = bytes; }

    /// Whether names can be added (hard links); true at first.
    void setLinks(bool areThere) { m_hasLinks = areThere; }

    /// As long as it is on, reading and writing waits until `abandon`.
    void setWaiting(bool isOn) { m_isWaiting = isOn; }

    /// From now on, whoever comes with another process than the first one, which has forked, is
    /// refused with `IOFailure`: so it is with a client that has threads.
    void keepToOneProcess() { m_isOfOneProcess = true; }

    /// For streams: throws or waits.
    void step(yx::CURI const& uri) const;

private:
    yx::CURI toLocal(yx::CURI const& uri) const;
    yx::CURI fromLocal(yx::CURI const& local) const;
    kelm::host::FileStatus own(kelm::host::FileStatus status) const;
    /// Does something, and has errors name the store's files.
    template <class Action>
    auto translated(Action const& action) const;
    void addTranslated(yx::CProps& props, yx::String const& name, yx::String const& value) const;
    yx::P<yx::IIOStream> wrap(yx::P<yx::IIOStream> stream, yx::CURI const& uri);

    std::string m_folder;
    yx::P<kelm::host::LocalStore> m_local;
    std::atomic<__int64> m_maxFileLengthBytes;
    std::atomic<bool> m_hasLinks = true;
    std::atomic<bool> m_isWaiting = false;
    std::atomic<bool> m_isAbandoned = false;
    std::atomic<bool> m_isOfOneProcess = false;
    mutable std::atomic<pid_t> m_process = 0;
};

} // namespace test_support
