#include "host/check/check_errors.h"

#include "host/disk/password_errors.h"
#include "host/system/cancel.h"
#include "host/system/key_derivation.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

/// What `DiskReach` refuses is a question of trust, and may be sound.
bool isRefusal(yx::CError const& error) {
    auto const* const ioError = dynamic_cast<yx::CIOError const*>(&error);
    return ioError && ioError->getIOCode() == yx::CIOError::NotAllowed;
}

} // namespace

bool isFinding(yx::CError const& error) {
    return !isRefusal(error) && !dynamic_cast<CancelledError const*>(&error) &&
           !dynamic_cast<TooManyRoundsError const*>(&error) &&
           !dynamic_cast<yx::CLockFileError const*>(&error) && !isPasswordMissing(error) &&
           !isPasswordWrong(error);
}

} // namespace kelm::host
