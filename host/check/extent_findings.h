#pragma once

#include <string>

#include "host/check/finding_fold.h"
#include "host/check/known_grains.h"

namespace kelm::host {

/// The findings of one extent on their way to the caller. The tables of a large file are read
/// several times, and most findings must be reported only the first time.
class ExtentFindings {
public:
    /// Both arguments must outlive the object.
    ExtentFindings(FindingFold& fold, KnownGrains& known) : m_fold(fold), m_known(known) {}

    // Each of these reports a finding that every reading of the tables would meet; it is dropped
    // while repeating.

    /// A finding about the file itself.
    void addOnce(std::string const& text) const;

    /// A finding about a table, or about a grain, which is then known.
    void addOnce(CheckedThing const& thing, std::string const& text) const;

    /// A finding about a grain whose content is there all the same, so that failing to read it is
    /// another one.
    void addReadable(CheckedThing const& grain, std::string const& text) const;

    /// A finding about a grain that lies where the file has ended. There is one cause for all of
    /// these.
    void addBehindEnd(CheckedThing const& grain, std::string const& text);

    /// A finding that belongs to the stretch of the file that is being looked at.
    void addInStretch(CheckedThing const& thing, std::string const& text) const;

    /// Whether the tables have been read before.
    bool isRepeating() const { return m_isRepeating; }
    void setRepeating(bool isRepeating) { m_isRepeating = isRepeating; }

    /// Whether a grain lies where the file has ended.
    bool isFileCutOff() const { return m_isFileCutOff; }

private:
    FindingFold& m_fold;
    KnownGrains& m_known;
    bool m_isRepeating = false;
    bool m_isFileCutOff = false;
};

} // namespace kelm::host
