#include "tools/kelm/error_report.h"

#include <new>

#include "host/store/file_names.h"
#include "host/system/error_text.h"
#include "host/system/name_text.h"
#include "tools/kelm/errors.h"

namespace kelm::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr char const* kFileProperties[] = {"uri", "path"};
constexpr char kRangeProperty[] = "bytes";

Json makeRange(__int64 startBytes, __int64 endBytes) {
    return {{"startBytes", startBytes}, {"lengthBytes", endBytes - startBytes}};
}

bool isNumber(std::string const& text) {
    constexpr std::size_t kMostDigits = 18;
    return !text.empty() && text.size() <= kMostDigits &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

/// The first and the last byte, as `host::formatRange` prints them; null for any other text.
Json parseRange(std::string const& text) {
    std::size_t const dash = text.find('-');
    if (dash == std::string::npos)
        return nullptr;
    std::string const first = text.substr(0, dash);
    std::string const last = text.substr(dash + 1);
    if (!isNumber(first) || !isNumber(last))
        return nullptr;
    return makeRange(std::stoll(first), std::stoll(last) + 1);
}

void addProperties(Json& report, yx::CProps const& properties) {
    Json all = Json::object();
    for (int i = 0; i < properties.getCount(); ++i)
        all[properties.getName(i).toStdString()] = host::describeValue(properties.getValue(i));
    report["properties"] = all;
    for (char const* const name : kFileProperties) {
        if (!report.contains("file") && all.contains(name))
            report["file"] = all[name];
    }
    if (!all.contains(kRangeProperty))
        return;
    Json const range = parseRange(all[kRangeProperty].get<std::string>());
    if (!range.is_null())
        report["range"] = range;
}

} // namespace

Json reportError(std::exception const& error) {
    Json report{{"code", codeOf(error)},
                {"message", host::printable(error.what())},
                {"text", describeError(error)}};
    auto const* const known = dynamic_cast<yx::CError const*>(&error);
    addProperties(report, known ? known->getParams() : yx::CProps());
    return report;
}

Json reportWrongUsage(std::string const& message) {
    return reportError(UsageError(message));
}

Json reportFinding(std::string const& file, std::string const& text) {
    Json report{{"file", file}, {"text", text}};
    std::string const mark = "(bytes: ";
    std::size_t const start = text.rfind(mark);
    if (start == std::string::npos || !text.ends_with(")"))
        return report;
    std::size_t const rangeStart = start + mark.size();
    Json const range = parseRange(text.substr(rangeStart, text.size() - 1 - rangeStart));
    if (!range.is_null())
        report["range"] = range;
    return report;
}

Json reportDamagedStretches(host::DamageList const& damage) {
    Json list = Json::array();
    for (host::DamagedStretch const& stretch : damage.getStretches()) {
        list.push_back({{"file", host::displayName(stretch.file)},
                        {"text", stretch.reason},
                        {"range", makeRange(stretch.startBytes, stretch.endBytes)}});
    }
    return list;
}

} // namespace kelm::tool
