#pragma once

#include <sys/types.h>

namespace test_support {

/// As long as it lives, the process has the rights of an ordinary user, so that permissions of
/// files count also where tests run as the system's administrator. Directories that tests work in
/// must then be open to everybody.
class UnprivilegedScope {
public:
    UnprivilegedScope();
    UnprivilegedScope(UnprivilegedScope const&) = delete;
    UnprivilegedScope& operator=(UnprivilegedScope const&) = delete;
    ~UnprivilegedScope();

private:
    uid_t m_userId;
};

} // namespace test_support
