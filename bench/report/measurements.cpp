#include "bench/report/measurements.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "bench/interleaved.h"

namespace bench {

double secondsOf(Run const& run) {
    auto const start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Measurements::median(std::string const& name) const {
    return bench::median(m_series.at(name));
}

double Measurements::ratio(std::string const& over, std::string const& under) const {
    std::vector<double> const& overs = m_series.at(over);
    std::vector<double> const& unders = m_series.at(under);
    std::vector<double> quotients;
    for (std::size_t i = 0; i < std::min(overs.size(), unders.size()); ++i)
        quotients.push_back(overs[i] / unders[i]);
    return bench::median(quotients);
}

double growthExponent(double smallSize, double smallSeconds, double largeSize,
                      double largeSeconds) {
    return std::log(largeSeconds / smallSeconds) / std::log(largeSize / smallSize);
}

} // namespace bench
