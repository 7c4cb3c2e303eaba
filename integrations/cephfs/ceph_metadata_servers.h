#pragma once

#include <string>
#include <vector>

#include "integrations/cephfs/ceph_answers.h"
#include "integrations/cephfs/ceph_mount.h"

namespace kelm::ceph {

/// The metadata servers that are at work for a file system, each with a part of it. They know which
/// client has which file, and can shut one out. They tell it to users with all rights to them alone
/// (`mds 'allow *'`).
///
/// A user who has not is `yx::CIOError` `AccessDenied` with "uri", in words that name a way. A file
/// system without metadata servers is `IOFailure`. Other errors are those of `makeClusterError`, with
/// "uri".
class CephMetadataServers {
public:
    /// Those of the file system of `mount`, which must outlive the object. `uri` is for errors.
    CephMetadataServers(CephMount const& mount, yx::CURI const& uri) : m_mount(mount), m_uri(uri) {}

    /// All clients, each once.
    std::vector<CephClient> listClients() const;

    /// Who has something of a file, by its whole path in the file system, which has no links. No
    /// client is asked or waited for. A client can be there several times, once for each server.
    std::vector<CephFileUse> listFileUses(std::string const& path) const;

    /// Ends the session of a client with all servers and lets it store nothing more. Returns when
    /// that is so. A number that no client has passes.
    void shutOut(__int64 client) const;

private:
    std::vector<std::string> tellAll(std::string const& command) const;
    std::string getName(int rank) const;

    CephMount const& m_mount;
    yx::CURI m_uri;
};

} // namespace kelm::ceph
