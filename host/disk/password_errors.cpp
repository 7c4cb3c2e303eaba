#include "host/disk/password_errors.h"

#include "kelm/disk/disk.h"

namespace kelm::host {

// The library distinguishes both by their messages alone.

bool isPasswordMissing(yx::CError const& error) {
    return error.getMessage() == kPasswordMissingMessage;
}

bool isPasswordWrong(yx::CError const& error) {
    return error.getMessage() == kPasswordWrongMessage;
}

} // namespace kelm::host
