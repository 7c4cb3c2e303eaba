#include "tests/support/ignored_exception_capture.h"

#include <ostream>
#include <utility>

#include "yx/log.h"

namespace test_support {

IgnoredExceptionCapture::IgnoredExceptionCapture() {
    m_previous = yx::setIgnoredExceptionHandler(
        [this](char const* className, std::exception& error, bool flag) {
            m_entries.push_back({className, error.what(), flag});
        });
}

IgnoredExceptionCapture::~IgnoredExceptionCapture() {
    yx::setIgnoredExceptionHandler(std::move(m_previous));
}

std::ostream& operator<<(std::ostream& stream, IgnoredExceptionCapture::Entry const& entry) {
    return stream << entry.className << " \"" << entry.error << "\" "
                  << (entry.flag ? "true" : "false");
}

} // namespace test_support
