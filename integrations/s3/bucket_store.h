#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/store/store.h"
#include "host/store/store_upload.h"
#include "integrations/s3/object_content.h"

namespace kelm::s3 {

/// The objects of buckets, `s3://BUCKET/KEY`, and of web servers, `https://HOST/PATH`, for reading
/// only; to buckets whole files can be uploaded. See `locate` for names and `readServerSettings`
/// for the settings, which are read when the first request is to be sent. Nothing is connected
/// before.
///
/// - Lock files cannot be made, and ranges not be locked: nothing keeps an object as it is while it
///   is read. But one that is replaced is noticed, and no bytes of two objects are mixed.
/// - All that would change something is `CIOError` `AccessDenied` "The store is for reading only."
/// - Names are those of URIs in normal form; there are no links. What has "/" behind it in the key
///   of another object is a folder. `https` has no folders, and does not list: `NotSupported`.
/// - An object that the server refuses to those who may not list the bucket, as it does where there
///   is none, is opened with `AccessDenied`, and there is none for `fileExists` and `findStatus`.
///   What it says of wrong keys is `AccessDenied` there too.
/// - What the server says of a name counts for two seconds (`RecentVersions`). Where a name in a
///   bucket is missing, its folder is listed, so that the next missing one is known to be missing.
/// - A process that was forked off connects anew. Streams that it was given are of no use to it:
///   `NotSupported`.
class CBucketStore : public yx::CBase, public virtual host::IStore, public host::IStoreUpload {
public:
    /// With the settings of the environment.
    CBucketStore();

    /// For tests: settings are what `readSettings` returns, each time that a process first
    /// connects.
    CBucketStore(std::function<ServerSettings()> readSettings, RetryPolicy policy);
    CBucketStore(CBucketStore const&) = delete;
    CBucketStore& operator=(CBucketStore const&) = delete;
    ~CBucketStore() override;

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    /// The normal form. The server is not asked.
    yx::CURI resolveName(yx::CURI const& uri) override;
    std::optional<host::FileStatus> findStatus(yx::CURI const& uri, bool followLinks) override;
    host::FileStatus getOpenStatus(yx::IStreamBase& stream) override;
    std::vector<host::FolderEntry> listFolder(yx::CURI const& folder) override;
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override;
    void makeFolder(yx::CURI const& folder) override;
    void removeFolder(yx::CURI const& folder) override;
    void rename(yx::CURI const& from, yx::CURI const& to) override;
    void renameIfAbsent(yx::CURI const& from, yx::CURI const& to) override;
    bool tryAddName(yx::CURI const& from, yx::CURI const& to) override;

    /// Does nothing: nothing was changed.
    void syncFolder(yx::CURI const& folder) override;
    void verifyMayWriteIn(yx::CURI const& folder) override;
    std::optional<host::StoreRoom> findRoom(yx::CURI const& folder) override;
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) override;
    void abandon() noexcept override;

    /// See `BucketUpload`. With `https`, `AccessDenied` as for all changes.
    void uploadFile(yx::CURI const& uri, host::Upload const& upload) override;

private:
    /// What a process has connected.
    struct Connection {
        explicit Connection(std::shared_ptr<StoreCore> newCore) : core(std::move(newCore)) {}

        std::shared_ptr<StoreCore> core;
        std::mutex mutex;

        /// What streams are open on, by identity.
        std::map<host::FileIdentity, std::weak_ptr<ObjectContent>> contents;
    };

    Connection& connect(yx::CURI const& uri);
    std::optional<ObjectVersion> findVersion(ObjectLocation const& location, char const* beginning,
                                             yx::CURI const& uri);
    std::optional<host::FileKind> findKnownKind(ObjectLocation const& location,
                                                yx::CURI const& uri);
    void learnFolder(ObjectLocation const& location, yx::CURI const& uri);
    ObjectVersion getVersion(ObjectLocation const& location, yx::CURI const& uri);
    HTTPAnswer head(ObjectLocation const& location, char const* beginning, yx::CURI const& uri);
    std::shared_ptr<ObjectContent> share(ObjectLocation const& location,
                                         ObjectVersion const& version, yx::CURI const& uri);
    host::FileStatus makeStatus(ObjectServer const& server, ObjectLocation const& location,
                                ObjectVersion const& version) const;

    std::function<ServerSettings()> m_readSettings;
    RetryPolicy m_policy;
    std::shared_ptr<Abandonment> m_abandonment = std::make_shared<Abandonment>();

    /// That of the process which made it. One that was forked off leaves it alone and makes its
    /// own.
    std::atomic<Connection*> m_connection{nullptr};
};

} // namespace kelm::s3
