#pragma once

#include <exception>
#include <functional>

#include "yx/string.h"

namespace yx {

/// How serious a log entry is.
enum class LogLevel {
    Warning, ///< the work continues, but somebody should look into it
    Error,   ///< something failed
};

/// What a log handler is given.
struct LogEntry {
    /// How serious it is.
    LogLevel level;

    /// A sentence, and further detail, which is often empty.
    String message;
    String detail;

    /// The error that the entry is about, null if none; valid during the handler's call only.
    std::exception const* error;
};

/// Installs the receiver of all log entries and returns the one that it replaces. An empty handler
/// restores the default, which writes one line to standard error. The handler is called on the
/// thread that logs, under no lock of the framework; what it throws reaches the caller that logs.
YX_API std::function<void(LogEntry const&)> setLogHandler(
    std::function<void(LogEntry const&)> handler);

/// A warning without an error.
YX_API void logWarning(String const& message);

/// A warning about a caught error.
YX_API void logWarning(std::exception const& error, String const& message, String const& detail);

/// An error about a caught error.
YX_API void logError(std::exception const& error, String const& message, String const& detail);

/// Installs the receiver of exceptions that destructors swallow and returns the one that it
/// replaces. An empty handler restores the default, which writes one line to standard error.
YX_API std::function<void(char const* className, std::exception& error, bool flag)>
setIgnoredExceptionHandler(
    std::function<void(char const* className, std::exception& error, bool flag)> handler);

/// Reports an exception that a destructor swallows. `className` is the full class name, such as
/// "kelm::CVMDKGrainTable". `flag` goes to the handler as it is and has no other meaning; our own
/// destructors pass true. Never throws, whatever the handler does.
YX_API void onExceptionInDestructorIgnored(char const* className, std::exception& error,
                                           bool flag) noexcept;

} // namespace yx
