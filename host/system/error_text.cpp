#include "host/system/error_text.h"

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
        text += describeProps(known->getParams());
    return printable(text);
}

} // namespace kelm::host
