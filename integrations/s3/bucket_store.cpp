#include "integrations/s3/bucket_store.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string_view>

#include <unistd.h>

#include "integrations/s3/bucket_upload.h"
#include "integrations/s3/digests.h"
#include "integrations/s3/folder_listing.h"
#include "integrations/s3/http_status.h"
#include "integrations/s3/object_stream.h"
#include "integrations/s3/server_error.h"
#include "yx/internal/file_error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

namespace {

using yx::detail::FileAction;
using yx::detail::makeUriProps;

/// Who starts a program that has more rights than he does not say which server it trusts.
char const* getVariable(char const* name) {
    return ::secure_getenv(name);
}

ServerSettings readSettingsOfEnvironment() {
    return readServerSettings(getVariable);
}

/// What tells a version of an object from all others of its place.
unsigned long long makeNumber(ObjectLocation const& location, ObjectVersion const& version) {
    std::string const text = location.key + location.escapedPath + '\0' + version.entityTag + '\0' +
                             version.lastModified + '\0' + std::to_string(version.lengthBytes);
    std::string const digest = sha256(text);
    constexpr unsigned kBitsOfByte = 8;
    unsigned long long number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i)
        number = (number << kBitsOfByte) | static_cast<unsigned char>(digest[i]);
    return number;
}

host::FileStatus makeFolderStatus(std::string const& place, std::string const& key) {
    host::FileStatus status;
    status.kind = host::FileKind::Folder;
    status.identity.store = place + " " + key;
    return status;
}

} // namespace

CBucketStore::CBucketStore() : CBucketStore(readSettingsOfEnvironment, RetryPolicy()) {}

CBucketStore::CBucketStore(std::function<ServerSettings()> readSettings, RetryPolicy policy)
    : m_readSettings(std::move(readSettings)), m_policy(std::move(policy)) {}

CBucketStore::~CBucketStore() {
    Connection* const connection = m_connection;
    if (connection && connection->core->isOfThisProcess())
        delete connection;
}

CBucketStore::Connection& CBucketStore::connect(yx::CURI const& uri) {
    Connection* before = m_connection;
    if (before && before->core->isOfThisProcess())
        return *before;
    try {
        auto made = std::make_unique<Connection>(
            std::make_shared<StoreCore>(m_readSettings(), m_policy, m_abandonment));
        // Another thread may have been quicker. What is of another process stays: to end it would
        // be to end its connections.
        if (!m_connection.compare_exchange_strong(before, made.get()))
            return *before;
        return *made.release();
    } catch (yx::CIOError const&) {
        throw;
    } catch (yx::CError const& error) {
        throw yx::CIOError(yx::CIOError::AccessDenied, error.getMessage(), makeUriProps(uri),
                           &error);
    }
}

HTTPAnswer CBucketStore::head(ObjectLocation const& location, char const* beginning,
                              yx::CURI const& uri) {
    ObjectServer& server = connect(uri).core->getServer();
    ObjectRequest request;
    request.method = "HEAD";
    request.location = location;
    request.headers["accept-encoding"] = "identity";
    request.beginning = beginning;
    HTTPAnswer answer = server.send(request, uri);
    bool const isOpening = beginning == std::string_view(kCannotOpen);
    if (answer.status != kForbidden && !(answer.status == kNotFound && isOpening))
        return answer;
    // The reason is in a body alone, and those who ask for the head get none.
    request.method = "GET";
    request.headers["range"] = "bytes=0-0";
    HTTPAnswer const reason = server.send(request, uri);
    if (reason.status == answer.status)
        answer.body = reason.body;
    return answer;
}

/// Nothing if there is no such object, or the server does not say that there is one.
std::optional<ObjectVersion> CBucketStore::findVersion(ObjectLocation const& location,
                                                       char const* beginning, yx::CURI const& uri) {
    StoreCore& core = *connect(uri).core;
    RetryPolicy::Milliseconds const now = core.getServer().now();
    std::optional<RecentVersions::Known> const known = core.getRecentVersions().find(location, now);
    if (known && !core.getServer().isAbandoned())
        return *known;
    std::optional<host::FileKind> const kind = findKnownKind(location, uri);
    if (kind && *kind != host::FileKind::File)
        return std::nullopt;
    HTTPAnswer const answer = head(location, beginning, uri);
    if (answer.status == kNotFound && location.isInBucket)
        learnFolder(location, uri);
    bool const mayBeMissing =
        answer.status == kForbidden && findErrorCode(answer) == "AccessDenied";
    RecentVersions::Known found;
    if (answer.status != kNotFound && !mayBeMissing) {
        if (!isSuccess(answer.status))
            throw makeAnswerError(beginning, answer, uri);
        found = readVersion(answer, beginning, uri);
    }
    core.getRecentVersions().add(location, found, now);
    return found;
}

