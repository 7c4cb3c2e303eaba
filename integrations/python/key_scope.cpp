#include "integrations/python/key_scope.h"

#include <memory>
#include <mutex>

#include "host/system/derived_keys.h"

namespace kelm::python {

namespace {

struct SharedKeys {
    std::mutex mutex;
    int users = 0;
    std::unique_ptr<host::DerivedKeys> keys;
};

/// Never destroyed: disks may be closed while the process ends.
SharedKeys& sharedKeys() {
    static auto* const shared = new SharedKeys;
    return *shared;
}

} // namespace

KeyScope::KeyScope() {
    SharedKeys& shared = sharedKeys();
    std::lock_guard const lock(shared.mutex);
    if (!shared.keys)
        shared.keys = std::make_unique<host::DerivedKeys>();
    ++shared.users;
}

KeyScope::~KeyScope() {
    SharedKeys& shared = sharedKeys();
    std::lock_guard const lock(shared.mutex);
    if (--shared.users == 0)
        shared.keys.reset();
}

} // namespace kelm::python
