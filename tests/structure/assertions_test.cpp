// Whether the builds that look for mistakes have their assertions on.

#include <cassert>

#include <gtest/gtest.h>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

TEST(AssertionsDeathTest, AreOnUnderTheSanitizers) {
    bool const holds = false;
    EXPECT_DEATH(assert(holds), "Assertion `holds' failed");
}

#endif

} // namespace
