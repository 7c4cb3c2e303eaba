#pragma once

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <sys/types.h>

#include "integrations/cephfs/ceph_calls.h"
#include "integrations/cephfs/ceph_location.h"
#include "integrations/cephfs/ceph_pools.h"
#include "integrations/cephfs/client_note.h"

struct ceph_mount_info;

namespace kelm::ceph {

/// One client of a cluster: a session as one user on one file system. Ends with its last owner.
///
/// Settings are read from where Ceph's own programs read them: the file that CEPH_CONF names, or
/// ceph.conf in the usual places, and the options in CEPH_ARGS, of which `--id`, `--user`, `-i`,
/// `--name` and `-n` name the user for URIs that name none. Where they do not set
/// `client_oc_size`, the client caches up to 32 MiB.
///
/// Serves any number of threads, of the process that made it.
class CephMount {
public:
    /// Connects, by `calls`. `uri` is for errors, which are `yx::CIOError` with "uri". A process that
    /// was forked off while there was a connection cannot make one: `NotSupported`.
    ///
    /// The session is for all of the file system; for a user who has rights to a part of it alone, it
    /// is for the first folder on the way to the location's path that the user may enter.
    ///
    /// What clients of this machine and user have left that ended without taking leave is cleared
    /// away, see `clearAwayTheDead`.
    CephMount(CephLocation const& location, yx::CURI const& uri, std::shared_ptr<CephCalls> calls);
    CephMount(CephMount const&) = delete;
    CephMount& operator=(CephMount const&) = delete;

    /// Takes leave of the cluster, so that it does not wait for this client.
    ~CephMount();

    /// A call of the client, which returns 0 or more, or a negative `errno` value. It may go on when
    /// nobody waits for it any more, so it owns what it touches.
    using Call = std::function<int(ceph_mount_info*)>;

    /// Makes a call as `CephCalls::make` does. The client has no threads in a process that was forked
    /// off, and would wait for them without end: there it is `NotSupported` with "uri".
    int call(yx::CURI const& uri, Call const& call) const;

    /// The same for ending something; `-ENOTCONN` in a process that was forked off, and once the
    /// client has taken leave.
    int tryCall(Call const& call) const noexcept;

    /// Whether there is a connection to make calls by: the process is the one that made it, and has
    /// not taken leave.
    bool isUsable() const noexcept;

    /// What a call returned, and what else it has told.
    template <class Value>
    struct Answer {
        int result = 0;
        Value value{};
    };

    /// Makes a call that fills in a value, which is its second argument.
    template <class Value, class Question>
    Answer<Value> ask(yx::CURI const& uri, Question const& question) const {
        auto const value = std::make_shared<Value>();
        int const result = call(
            uri, [value, question](ceph_mount_info* client) { return question(client, *value); });
        // A call that was left alone may write to it.
        if (result == -ECANCELED)
            return {result, Value{}};
        return {result, std::move(*value)};
    }

    /// What the client calls a path of the file system. One outside the folder that the session is
    /// for is `AccessDenied` with "uri".
    std::string toClientPath(std::string const& path, yx::CURI const& uri) const;

    /// The path of the file system that the client calls so.
    std::string fromClientPath(std::string const& path) const;

    /// What tells this file system from all others: the identity of the cluster, a UUID, then a
    /// separator and the number of the file system in the cluster.
    std::string getStoreID() const {
        return m_site.clusterID + "/" + std::to_string(m_site.fileSystemNumber);
    }

    /// The name of the file system, as far as URI or settings give it; else the default is meant.
    std::string getFileSystemName() const { return getSetting("client_fs"); }

    /// The number by which the cluster knows this client.
    __int64 getNumber() const;

    /// Has a metadata server do something: `server` is how the cluster's own programs name one,
    /// `command` is JSON. The answer is what it says.
    Answer<std::string> tellMetadataServer(std::string const& server, std::string const& command,
                                           yx::CURI const& uri) const;

    /// The pools that this client's files lie in, for calls that use them.
    std::shared_ptr<CephPools> const& getPools() const { return m_pools; }

    /// The longest that a file may become.
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) const;

    /// Has the cluster forget clients of this machine and user that were ended without taking leave,
    /// with their locks and what they kept of files, for which it would wait. Returns whether there
    /// were any. What fails is left to time.
    bool clearAwayTheDead() noexcept;

    /// Takes leave; nothing can be done from then on. Does nothing the second time.
    void leave() noexcept;

private:
    void connect(CephLocation const& location, yx::CURI const& uri);
    void startClient(CephLocation const& location, yx::CURI const& uri);
    void restartClient(CephLocation const& location, yx::CURI const& uri);
    void enterFolder(CephLocation const& location, yx::CURI const& uri);
    std::string getSetting(char const* name) const;
    bool isOwnProcess() const noexcept;

    std::shared_ptr<CephCalls> m_calls;
    std::shared_ptr<CephPools> m_pools = std::make_shared<CephPools>();
    ceph_mount_info* m_client = nullptr;
    pid_t m_process;

    /// Whether leave was taken.
    std::atomic<bool> m_hasLeft = false;

    /// The folder that the session is for, without a separator at its end; empty for the root.
    std::string m_folder;

    /// Absent until the client is made.
    std::optional<ClientNote> m_note;
    ClientNote::Site m_site;

    /// The client does one at a time.
    std::mutex m_clearingMutex;
};

} // namespace kelm::ceph
