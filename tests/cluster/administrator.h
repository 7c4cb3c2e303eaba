#pragma once

#include <string>

#include "yx/uri.h"

struct ceph_mount_info;

namespace cluster_shell {

/// The client's own calls, as the administrator, for what the store has no operation for. A failure
/// fails the test.
class Administrator {
public:
    Administrator();
    Administrator(Administrator const&) = delete;
    Administrator& operator=(Administrator const&) = delete;
    ~Administrator();

    void makeLink(std::string const& content, yx::CURI const& uri);
    void setMode(yx::CURI const& uri, unsigned int mode);
    unsigned int getMode(yx::CURI const& uri); ///< the rights alone
    void setQuota(yx::CURI const& folder, __int64 bytes);
    void pinFolder(yx::CURI const& folder, int rank); ///< to the metadata server of that rank
    void makeSnapshot(yx::CURI const& folder, std::string const& name);
    void removeSnapshot(yx::CURI const& folder, std::string const& name);

    static std::string pathOf(yx::CURI const& uri) { return uri.getPath().toStdString(); }

private:
    ceph_mount_info* m_client = nullptr;
};

} // namespace cluster_shell
