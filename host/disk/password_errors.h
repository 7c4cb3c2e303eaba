#pragma once

#include "yx/error.h"

namespace kelm::host {

/// Whether an error of an opening says that the disk is encrypted and no password was given.
bool isPasswordMissing(yx::CError const& error);

/// Whether an error of an opening says that the password is wrong.
bool isPasswordWrong(yx::CError const& error);

} // namespace kelm::host
