#pragma once

#include <csignal>

namespace test_support {

/// Lets the signals that end a program end this process again. Shells start programs in the
/// background with some of them ignored, and every child inherits that.
inline void resetSignals() {
    for (int const number : {SIGINT, SIGTERM, SIGHUP})
        ::signal(number, SIG_DFL);
}

} // namespace test_support
