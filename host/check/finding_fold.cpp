#include "host/check/finding_fold.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace kelm::host {

namespace {

/// A text without its numbers.
std::string wordsOf(std::string const& text) {
    std::string words;
    for (char const character : text) {
        bool const isDigit = character >= '0' && character <= '9';
        if (!isDigit)
            words += character;
        else if (words.empty() || words.back() != '#')
            words += '#';
    }
    return words;
}

} // namespace

void FindingFold::add(std::string const& text) {
    assert(!text.empty());
    closeRun();
    m_report(text);
}

void FindingFold::addOfThing(char const* noun, __int64 number, std::string const& text) {
    assert(!text.empty());
    std::string words = wordsOf(text);
    if (m_run && m_run->lastNumber + 1 == number && m_run->likeness == words) {
        m_run->lastNumber = number;
        ++m_run->more;
        return;
    }
    closeRun();
    if (m_runCounts[words] >= kMaxAlike) {
        addOfCause(words, noun, number, text);
        return;
    }
    ++m_runCounts[words];
    m_run = Folded{noun, text, std::move(words), number};
}

void FindingFold::addOfCause(std::string const& cause, char const* noun, __int64 number,
                             std::string const& text) {
    assert(!text.empty());
    auto const alike = std::find_if(m_held.begin(), m_held.end(), [&cause](Folded const& folded) {
        return folded.likeness == cause;
    });
    if (alike == m_held.end()) {
        m_held.push_back({noun, text, cause, number});
    } else {
        alike->lastNumber = number;
        ++alike->more;
    }
}

void FindingFold::closeRun() {
    if (std::optional<Folded> const run = std::exchange(m_run, std::nullopt))
        report(*run);
}

void FindingFold::report(Folded const& folded) const {
    if (folded.more == 0) {
        m_report(folded.text);
        return;
    }
    m_report(folded.text + "; the same of " + std::to_string(folded.more) + " more, up to " +
             folded.noun + " " + std::to_string(folded.lastNumber));
}

void FindingFold::flush() {
    closeRun();
    for (Folded const& folded : std::exchange(m_held, {}))
        report(folded);
}

} // namespace kelm::host
