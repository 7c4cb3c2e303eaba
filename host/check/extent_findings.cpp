#include "host/check/extent_findings.h"

#include <cassert>

namespace kelm::host {

void ExtentFindings::addOnce(std::string const& text) const {
    if (!m_isRepeating)
        m_fold.add(text);
}

void ExtentFindings::addOnce(CheckedThing const& thing, std::string const& text) const {
    if (m_isRepeating)
        return;
    if (thing.kind == CheckedThing::Kind::Grain)
        m_known.add(thing.number);
    m_fold.addOfThing(thing, text);
}

void ExtentFindings::addReadable(CheckedThing const& grain, std::string const& text) const {
    if (!m_isRepeating)
        m_fold.addOfThing(grain, text);
}

void ExtentFindings::addBehindEnd(CheckedThing const& grain, std::string const& text) {
    assert(grain.kind == CheckedThing::Kind::Grain);
    m_isFileCutOff = true;
    if (m_isRepeating)
        return;
    m_known.add(grain.number);
    m_fold.addOfCause("end of the file", grain, text);
}

void ExtentFindings::addInStretch(CheckedThing const& thing, std::string const& text) const {
    m_fold.addOfThing(thing, text);
}

} // namespace kelm::host
