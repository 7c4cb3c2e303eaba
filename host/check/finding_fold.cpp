#include "host/check/finding_fold.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/system/size_text.h"

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

std::string bytesText(ByteRange const& bytes) {
    if (bytes.isEmpty())
        return "";
    return " (bytes: " + formatRange(bytes.startBytes, bytes.endBytes) + ")";
}

} // namespace

void FindingFold::add(std::string const& text, ByteRange const& bytes) {
    assert(!text.empty());
    closeRun();
    m_report(text + bytesText(bytes));
}

void FindingFold::Folded::add(CheckedThing const& thing) {
    last = thing;
    bytes.include(thing.bytes);
    ++more;
}

void FindingFold::addOfThing(CheckedThing const& thing, std::string const& text) {
    assert(!text.empty());
    std::string words = wordsOf(text);
    if (m_run && m_run->last.number + 1 == thing.number && m_run->likeness == words) {
        m_run->add(thing);
        return;
    }
    closeRun();
    if (m_runCounts[words] >= kMaxAlike) {
        addOfCause(words, thing, text);
        return;
    }
    ++m_runCounts[words];
    m_run = Folded{text, std::move(words), thing, thing.bytes};
}

void FindingFold::addOfCause(std::string const& cause, CheckedThing const& thing,
                             std::string const& text) {
    assert(!text.empty());
    auto const alike = std::find_if(m_held.begin(), m_held.end(), [&cause](Folded const& folded) {
        return folded.likeness == cause;
    });
    if (alike == m_held.end())
        m_held.push_back({text, cause, thing, thing.bytes});
    else
        alike->add(thing);
}

void FindingFold::closeRun() {
    if (std::optional<Folded> const run = std::exchange(m_run, std::nullopt))
        report(*run);
}

void FindingFold::report(Folded const& folded) const {
    std::string text = folded.text;
    if (folded.more > 0) {
        text += "; the same of " + std::to_string(folded.more) + " more, up to " +
                folded.last.getName();
    }
    m_report(text + bytesText(folded.bytes));
}

void FindingFold::flush() {
    closeRun();
    for (Folded const& folded : std::exchange(m_held, {}))
        report(folded);
}

} // namespace kelm::host
