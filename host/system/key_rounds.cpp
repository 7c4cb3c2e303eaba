#include "host/system/key_rounds.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "krym/krym.h"

namespace kelm::host {

namespace {

constexpr int kMeasuredRounds = 50'000;
constexpr double kWantedSeconds = 0.5;

/// So that two disks of one machine mostly have the same number.
constexpr __int64 kStep = 50'000;

double measureSeconds() {
    std::array<unsigned char, 32> key = {};
    auto const start = std::chrono::steady_clock::now();
    krym::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, "salt of no disk", 15, kMeasuredRounds,
                                           static_cast<int>(key.size()), key.data());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

__int64 measureKeyRounds() {
    double const rounds = kMeasuredRounds * kWantedSeconds / std::max(measureSeconds(), 1e-6);
    // A clock that stood still must not make a disk that nobody can open in a lifetime.
    constexpr double kMostRounds = 5e6;
    auto const whole = static_cast<__int64>(std::min(rounds, kMostRounds)) / kStep * kStep;
    return std::max(whole, kFewestKeyRounds);
}

} // namespace kelm::host
