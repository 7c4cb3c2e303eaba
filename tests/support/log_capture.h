#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "yx/log.h"

namespace test_support {

/// Receives the log of the framework for as long as it lives, then restores the earlier receiver.
class LogCapture {
public:
    struct Entry {
        yx::LogLevel level;
        std::string message;
        std::string detail;
        std::string error; ///< the words of the error, empty without one

        bool operator==(Entry const&) const = default;
    };

    LogCapture();
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;
    ~LogCapture();

    std::vector<Entry> const& entries() const { return m_entries; }
    void clear() { m_entries.clear(); }

private:
    std::vector<Entry> m_entries;
    std::function<void(yx::LogEntry const&)> m_previous;
};

std::ostream& operator<<(std::ostream& stream, LogCapture::Entry const& entry);

} // namespace test_support
