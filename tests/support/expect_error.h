#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace test_support {

/// The properties of an error, in their order.
using Props = std::vector<std::pair<std::string, std::string>>;

Props propsOf(yx::CError const& error);

/// Whether `action` throws exactly a `CIOError` with this code, message and all these properties
/// in this order; if not, says what it did. For `EXPECT_TRUE`.
testing::AssertionResult throwsIOError(yx::CIOError::Code code, std::string const& message,
                                       Props const& props, std::function<void()> const& action);

/// The same for a `CInvalidArgError` of `function`.
testing::AssertionResult throwsInvalidArg(std::string const& function, std::string const& message,
                                          std::function<void()> const& action);

/// The same, with all its properties in this order.
testing::AssertionResult throwsInvalidArg(std::string const& function, std::string const& message,
                                          Props const& props, std::function<void()> const& action);

/// The same for a plain `CError` with an empty detail and code -1.
testing::AssertionResult throwsError(std::string const& message, Props const& props,
                                     std::function<void()> const& action);

} // namespace test_support
