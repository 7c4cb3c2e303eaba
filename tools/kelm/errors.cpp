#include "tools/kelm/errors.h"

#include <cassert>
#include <new>
#include <optional>
#include <vector>

#include "host/backups/disk_deletion.h"
#include "host/backups/disk_rebase.h"
#include "host/disk/busy_wait.h"
#include "host/disk/error_kind.h"
#include "host/disk/unfinished_disk.h"
#include "host/store/store_holders.h"
#include "host/store/stores.h"
#include "host/system/key_derivation.h"
#include "host/system/name_text.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

ExitStatus statusOfKind(host::ErrorKind kind) {
    switch (kind) {
    case host::ErrorKind::Cancelled:
        return ExitStatus::Interrupted;
    case host::ErrorKind::Password:
        return ExitStatus::WrongPassword;
    case host::ErrorKind::Unfinished:
        return ExitStatus::Unfinished;
    case host::ErrorKind::InUse:
        return ExitStatus::InUse;
    case host::ErrorKind::Damaged:
        return ExitStatus::Damaged;
    case host::ErrorKind::NotFound:
        return ExitStatus::NotFound;
    case host::ErrorKind::NoSpace:
        return ExitStatus::NoSpace;
    }
    return ExitStatus::Failed;
}

/// The status that an error has by itself, without its cause; none if it is any other error.
std::optional<ExitStatus> ownStatusOf(yx::CError const& error) {
    if (dynamic_cast<PasswordError const*>(&error))
        return ExitStatus::WrongPassword;
    std::optional<host::ErrorKind> const kind = host::ownKindOf(error);
    return kind ? std::optional(statusOfKind(*kind)) : std::nullopt;
}

char const* nameOf(yx::CIOError::Code code) {
    switch (code) {
    case yx::CIOError::IOFailure:
        return "IOFailure";
    case yx::CIOError::NotFound:
        return "NotFound";
    case yx::CIOError::NotAllowed:
        return "NotAllowed";
    case yx::CIOError::UnexpectedEnd:
        return "UnexpectedEnd";
    case yx::CIOError::CorruptData:
        return "CorruptData";
    case yx::CIOError::UnsupportedVersion:
        return "UnsupportedVersion";
    case yx::CIOError::BadPosition:
        return "BadPosition";
    case yx::CIOError::AlreadyExists:
        return "AlreadyExists";
    case yx::CIOError::AccessDenied:
        return "AccessDenied";
    case yx::CIOError::Closed:
        return "Closed";
    case yx::CIOError::NotAligned:
        return "NotAligned";
    case yx::CIOError::NoSpace:
        return "NoSpace";
    case yx::CIOError::NotSupported:
        return "NotSupported";
    }
    return "Failed";
}

/// Of the outermost one that gives the error its exit status, or else of the outermost one.
std::string nameOfIOError(std::exception const& error) {
    yx::CIOError const* found = nullptr;
    for (auto const* each = dynamic_cast<yx::CError const*>(&error); each;
         each = each->getCause()) {
        auto const* const ioError = dynamic_cast<yx::CIOError const*>(each);
        if (ioError && (!found || host::ownKindOf(*ioError)))
            found = ioError;
        if (found && host::ownKindOf(*found))
            break;
    }
    return found ? nameOf(found->getIOCode()) : "Failed";
}

/// An error that a destructor could tell nobody.
struct IgnoredError {
    ExitStatus status;
    std::string text;
};

std::vector<IgnoredError>& ignoredErrors() {
    static std::vector<IgnoredError> errors;
    return errors;
}

/// Whether a disk is in use in a store that knows by whom.
bool isHeldInStore(std::exception const& error) {
    auto const* const refusal = dynamic_cast<yx::CLockFileError const*>(&error);
    if (!refusal || !host::isInUse(*refusal))
        return false;
    yx::String const* const uri = refusal->getParams().find("uri");
    return uri && host::isStoreURI(uri->toStdString()) && host::knowsHolders(yx::CURI(*uri));
}

} // namespace

std::string describeError(std::exception const& error) {
    std::string text = host::describeError(error);
    if (dynamic_cast<host::TooManyRoundsError const*>(&error))
        return text + " A larger --max-rounds allows more.";
    if (dynamic_cast<host::UnfinishedDiskError const*>(&error))
        return text + " Go on filling it with 'import --resume', or make it anew; --unfinished "
                      "reads it as it is.";
    if (dynamic_cast<host::DiskHasChildrenError const*>(&error))
        return text + " --keep-children makes them independent of it first; --with-children "
                      "deletes them too.";
    if (dynamic_cast<host::OldParentError const*>(&error))
        return text + " If the new parent is the old one, and has only moved, --trust skips the "
                      "comparison.";
    if (auto const* const held = dynamic_cast<DiskHeldError const*>(&error)) {
        return held->isForceOfUse() ? text + " If the holders on other machines are dead, --force "
                                             "has the store shut them out."
                                    : text;
    }
    return isHeldInStore(error) ? text + " 'kelm unlock' says by whom." : text;
}

ExitStatus exitStatusOf(std::exception const& error) {
    if (dynamic_cast<UsageError const*>(&error))
        return ExitStatus::WrongUsage;
    for (auto const* known = dynamic_cast<yx::CError const*>(&error); known;
         known = known->getCause()) {
        if (std::optional<ExitStatus> const status = ownStatusOf(*known)) {
            assert(*status != ExitStatus::Done && "an error is never a success");
            return *status;
        }
    }
    return ExitStatus::Failed;
}

std::string codeOf(std::exception const& error) {
    if (dynamic_cast<std::bad_alloc const*>(&error))
        return "NoMemory";
    switch (exitStatusOf(error)) {
    case ExitStatus::WrongUsage:
        return "WrongUsage";
    case ExitStatus::WrongPassword:
        return "WrongPassword";
    case ExitStatus::Unfinished:
        return "Unfinished";
    case ExitStatus::InUse:
        return "InUse";
    case ExitStatus::Interrupted:
        return "Interrupted";
    default:
        return nameOfIOError(error);
    }
}

void routeLibraryMessages(CommandResult& result) {
    yx::setLogHandler([&result](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning)
            result.addWarning(host::printable(entry.message.toStdString()));
    });
    // A full device fails once more for each file that is closed, so these are kept to the end.
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        ignoredErrors().push_back({exitStatusOf(error), describeError(error)});
    });
}

void reportIgnoredErrors(CommandResult& result, std::optional<ExitStatus> status) {
    for (IgnoredError const& error : ignoredErrors()) {
        bool const hasOneCause = status && error.status == *status && *status != ExitStatus::Failed;
        if (!hasOneCause)
            result.addWarning(error.text);
    }
    ignoredErrors().clear();
}

} // namespace kelm::tool
