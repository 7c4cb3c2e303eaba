#include "integrations/cephfs/ceph_metadata_servers.h"

#include <algorithm>
#include <cerrno>

#include <nlohmann/json.hpp>

#include "integrations/cephfs/cluster_error.h"
#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::ceph {

namespace {

constexpr char kCannotAsk[] = "Cannot ask the metadata servers: ";

/// More than a file system may have at work.
constexpr int kMaxRanks = 256;

std::string makeCommand(nlohmann::json const& command) {
    return command.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string filterOf(__int64 client) {
    return "id=" + std::to_string(client);
}

} // namespace

std::vector<CephClient> CephMetadataServers::listClients() const {
    std::vector<CephClient> clients;
    for (std::string const& answer : tellAll(makeCommand({{"prefix", "client ls"}}))) {
        for (CephClient& client : parseClients(answer, m_uri)) {
            bool const isKnown =
                std::any_of(clients.begin(), clients.end(),
                            [&](CephClient const& known) { return known.number == client.number; });
            if (!isKnown)
                clients.push_back(std::move(client));
        }
    }
    return clients;
}

std::vector<CephFileUse> CephMetadataServers::listFileUses(std::string const& path) const {
    std::string const command =
        makeCommand({{"prefix", "dump tree"}, {"root", path}, {"depth", 0}});
    std::vector<CephFileUse> uses;
    for (std::string const& answer : tellAll(command)) {
        std::vector<CephFileUse> const more = parseFileUses(answer, m_uri);
        uses.insert(uses.end(), more.begin(), more.end());
    }
    return uses;
}

void CephMetadataServers::shutOut(__int64 client) const {
    nlohmann::json const filters = nlohmann::json::array({filterOf(client)});
    tellAll(makeCommand({{"prefix", "client evict"}, {"filters", filters}}));
    for (CephClient const& left : listClients()) {
        if (left.number == client) {
            throw yx::CIOError(yx::CIOError::IOFailure, "The cluster does not shut the client out.",
                               yx::detail::makeUriProps(m_uri), nullptr);
        }
    }
}

/// The answers of all servers.
std::vector<std::string> CephMetadataServers::tellAll(std::string const& command) const {
    std::vector<std::string> answers;
    for (int rank = 0; rank < kMaxRanks; ++rank) {
        auto answer = m_mount.tellMetadataServer(getName(rank), command, m_uri);
        // So the client says that there is no such server.
        if (answer.result == -ENOENT && rank > 0)
            break;
        if (answer.result == -EACCES || answer.result == -EPERM) {
            throw yx::CIOError(yx::CIOError::AccessDenied,
                               "The metadata servers tell an administrator alone who holds files, "
                               "a user with mds 'allow *': name one in the URI, as in "
                               "ceph://admin@disks/full.vmdk.",
                               yx::detail::makeUriProps(m_uri), nullptr);
        }
        if (answer.result < 0)
            throw makeClusterError(kCannotAsk, answer.result, yx::detail::makeUriProps(m_uri));
        answers.push_back(std::move(answer.value));
    }
    return answers;
}

std::string CephMetadataServers::getName(int rank) const {
    std::string const fileSystem = m_mount.getFileSystemName();
    return (fileSystem.empty() ? "" : fileSystem + ":") + std::to_string(rank);
}

} // namespace kelm::ceph
