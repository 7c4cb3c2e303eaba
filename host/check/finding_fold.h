#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/check/checked_thing.h"
#include "yx/base.h"

namespace kelm::host {

/// Makes one finding of what one cause breaks. Findings about numbered things, grains or tables,
/// are alike if they have the same words, whatever the numbers in them. The first of those that are
/// folded is reported in full, with "; the same of 84 more, up to grain 90" behind it.
///
/// A finding about things ends with their bytes in the disk, " (bytes: 393216-5963775)", from the
/// first byte of the first to the last byte of the last.
class FindingFold {
public:
    /// Receives a sentence about what is wrong.
    using Report = std::function<void(std::string const&)>;

    /// After so many findings of the same words, the rest of them becomes a single one.
    static constexpr int kMaxAlike = 20;

    /// `report` must outlive the object.
    explicit FindingFold(Report const& report) : m_report(report) {}

    /// A finding about no numbered thing, which is reported at once. `bytes` are those of the disk
    /// that it is about.
    void add(std::string const& text, ByteRange const& bytes = {});

    /// A finding about a thing. Folded with the one before if that was about the thing before and
    /// is alike.
    void addOfThing(CheckedThing const& thing, std::string const& text);

    /// A finding that has one cause with others, such as a file that ends too early, whatever their
    /// words. They are folded into one, which is reported by `flush`.
    void addOfCause(std::string const& cause, CheckedThing const& thing, std::string const& text);

    /// Reports what is held back. To be called at the end, also at one by an error, and before
    /// findings of another file.
    void flush();

private:
    struct Folded {
        std::string text;

        /// What it has to have in common with others: the cause, or the words without numbers.
        std::string likeness;
        CheckedThing last;
        ByteRange bytes;
        __int64 more = 0;

        void add(CheckedThing const& thing);
    };

    void closeRun();
    void report(Folded const& folded) const;

    Report const& m_report;

    /// Neighbours so far; the next one may belong to them.
    std::optional<Folded> m_run;

    /// How many runs have been reported, by their words.
    std::map<std::string, int> m_runCounts;

    /// What waits for the end, in the order of its beginning.
    std::vector<Folded> m_held;
};

} // namespace kelm::host
