#pragma once

#include "yx/props.h"
#include "yx/stream.h"

namespace kelm {

/// "uri" of the stream: the property of nearly every error.
inline yx::CProps uriPropsOf(yx::IStreamBase& stream) {
    return yx::CProps().add("uri", stream.getURI().toString(true));
}

} // namespace kelm
