#include "tests/support/unprivileged_scope.h"

#include <cerrno>
#include <system_error>

#include <unistd.h>

namespace test_support {

namespace {

constexpr uid_t kAdministrator = 0;
constexpr uid_t kOrdinaryUser = 65534;

void become(uid_t userId) {
    if (::seteuid(userId) != 0)
        throw std::system_error(errno, std::generic_category(), "seteuid");
}

} // namespace

UnprivilegedScope::UnprivilegedScope() : m_userId(::geteuid()) {
    if (m_userId == kAdministrator)
        become(kOrdinaryUser);
}

UnprivilegedScope::~UnprivilegedScope() {
    if (m_userId == kAdministrator)
        become(m_userId);
}

} // namespace test_support
