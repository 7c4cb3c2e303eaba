#pragma once

#include <functional>
#include <string>

namespace kelm::host {

/// The findings of one extent on their way to the caller. The tables of a large file are read
/// several times, and most findings must be reported only the first time.
class ExtentFindings {
public:
    /// Receives a sentence about what is wrong.
    using Report = std::function<void(std::string const&)>;

    /// `report` must outlive the object.
    explicit ExtentFindings(Report const& report) : m_report(report) {}

    /// Reports a finding that every reading of the tables would meet; dropped while repeating.
    void addOnce(std::string const& text) const;

    /// Reports a finding that belongs to the stretch of the file that is being looked at.
    void addOfStretch(std::string const& text) const;

    /// Whether the tables have been read before.
    bool isRepeating() const { return m_isRepeating; }
    void setRepeating(bool isRepeating) { m_isRepeating = isRepeating; }

private:
    Report const& m_report;
    bool m_isRepeating = false;
};

} // namespace kelm::host
