#pragma once

#include <algorithm>
#include <cstdlib>

namespace test_support {

/// How many times the usual number of random histories a test is to run, from KELM_MODEL_ROUNDS in
/// the environment; 1 without it.
inline unsigned int modelRounds() {
    char const* const rounds = std::getenv("KELM_MODEL_ROUNDS");
    return rounds ? static_cast<unsigned int>(std::max(1, std::atoi(rounds))) : 1U;
}

} // namespace test_support
