#include "host/check/extent_findings.h"

#include <cassert>

namespace kelm::host {

void ExtentFindings::addOnce(std::string const& text) const {
    assert(!text.empty());
    if (!m_isRepeating)
        m_report(text);
}

void ExtentFindings::addOfStretch(std::string const& text) const {
    assert(!text.empty());
    m_report(text);
}

} // namespace kelm::host
