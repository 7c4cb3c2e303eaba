#pragma once

#include <stdexcept>
#include <string>

#include "host/disk/password_errors.h"
#include "host/system/error_text.h"
#include "tools/kelm/exit_status.h"
#include "yx/error.h"

namespace kelm::tool {

/// The user asked for something that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A password that cannot be had, for the reason that `cause` tells.
class PasswordError : public yx::CError {
public:
    explicit PasswordError(yx::CError const& cause)
        : CError(cause.getMessage(), "", -1, cause.getParams(), &cause) {}
    explicit PasswordError(char const* message) : CError(message, "", -1, yx::CProps(), nullptr) {}
    std::shared_ptr<yx::CError const> clone() const override {
        return std::make_shared<PasswordError>(*this);
    }
};

using host::isPasswordMissing;

/// An error in one line, with what the user can do about it where that is an option of this program.
std::string describeError(std::exception const& error);

/// How the program ends with that error.
ExitStatus exitStatusOf(std::exception const& error);

/// Sends warnings of the library to standard error, in the words of this program, and leaves out
/// the errors that it logs: they are thrown too, and told once.
void routeLibraryMessages();

} // namespace kelm::tool
