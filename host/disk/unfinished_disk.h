#pragma once

#include "yx/error.h"
#include "yx/uri.h"

namespace kelm::host {

/// A disk that was to be filled does not hold all that it is to hold: "The disk is unfinished: it
/// has not been filled to its end." with "uri" and code -1. Whatever was filling it was killed, or
/// lost its power, or is still at work elsewhere.
class UnfinishedDiskError : public yx::CError {
public:
    /// `mainFile` is that of the disk.
    explicit UnfinishedDiskError(yx::CURI const& mainFile);
    std::shared_ptr<yx::CError const> clone() const override;
};

} // namespace kelm::host
