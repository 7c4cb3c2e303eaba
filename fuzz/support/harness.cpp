#include "fuzz/support/harness.h"

#include <cstdio>
#include <cstdlib>

#include "yx/log.h"

namespace kelm::fuzz {

void require(bool holds, char const* rule) {
    if (holds)
        return;
    std::fprintf(stderr, "broken rule: %s\n", rule);
    std::abort();
}

void silenceLog() {
    static bool const silenced = [] {
        yx::setLogHandler([](yx::LogEntry const&) {});
        yx::setIgnoredExceptionHandler([](char const*, std::exception&, bool) {});
        return true;
    }();
    static_cast<void>(silenced);
}

yx::TBuffer<unsigned char> toBuffer(Bytes bytes) {
    yx::TBuffer<unsigned char> buffer(static_cast<int>(bytes.size()), -1);
    yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
    return buffer;
}

} // namespace kelm::fuzz
