#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "host/disk/password_errors.h"
#include "host/system/error_text.h"
#include "tools/kelm/exit_status.h"
#include "yx/error.h"

namespace kelm::tool {

/// The command line asks for something that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// No password could be obtained, for the reason that `cause` or the message gives.
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

/// Describes an error in one line. Where an option of this program helps, the line names it.
std::string describeError(std::exception const& error);

/// The exit status for an error. It is that of the outermost error in the chain of causes that has
/// a status of its own.
ExitStatus exitStatusOf(std::exception const& error);

/// Sends warnings of the library to standard error, in this program's form. Errors that the library
/// logs are left out: they are thrown too, and each is reported once. Errors of destructors wait
/// for `reportIgnoredErrors`.
void routeLibraryMessages();

/// Sends the errors that destructors had to ignore to standard error, as warnings. `status` is that
/// of the error with which the program ends, if there is one: further errors of its kind have the
/// same cause and are left out.
void reportIgnoredErrors(std::optional<ExitStatus> status);

} // namespace kelm::tool
