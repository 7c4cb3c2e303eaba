#pragma once

#include <string>
#include <vector>

namespace kelm::host {

/// How many backups are to be kept, for each source by itself.
struct RetentionRules {
    /// The newest ones, whatever their times.
    int last = 0;

    /// The newest one of each of so many hours, days, weeks, months and years that have any, counted
    /// from the newest back. Weeks begin on Monday. All of them are those of UTC, as the recorded
    /// times are.
    int hourly = 0;
    int daily = 0;
    int weekly = 0;
    int monthly = 0;
    int yearly = 0;

    /// Whether nothing would be kept.
    bool isEmpty() const {
        return last < 1 && hourly < 1 && daily < 1 && weekly < 1 && monthly < 1 && yearly < 1;
    }
};

/// A backup, as far as it matters for how long it is kept; see `DiskRecord`.
struct RetentionItem {
    /// As they were recorded; "" for what is not known.
    std::string time;
    std::string source;
    std::string host;
};

/// Why a backup is kept, in words: "last 3" for the third of the newest, "day 2" for that of the
/// second of the days, "no time recorded". Empty for one that may go.
using RetentionReasons = std::vector<std::string>;

/// Which backups stay, by rules that common backup tools have too. Backups of one source on one host
/// are judged together, apart from all others.
///
/// A backup without a time that can be read stays. Of several with one time, the later in the list
/// counts as the newer.
///
/// The same rules, asked again once some of those that may go are gone, keep the same ones: whoever
/// was interrupted can go on.
class RetentionPolicy {
public:
    /// Numbers below 1 keep nothing.
    explicit RetentionPolicy(RetentionRules const& rules) : m_rules(rules) {}

    /// Why each of the backups stays, in their order.
    std::vector<RetentionReasons> judge(std::vector<RetentionItem> const& items) const;

private:
    RetentionRules m_rules;
};

} // namespace kelm::host
