#include "host/check/check_errors.h"

#include "host/disk/password_errors.h"
#include "host/system/cancel.h"
#include "host/system/key_derivation.h"
#include "yx/lock_file.h"

namespace kelm::host {

bool isFinding(yx::CError const& error) {
    return !dynamic_cast<CancelledError const*>(&error) &&
           !dynamic_cast<TooManyRoundsError const*>(&error) &&
           !dynamic_cast<yx::CLockFileError const*>(&error) && !isPasswordMissing(error) &&
           !isPasswordWrong(error);
}

} // namespace kelm::host
