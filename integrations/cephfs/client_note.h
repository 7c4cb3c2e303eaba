#pragma once

#include <optional>
#include <string>
#include <vector>

#include "yx/base.h"

namespace kelm::ceph {

/// Says on this machine that a client of a cluster lives: a small file in a folder of the user,
/// which is locked as long as the process does. A process that is killed leaves its note, no longer
/// locked, to the next one, which can then have the cluster forget the client.
///
/// The folder is /run/kelm for root. For others it is `kelm` in the folder that XDG_RUNTIME_DIR
/// names, or else `kelm-` and the number of the user in the folder for temporary files. One that
/// belongs to somebody else, or that others may write to, is not used. Where there is none, nothing
/// is noted.
class ClientNote {
public:
    /// What a client is one of: clients can only be told from each other within one.
    struct Site {
        std::string clusterID;
        __int64 fileSystemNumber = -1;
        std::string user;
    };

    /// A note of a client of its own, which has drawn a UUID and knows no more yet.
    ClientNote();
    ClientNote(ClientNote const&) = delete;
    ClientNote& operator=(ClientNote const&) = delete;
    ClientNote(ClientNote&& other) noexcept;
    ClientNote& operator=(ClientNote&&) = delete;

    /// Unlocks the note and leaves it.
    ~ClientNote();

    std::string const& getUUID() const { return m_uuid; }

    /// Notes where the client is one.
    void setSite(Site const& site) noexcept;

    /// Takes the note away: the client has taken leave, or the cluster has forgotten it.
    void remove() noexcept;

    /// Leaves the note locked until the process ends.
    void keepLocked() noexcept { m_descriptor = -1; }

    /// The notes of the clients of a site that were ended without taking leave, each locked. Only
    /// those of processes that ran on this machine since it was started, as this user.
    static std::vector<ClientNote> takeThoseOfTheDead(Site const& site);

    /// Whether the process lives that a client of this UUID was in; nothing unless it ran on this
    /// machine since it was started, as this user.
    static std::optional<bool> findWhetherLives(std::string const& uuid);

private:
    ClientNote(std::string folder, std::string uuid, int descriptor);

    bool tryMake(std::string const& folder);
    std::string getPath() const;

    /// Empty if nothing is noted.
    std::string m_folder;
    std::string m_uuid;
    int m_descriptor = -1;
};

} // namespace kelm::ceph
