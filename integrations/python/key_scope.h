#pragma once

namespace kelm::python {

/// While any of these lives, keys that have been derived are kept (`host::DerivedKeys`), so that a
/// chain of disks takes one derivation to open. They are wiped with the last one. Any thread may
/// have one.
class KeyScope {
public:
    KeyScope();
    KeyScope(KeyScope const&) = delete;
    KeyScope& operator=(KeyScope const&) = delete;
    ~KeyScope();
};

} // namespace kelm::python
