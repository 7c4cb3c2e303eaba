#include "host/backups/retention_policy.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <utility>

#include "host/system/time_text.h"

namespace kelm::host {

namespace {

struct DatedItem {
    std::time_t time;
    std::size_t index;
};

constexpr long long kSecondsPerHour = 3600;
constexpr long long kHoursPerDay = 24;
constexpr long long kDaysPerWeek = 7;
constexpr long long kMonthsPerYear = 12;

/// 1 January 1970 was a Thursday, three days after a Monday.
constexpr long long kDaysFromMondayToEpoch = 3;

long long floorDivided(long long value, long long divisor) {
    return value >= 0 ? value / divisor : -((-value + divisor - 1) / divisor);
}

long long hourOf(std::time_t time) {
    return floorDivided(time, kSecondsPerHour);
}

long long dayOf(std::time_t time) {
    return floorDivided(hourOf(time), kHoursPerDay);
}

long long weekOf(std::time_t time) {
    return floorDivided(dayOf(time) + kDaysFromMondayToEpoch, kDaysPerWeek);
}

std::chrono::year_month_day dateOf(std::time_t time) {
    return std::chrono::sys_days(std::chrono::days(dayOf(time)));
}

long long yearOf(std::time_t time) {
    return static_cast<int>(dateOf(time).year());
}

long long monthOf(std::time_t time) {
    return yearOf(time) * kMonthsPerYear + static_cast<unsigned int>(dateOf(time).month());
}

struct PeriodRule {
    int count;
    char const* name;
    long long (*periodOf)(std::time_t time);
};

/// Adds a reason to the newest item of each of the newest periods. `items` are newest first.
void keepByPeriod(std::vector<DatedItem> const& items, PeriodRule const& rule,
                  std::vector<RetentionReasons>& reasons) {
    int kept = 0;
    std::optional<long long> lastPeriod;
    for (DatedItem const& item : items) {
        long long const period = rule.periodOf(item.time);
        if (lastPeriod == period)
            continue;
        if (kept == std::max(rule.count, 0))
            return;
        lastPeriod = period;
        reasons[item.index].push_back(rule.name + (' ' + std::to_string(++kept)));
    }
}

void keepLast(std::vector<DatedItem> const& items, int count,
              std::vector<RetentionReasons>& reasons) {
    for (int i = 0; i < count && static_cast<std::size_t>(i) < items.size(); ++i)
        reasons[items[static_cast<std::size_t>(i)].index].push_back("last " +
                                                                    std::to_string(i + 1));
}

} // namespace

std::vector<RetentionReasons> RetentionPolicy::judge(
    std::vector<RetentionItem> const& items) const {
    std::vector<RetentionReasons> reasons(items.size());
    std::map<std::pair<std::string, std::string>, std::vector<DatedItem>> groups;
    for (std::size_t index = 0; index < items.size(); ++index) {
        RetentionItem const& item = items[index];
        if (std::optional<std::time_t> const time = parseTime(item.time))
            groups[{item.host, item.source}].push_back({*time, index});
        else
            reasons[index].emplace_back("no time recorded");
    }
    for (auto& [name, group] : groups) {
        std::sort(group.begin(), group.end(), [](DatedItem const& one, DatedItem const& other) {
            return std::pair(one.time, one.index) > std::pair(other.time, other.index);
        });
        keepLast(group, m_rules.last, reasons);
        for (PeriodRule const& rule :
             {PeriodRule{m_rules.hourly, "hour", hourOf}, PeriodRule{m_rules.daily, "day", dayOf},
              PeriodRule{m_rules.weekly, "week", weekOf},
              PeriodRule{m_rules.monthly, "month", monthOf},
              PeriodRule{m_rules.yearly, "year", yearOf}})
            keepByPeriod(group, rule, reasons);
    }
    return reasons;
}

} // namespace kelm::host
