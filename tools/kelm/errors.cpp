#include "tools/kelm/errors.h"

#include <cstdio>

#include "host/file_names.h"
#include "host/password_errors.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

std::string inOneLine(std::string text) {
    for (char& character : text) {
        if (character == '\n' || character == '\r')
            character = ' ';
    }
    return text;
}

/// File URIs are shown as the paths that the user knows.
std::string describeValue(yx::String const& value) {
    if (!value.wx().StartsWith("file:///"))
        return value.toStdString();
    try {
        return host::displayName(yx::CURI(value));
    } catch (yx::CError const&) {
        return value.toStdString();
    }
}

std::string describeProps(yx::CProps const& props) {
    std::string text;
    for (int i = 0; i < props.getCount(); ++i) {
        text += i == 0 ? " (" : ", ";
        text += props.getName(i).toStdString() + ": " + describeValue(props.getValue(i));
    }
    return text.empty() ? text : text + ")";
}

} // namespace

bool isPasswordMissing(yx::CError const& error) {
    return host::isPasswordMissing(error);
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

std::string describeError(std::exception const& error) {
    if (dynamic_cast<std::bad_alloc const*>(&error))
        return "There is not enough memory.";
    std::string text = error.what();
    if (auto const* const known = dynamic_cast<yx::CError const*>(&error))
        text += describeProps(known->getParams());
    return inOneLine(text);
}

void routeLibraryMessages() {
    yx::setLogHandler([](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning)
            std::fprintf(stderr, "kelm: warning: %s\n",
                         inOneLine(entry.message.toStdString()).c_str());
    });
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        std::fprintf(stderr, "kelm: warning: %s\n", describeError(error).c_str());
    });
}

} // namespace kelm::tool
