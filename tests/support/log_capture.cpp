#include "tests/support/log_capture.h"

#include <ostream>
#include <utility>

namespace test_support {

LogCapture::LogCapture() {
    m_previous = yx::setLogHandler([this](yx::LogEntry const& entry) {
        m_entries.push_back({entry.level, entry.message.toStdString(), entry.detail.toStdString(),
                             entry.error ? entry.error->what() : ""});
    });
}

LogCapture::~LogCapture() {
    yx::setLogHandler(std::move(m_previous));
}

std::ostream& operator<<(std::ostream& stream, LogCapture::Entry const& entry) {
    return stream << (entry.level == yx::LogLevel::Warning ? "warning" : "error") << " \""
                  << entry.message << "\" \"" << entry.detail << "\" \"" << entry.error << '"';
}

} // namespace test_support