/// What the list of the folder, if it is known, says of a name in it: `Other` if there is none.
std::optional<host::FileKind> CBucketStore::findKnownKind(ObjectLocation const& location,
                                                          yx::CURI const& uri) {
    StoreCore& core = *connect(uri).core;
    if (!location.isInBucket || location.endsInSeparator || core.getServer().isAbandoned())
        return std::nullopt;
    ObjectLocation folder = location;
    folder.key.erase(location.key.rfind('/') + 1);
    auto const known = core.getRecentVersions().findFolder(folder, core.getServer().now());
    if (!known || !*known)
        return std::nullopt;
    auto const name = (*known)->find(location.key.substr(folder.key.size()));
    if (name == (*known)->end())
        return host::FileKind::Other;
    return name->second ? host::FileKind::Folder : host::FileKind::File;
}

/// Lists the folder of a name, unless that was just done.
void CBucketStore::learnFolder(ObjectLocation const& location, yx::CURI const& uri) {
    StoreCore& core = *connect(uri).core;
    RetryPolicy::Milliseconds const now = core.getServer().now();
    ObjectLocation folder = location;
    folder.key.erase(location.key.rfind('/') + 1);
    if (core.getRecentVersions().findFolder(folder, now))
        return;
    RecentVersions::KnownFolder known;
    if (auto const entries = tryListFolder(core.getServer(), folder, uri)) {
        known.emplace();
        for (host::FolderEntry const& entry : *entries)
            known->emplace(entry.name, entry.kind == host::FileKind::Folder);
    }
    core.getRecentVersions().addFolder(folder, std::move(known), now);
}

/// For opening: a missing object is an error.
ObjectVersion CBucketStore::getVersion(ObjectLocation const& location, yx::CURI const& uri) {
    StoreCore& core = *connect(uri).core;
    RetryPolicy::Milliseconds const now = core.getServer().now();
    std::optional<RecentVersions::Known> const known = core.getRecentVersions().find(location, now);
    if (known && *known && !core.getServer().isAbandoned())
        return **known;
    HTTPAnswer const answer = head(location, kCannotOpen, uri);
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotOpen, answer, uri);
    ObjectVersion version = readVersion(answer, kCannotOpen, uri);
    core.getRecentVersions().add(location, version, now);
    return version;
}

host::FileStatus CBucketStore::makeStatus(ObjectServer const& server,
                                          ObjectLocation const& location,
                                          ObjectVersion const& version) const {
    host::FileStatus status;
    status.kind = host::FileKind::File;
    status.lengthBytes = version.lengthBytes;
    status.allocatedBytes = version.lengthBytes;
    status.modifiedNanoseconds = version.getModifiedNanoseconds();
    status.identity.store = server.describePlace(location);
    status.identity.inode = makeNumber(location, version);
    return status;
}

/// The content that all streams on this version of the object have in common.
std::shared_ptr<ObjectContent> CBucketStore::share(ObjectLocation const& location,
                                                   ObjectVersion const& version,
                                                   yx::CURI const& uri) {
    Connection& connection = connect(uri);
    host::FileIdentity const identity =
        makeStatus(connection.core->getServer(), location, version).identity;
    std::lock_guard const guard(connection.mutex);
    std::erase_if(connection.contents, [](auto const& entry) { return entry.second.expired(); });
    std::weak_ptr<ObjectContent>& known = connection.contents[identity];
    std::shared_ptr<ObjectContent> content = known.lock();
    if (!content) {
        content = std::make_shared<ObjectContent>(connection.core, location, version);
        known = content;
    }
    return content;
}

yx::P<yx::IIOStream> CBucketStore::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                            unsigned int*) {
    ObjectLocation const location = locate(uri);
    if (access != yx::IIOStream::ReadOnly)
        throwStoreIsReadOnly(uri);
    if (location.endsInSeparator)
        throw yx::detail::makeFileError(FileAction::Open, EISDIR, makeUriProps(uri));
    return yx::makeObject<CObjectStream>(share(location, getVersion(location, uri), uri), uri);
}

