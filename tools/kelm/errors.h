#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "host/disk/password_errors.h"
#include "host/system/error_text.h"
#include "tools/kelm/command_result.h"
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

/// `unlock` has found the disk in use, as `refusal` says.
class DiskHeldError : public yx::CLockFileError {
public:
    /// `isForceOfUse` says that the store could shut the holders out.
    DiskHeldError(yx::CLockFileError const& refusal, bool isForceOfUse)
        : CLockFileError(refusal.getMessage(), refusal.getParams(), refusal.getCause()),
          m_isForceOfUse(isForceOfUse) {}
    std::shared_ptr<yx::CError const> clone() const override {
        return std::make_shared<DiskHeldError>(*this);
    }
    bool isForceOfUse() const { return m_isForceOfUse; }

private:
    bool m_isForceOfUse;
};

using host::isPasswordMissing;

/// Describes an error in one line. Where an option of this program helps, the line names it.
std::string describeError(std::exception const& error);

/// The exit status for an error. It is that of the outermost error in the chain of causes that has
/// a status of its own.
ExitStatus exitStatusOf(std::exception const& error);

/// A name for the kind of an error, for programs: that of the exit status if the status is for one
/// kind alone, otherwise that of the code of the first `CIOError` among the error and its causes.
/// docs/json.md lists them.
std::string codeOf(std::exception const& error);

/// Makes warnings of the library those of the command. Errors that the library logs are left out:
/// they are thrown too, and each is reported once. Errors of destructors wait for
/// `reportIgnoredErrors`. `result` must live as long as the library is used.
void routeLibraryMessages(CommandResult& result);

/// Makes the errors that destructors had to ignore warnings of the command. `status` is that
/// of the error with which the program ends, if there is one: further errors of its kind have the
/// same cause and are left out.
void reportIgnoredErrors(CommandResult& result, std::optional<ExitStatus> status);

} // namespace kelm::tool
