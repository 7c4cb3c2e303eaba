#pragma once

#include <optional>
#include <string>

#include "yx/error.h"

namespace kelm::host {

/// Whether an error that a check meets tells of the disk's state. Others tell of the caller's
/// situation, and end the check: a disk in use, a wrong or missing password,
/// `TooManyRoundsError`, `CancelledError`.
bool isFinding(yx::CError const& error);

/// Runs a step of a check. Returns the message of an error that is a finding, and nothing if the
/// step is done; every other error passes.
template <class Step>
std::optional<std::string> findingOf(Step const& step) {
    try {
        step();
        return std::nullopt;
    } catch (yx::CError const& error) {
        if (!isFinding(error))
            throw;
        return error.getMessage().toStdString();
    }
}

} // namespace kelm::host
