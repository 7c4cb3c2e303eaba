#pragma once

#include <optional>

#include "yx/error.h"

namespace kelm::host {

/// What an error is about, as far as programs and their users act upon it.
enum class ErrorKind {
    Cancelled,  ///< the work was stopped: `CancelledError`
    Password,   ///< the disk is encrypted, and the password is missing or wrong
    Unfinished, ///< the disk was never filled completely: `UnfinishedDiskError`
    InUse,      ///< somebody else holds the disk's lock
    Damaged,    ///< a file has content that cannot be right, or ends too early
    NotFound,   ///< a disk, a parent, an image or a folder does not exist
    NoSpace,    ///< the device, a quota or the size limit of the process is exhausted
};

/// The kind that an error has by itself, without its causes; nothing for all others.
std::optional<ErrorKind> ownKindOf(yx::CError const& error);

/// The kind of an error: that of the outermost one in the chain of its causes that has a kind.
std::optional<ErrorKind> kindOf(yx::CError const& error);

} // namespace kelm::host
