#pragma once

#include "host/store/store_holders.h"
#include "integrations/cephfs/ceph_answers.h"

namespace kelm::ceph {

/// What is known on this machine of the process that a client is in. One of this user's clients is
/// known by its note (`ClientNote`). Of all others it counts as living here if a process of its
/// number runs on this machine, whose name is the client's, and has run since the client is one.
host::StoreHolder::Life findLifeOf(CephClient const& client);

} // namespace kelm::ceph
