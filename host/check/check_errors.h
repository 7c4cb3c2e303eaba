#pragma once

#include <optional>
#include <string>

#include "yx/error.h"

namespace kelm::host {

/// Whether an error that a check meets is about the state of the disk. All others end the check: a
/// disk in use, one that `DiskReach` refuses, a wrong or missing password, `TooManyRoundsError`,
/// `CancelledError`.
bool isFinding(yx::CError const& error);

/// Runs a step of a check. Returns nothing if it succeeds, and the message of its error if that is
/// a finding. Every other error passes.
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
