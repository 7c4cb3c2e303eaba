#include "fuzz/support/harness.h"

#include <algorithm>
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

yx::String toText(Bytes bytes) {
    return yx::String::fromUTF8({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
}

TwoTexts toTwoTexts(Bytes bytes) {
    auto const lineEnd = std::find(bytes.begin(), bytes.end(), std::uint8_t{'\n'});
    auto const second = lineEnd == bytes.end() ? lineEnd : lineEnd + 1;
    return {toText({bytes.begin(), lineEnd}), toText({second, bytes.end()})};
}

} // namespace kelm::fuzz
