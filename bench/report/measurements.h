#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

using Run = std::function<void()>;

/// Seconds by the clock that one call of `run` takes.
double secondsOf(Run const& run);

/// Series of numbers by name, one number a round. What is compared is measured in the same rounds,
/// side by side, so that what else the machine does hits both.
class Measurements {
public:
    void add(std::string const& name, double value) { m_series[name].push_back(value); }

    /// Times `run` and adds the seconds.
    void time(std::string const& name, Run const& run) { add(name, secondsOf(run)); }

    double median(std::string const& name) const;

    /// The median of the quotients of neighbours: of what both series got in the same round.
    double ratio(std::string const& over, std::string const& under) const;

private:
    std::map<std::string, std::vector<double>> m_series;
};

/// How a time grows with a size: the power of the size that it follows between two points.
double growthExponent(double smallSize, double smallSeconds, double largeSize, double largeSeconds);

} // namespace bench
