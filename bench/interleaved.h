#pragma once

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include <time.h>

namespace bench {

/// Seconds of processor time that this thread has used, in user and in system code. Other processes
/// do not count, though they share caches and memory.
inline double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Seconds of processor time that one call of `run` takes.
inline double timeOnce(std::function<void()> const& run) {
    double const start = processorSeconds();
    run();
    return processorSeconds() - start;
}

/// The median of at least one value; the upper one of two in the middle.
inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// How many times as fast as `reference` `ours` is. The two sides take turns, so that what else the
/// machine does hits both alike; the result is the median of the ratios of neighbours, after one
/// round that only warms up.
inline double speedRatio(int rounds, std::function<void()> const& reference,
                         std::function<void()> const& ours) {
    timeOnce(reference);
    timeOnce(ours);
    std::vector<double> ratios;
    for (int i = 0; i < rounds; ++i) {
        double const referenceSeconds = timeOnce(reference);
        ratios.push_back(referenceSeconds / timeOnce(ours));
    }
    return median(ratios);
}

/// One line: what was measured, the figure and what it should reach.
inline void report(char const* name, double figure, double aim, char const* unit) {
    std::printf("%-58s %8.2f %-4s aim %6.2f %s\n", name, figure, unit, aim,
                figure >= aim ? "ok" : "BELOW");
}

/// A line whose figure should not exceed its aim.
inline void reportAtMost(char const* name, double figure, double aim) {
    std::printf("%-58s %8.2f %-4s aim <= %4.2f %s\n", name, figure, "x", aim,
                figure <= aim ? "ok" : "ABOVE");
}

/// A line without an aim, for what explains another one.
inline void note(char const* name, double figure, char const* unit) {
    std::printf("%-58s %8.2f %s\n", name, figure, unit);
}

} // namespace bench
