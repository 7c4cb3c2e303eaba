#include "host/disk/password_errors.h"

namespace kelm::host {

// The library tells both by their words alone.

bool isPasswordMissing(yx::CError const& error) {
    return error.getMessage() == "VMDK is encrypted but no password provided";
}

bool isPasswordWrong(yx::CError const& error) {
    return error.getMessage() == "Specified VMDK encryption password is not correct.";
}

} // namespace kelm::host
