#include "tools/kelm/errors.h"

#include <cstdio>

#include "host/system/key_derivation.h"
#include "host/system/name_text.h"
#include "yx/log.h"

namespace kelm::tool {

std::string describeError(std::exception const& error) {
    std::string const text = host::describeError(error);
    bool const takesTooLong = dynamic_cast<host::TooManyRoundsError const*>(&error) != nullptr;
    return takesTooLong ? text + " A larger --max-rounds allows more." : text;
}

ExitStatus exitStatusOf(std::exception const& error) {
    if (dynamic_cast<UsageError const*>(&error))
        return ExitStatus::WrongUsage;
    if (dynamic_cast<PasswordError const*>(&error))
        return ExitStatus::WrongPassword;
    auto const* const known = dynamic_cast<yx::CError const*>(&error);
    if (known && (isPasswordMissing(*known) || host::isPasswordWrong(*known)))
        return ExitStatus::WrongPassword;
    return ExitStatus::Failed;
}

void routeLibraryMessages() {
    yx::setLogHandler([](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning)
            std::fprintf(stderr, "kelm: warning: %s\n",
                         host::printable(entry.message.toStdString()).c_str());
    });
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        std::fprintf(stderr, "kelm: warning: %s\n", describeError(error).c_str());
    });
}

} // namespace kelm::tool
