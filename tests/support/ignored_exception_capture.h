#pragma once

#include <exception>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace test_support {

/// Receives the exceptions that destructors swallow for as long as it lives, then restores the
/// earlier receiver.
class IgnoredExceptionCapture {
public:
    struct Entry {
        std::string className;
        std::string error; ///< the words of the exception
        bool flag;

        bool operator==(Entry const&) const = default;
    };

    IgnoredExceptionCapture();
    IgnoredExceptionCapture(IgnoredExceptionCapture const&) = delete;
    IgnoredExceptionCapture& operator=(IgnoredExceptionCapture const&) = delete;
    ~IgnoredExceptionCapture();

    std::vector<Entry> const& entries() const { return m_entries; }
    void clear() { m_entries.clear(); }

private:
    std::vector<Entry> m_entries;
    std::function<void(char const*, std::exception&, bool)> m_previous;
};

std::ostream& operator<<(std::ostream& stream, IgnoredExceptionCapture::Entry const& entry);

} // namespace test_support
