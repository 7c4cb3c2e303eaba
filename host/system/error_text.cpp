#include "host/system/error_text.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "host/system/name_text.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

std::string describeProps(yx::CProps const& props) {
    std::string text;
    for (int i = 0; i < props.getCount(); ++i) {
        text += i == 0 ? " (" : ", ";
        text += props.getName(i).toStdString() + ": " + describeValue(props.getValue(i));
    }
    return text.empty() ? text : text + ")";
}

/// An error of the operating system that its own words do not explain.
struct Explanation {
    int errorNumber;
    char const* text;
};

constexpr Explanation kExplanations[] = {
    {ESTALE, " The server of the file does not know it any more: it was removed or replaced on "
             "another machine, or the server has lost it. Open the disk anew."},
    {ENOLCK, " The server of the file, or this machine, gives no locks now."},
};

/// For the first error in the chain of causes that has one; "" for none.
std::string explain(yx::CError const& error) {
    for (yx::CError const* each = &error; each; each = each->getCause()) {
        std::string const message = each->getMessage().toStdString();
        for (Explanation const& explanation : kExplanations) {
            if (message.ends_with(std::string(": ") + std::strerror(explanation.errorNumber)))
                return explanation.text;
        }
    }
    return "";
}

} // namespace

std::string describeValue(yx::String const& value) {
    if (!value.wx().StartsWith("file:///"))
        return value.toStdString();
    try {
        return displayName(yx::CURI(value));
    } catch (yx::CError const&) {
        return value.toStdString();
    }
}

std::string describeError(std::exception const& error) {
    if (dynamic_cast<std::bad_alloc const*>(&error))
        return "There is not enough memory.";
    std::string text = error.what();
    if (auto const* const known = dynamic_cast<yx::CError const*>(&error))
        text += describeProps(known->getParams()) + explain(*known);
    return printable(text);
}

} // namespace kelm::host
