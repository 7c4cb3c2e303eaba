#include "tools/kelm/errors.h"

#include <cassert>
#include <cstdio>
#include <optional>
#include <vector>

#include "host/backups/disk_deletion.h"
#include "host/backups/disk_rebase.h"
#include "host/disk/error_kind.h"
#include "host/disk/unfinished_disk.h"
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

/// An error that a destructor could tell nobody.
struct IgnoredError {
    ExitStatus status;
    std::string text;
};

std::vector<IgnoredError>& ignoredErrors() {
    static std::vector<IgnoredError> errors;
    return errors;
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
    return text;
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

void routeLibraryMessages() {
    yx::setLogHandler([](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning)
            std::fprintf(stderr, "kelm: warning: %s\n",
                         host::printable(entry.message.toStdString()).c_str());
    });
    // A full device fails once more for each file that is closed, so these are kept to the end.
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        ignoredErrors().push_back({exitStatusOf(error), describeError(error)});
    });
}

void reportIgnoredErrors(std::optional<ExitStatus> status) {
    for (IgnoredError const& error : ignoredErrors()) {
        bool const hasOneCause = status && error.status == *status && *status != ExitStatus::Failed;
        if (!hasOneCause)
            std::fprintf(stderr, "kelm: warning: %s\n", error.text.c_str());
    }
    ignoredErrors().clear();
}

} // namespace kelm::tool
