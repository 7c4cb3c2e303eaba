#include "host/system/size_text.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>
#include <limits>

#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr char kUnits[] = "KMGT";
constexpr int kBitsPerUnit = 10;

[[noreturn]] void throwInvalid(std::string const& text) {
    throw yx::CError("Invalid size: '" + yx::String::fromUTF8(text) + "'", "", -1, yx::CProps(),
                     nullptr);
}

/// How many bits to the left a unit letter shifts; -1 if it is no unit.
int unitShift(char letter) {
    char const upper =
        letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
    for (int i = 0; kUnits[i] != '\0'; ++i) {
        if (kUnits[i] == upper)
            return (i + 1) * kBitsPerUnit;
    }
    return -1;
}

} // namespace

__int64 parseSize(std::string const& text) {
    std::string digits = text;
    int shift = 0;
    if (!digits.empty() && unitShift(digits.back()) > 0) {
        shift = unitShift(digits.back());
        digits.pop_back();
    }
    __int64 const limit = std::numeric_limits<__int64>::max() >> shift;
    if (digits.empty())
        throwInvalid(text);
    __int64 value = 0;
    for (char const digit : digits) {
        if (digit < '0' || digit > '9')
            throwInvalid(text);
        int const addend = digit - '0';
        if (value > (limit - addend) / 10)
            throwInvalid(text);
        value = value * 10 + addend;
    }
    assert(value >= 0 && value <= limit);
    return value << shift;
}

std::string formatSize(__int64 sizeBytes) {
    constexpr double kUnit = 1024;
    if (sizeBytes < static_cast<__int64>(kUnit))
        return std::to_string(sizeBytes) + " bytes";
    double value = static_cast<double>(sizeBytes) / kUnit;
    int unit = 0;
    // 1023.95 would be printed as 1024.0.
    while (value >= kUnit - 0.05 && kUnits[unit + 1] != '\0') {
        value /= kUnit;
        ++unit;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %ciB", value, kUnits[unit]);
    return text.data();
}

std::string formatRange(__int64 first, __int64 end) {
    return std::to_string(first) + "-" + std::to_string(std::max(first, end - 1));
}

} // namespace kelm::host
