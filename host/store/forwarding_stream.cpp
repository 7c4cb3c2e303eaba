#include "host/store/forwarding_stream.h"

#include <cassert>

namespace kelm::host {

ForwardingStream::ForwardingStream(yx::P<yx::IIOStream> stream) : m_stream(std::move(stream)) {
    assert(m_stream);
}

} // namespace kelm::host