bool CBucketStore::fileExists(yx::CURI const& uri) {
    ObjectLocation const location = locate(uri);
    return !location.endsInSeparator && findVersion(location, kCannotQuery, uri).has_value();
}

void CBucketStore::deleteFile(yx::CURI const& uri, bool) {
    throwStoreIsReadOnly(uri);
}

yx::CURI CBucketStore::resolveName(yx::CURI const& uri) {
    locate(uri);
    return uri.toNormalized();
}

std::optional<host::FileStatus> CBucketStore::findStatus(yx::CURI const& uri, bool) {
    ObjectLocation const location = locate(uri);
    ObjectServer& server = connect(uri).core->getServer();
    if (!location.endsInSeparator) {
        if (std::optional<ObjectVersion> const version = findVersion(location, kCannotQuery, uri))
            return makeStatus(server, location, *version);
    }
    std::optional<host::FileKind> const kind = findKnownKind(location, uri);
    bool const hasFolder = kind ? *kind == host::FileKind::Folder
                                : location.isInBucket && isFolder(server, location, uri);
    if (hasFolder)
        return makeFolderStatus(server.describePlace(location), location.key);
    return std::nullopt;
}

host::FileStatus CBucketStore::getOpenStatus(yx::IStreamBase& stream) {
    auto const* const own = dynamic_cast<CObjectStream const*>(&stream);
    if (!own)
        throw yx::CInvalidArgError("CBucketStore::getOpenStatus",
                                   "The stream is on no object of a server.", yx::CProps());
    ObjectContent const* const content = own->getContent();
    if (!content)
        yx::detail::throwStreamClosed(stream.getURI());
    return makeStatus(content->getCore().getServer(), content->getLocation(),
                      content->getVersion());
}

std::vector<host::FolderEntry> CBucketStore::listFolder(yx::CURI const& folder) {
    ObjectLocation const location = locate(folder);
    if (!location.isInBucket) {
        throw yx::CIOError(yx::CIOError::NotSupported, "Folders of web servers cannot be listed.",
                           makeUriProps(folder), nullptr);
    }
    return s3::listFolder(connect(folder).core->getServer(), location, folder);
}

yx::P<yx::IIOStream> CBucketStore::createFile(yx::CURI const& uri) {
    throwStoreIsReadOnly(uri);
}

void CBucketStore::makeFolder(yx::CURI const& folder) {
    throwStoreIsReadOnly(folder);
}

void CBucketStore::removeFolder(yx::CURI const& folder) {
    throwStoreIsReadOnly(folder);
}

void CBucketStore::rename(yx::CURI const& from, yx::CURI const&) {
    throwStoreIsReadOnly(from);
}

void CBucketStore::renameIfAbsent(yx::CURI const& from, yx::CURI const&) {
    throwStoreIsReadOnly(from);
}

bool CBucketStore::tryAddName(yx::CURI const&, yx::CURI const& to) {
    throwStoreIsReadOnly(to);
}

void CBucketStore::syncFolder(yx::CURI const&) {}

void CBucketStore::verifyMayWriteIn(yx::CURI const& folder) {
    throwStoreIsReadOnly(folder);
}

std::optional<host::StoreRoom> CBucketStore::findRoom(yx::CURI const&) {
    return std::nullopt;
}

__int64 CBucketStore::getMaxFileLengthBytes(yx::CURI const&) {
    return std::numeric_limits<__int64>::max();
}

void CBucketStore::abandon() noexcept {
    m_abandonment->set();
}

void CBucketStore::uploadFile(yx::CURI const& uri, host::Upload const& upload) {
    ObjectLocation const location = locate(uri);
    if (!location.isInBucket)
        throwStoreIsReadOnly(uri);
    if (location.key.empty() || location.endsInSeparator)
        throw yx::detail::makeFileError(FileAction::Open, EISDIR, makeUriProps(uri));
    StoreCore& core = *connect(uri).core;
    core.getRecentVersions().remove(location);
    if (!upload.replacesExisting && findVersion(location, kCannotUpload, uri))
        throwObjectExists(uri);
    core.getRecentVersions().remove(location);
    BucketUpload(core.getServer(), location, uri, upload).run();
}

} // namespace kelm::s3
