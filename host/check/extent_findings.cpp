#include "host/check/extent_findings.h"

namespace kelm::host {

namespace {

constexpr char kTableNoun[] = "grain table";
constexpr char kGrainNoun[] = "grain";

} // namespace

void ExtentFindings::addOnce(std::string const& text) const {
    if (!m_isRepeating)
        m_fold.add(text);
}

void ExtentFindings::addOfTable(__int64 table, std::string const& text) const {
    if (!m_isRepeating)
        m_fold.addOfThing(kTableNoun, table, text);
}

void ExtentFindings::addOfGrain(__int64 grainIndex, std::string const& text) const {
    if (m_isRepeating)
        return;
    m_known.add(grainIndex);
    m_fold.addOfThing(kGrainNoun, grainIndex, text);
}

void ExtentFindings::addBehindEnd(__int64 grainIndex, std::string const& text) {
    m_isFileCutOff = true;
    if (m_isRepeating)
        return;
    m_known.add(grainIndex);
    m_fold.addOfCause("end of the file", kGrainNoun, grainIndex, text);
}

void ExtentFindings::addOfTableInStretch(__int64 table, std::string const& text) const {
    m_fold.addOfThing(kTableNoun, table, text);
}

void ExtentFindings::addOfGrainInStretch(__int64 grainIndex, std::string const& text) const {
    m_fold.addOfThing(kGrainNoun, grainIndex, text);
}

} // namespace kelm::host
