#include "host/system/time_text.h"

namespace kelm::host {

namespace {

constexpr char kFormat[] = "%Y-%m-%dT%H:%M:%SZ";

} // namespace

std::string formatTime(std::time_t time) {
    std::tm parts = {};
    char text[sizeof "-2147483648-12-31T23:59:59Z"];
    ::gmtime_r(&time, &parts);
    return {text, std::strftime(text, sizeof text, kFormat, &parts)};
}

std::optional<std::time_t> parseTime(std::string const& text) {
    std::tm parts = {};
    char const* const end = ::strptime(text.c_str(), kFormat, &parts);
    if (!end || *end != '\0')
        return std::nullopt;
    std::time_t const time = ::timegm(&parts);
    // strptime also takes other spellings, and the 31st of every month.
    if (formatTime(time) != text)
        return std::nullopt;
    return time;
}

} // namespace kelm::host
