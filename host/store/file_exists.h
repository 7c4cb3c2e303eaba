#pragma once

#include "yx/error.h"
#include "yx/uri.h"

namespace kelm::host {

/// A name is taken: `yx::CIOError` `AlreadyExists` "The file exists already." with "uri".
[[noreturn]] inline void throwFileExists(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

} // namespace kelm::host
