#include "tools/kelm/command_result.h"

#include <cassert>
#include <cmath>
#include <cstdio>
#include <sstream>

#include <nlohmann/json.hpp>

#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/error_report.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

std::string formatAbout(double bytes) {
    return host::formatSize(static_cast<__int64>(bytes));
}

std::string formatMember(nlohmann::ordered_json const& members, char const* name) {
    return host::formatSize(members.value(name, __int64{0}));
}

constexpr char kEndOfObject[] = "\n}";

double secondsSince(std::chrono::steady_clock::time_point start) {
    constexpr double kMillisecondsOfSecond = 1000;
    std::chrono::duration<double, std::milli> const passed =
        std::chrono::steady_clock::now() - start;
    return std::round(passed.count()) / kMillisecondsOfSecond;
}

} // namespace

CommandResult::CommandResult()
    : m_members(std::make_unique<Json>(Json::object())), m_error(std::make_unique<Json>()) {}

CommandResult::~CommandResult() = default;

void CommandResult::begin(std::string const& command, Json const& arguments) {
    m_command = command;
    (*m_members)["command"] = command;
    (*m_members)["arguments"] = arguments;
}

void CommandResult::print(std::string const& text) const {
    if (!m_isJSON && m_words != Words::Errors)
        kelm::tool::print(text);
}

void CommandResult::explain(std::string const& text) const {
    if (m_words == Words::All)
        std::fprintf(stderr, "kelm: %s\n", host::printable(text).c_str());
}

void CommandResult::summarize() const {
    bool const isWanted = m_words == Words::All || (m_words == Words::Usual && !m_isJSON);
    if (!isWanted)
        return;
    double const seconds = secondsSince(m_start);
    __int64 const readBytes = m_members->value("readBytes", __int64{0});
    std::ostringstream text;
    text << "kelm: " << m_command << " took " << seconds << " s";
    if (readBytes > 0 && seconds > 0)
        text << ", " << formatAbout(static_cast<double>(readBytes) / seconds) << "/s";
    text << "\nkelm: ";
    if (m_members->contains("readBytes"))
        text << "read " << formatMember(*m_members, "readBytes") << ", stored "
             << formatMember(*m_members, "storedBytes");
    else
        text << "copied nothing";
    if (m_members->contains("skippedBytes")) {
        text << ", skipped " << formatMember(*m_members, "skippedBytes")
             << " that are zeros or the parent's";
    }
    if (m_members->contains("freeBytes"))
        text << ", left out " << formatMember(*m_members, "freeBytes") << " that are free";
    if (m_members->contains("zeros")) {
        Json const& zeros = m_members->at("zeros");
        text << ", punched " << formatMember(zeros, "punchedBytes") << " of zeros, left "
             << formatMember(zeros, "leftBytes") << ", wrote "
             << formatMember(zeros, "writtenBytes");
    }
    std::size_t const warnings = m_warnings.size();
    text << ", " << warnings << (warnings == 1 ? " warning" : " warnings") << "\n";
    std::fputs(text.str().c_str(), stderr);
}

void CommandResult::add(Json const& members) {
    m_members->update(members);
}

void CommandResult::beginList(std::string const& name) {
    if (!m_isJSON)
        return;
    assert(m_list == List::None && !m_members->empty());
    if (m_isLine) {
        // In one line it is kept all the same.
        (*m_members)[name] = Json::array();
        m_listName = name;
        m_list = List::Empty;
        return;
    }
    std::string const text = formatJSON(*m_members);
    assert(text.ends_with(kEndOfObject));
    kelm::tool::print(text.substr(0, text.size() - 2) + ",\n  \"" + name + "\": [");
    m_members->clear();
    m_list = List::Empty;
}

void CommandResult::addToList(std::string const& element) {
    if (!m_isJSON)
        return;
    assert(m_list != List::None);
    if (m_isLine) {
        m_members->at(m_listName).push_back(Json::parse(element));
        return;
    }
    kelm::tool::print((m_list == List::Empty ? "\n    " : ",\n    ") + element);
    m_list = List::Filled;
}

void CommandResult::addWarning(std::string const& text) {
    m_warnings.push_back(text);
    if (m_words != Words::Errors)
        std::fprintf(stderr, "kelm: warning: %s\n", text.c_str());
}

void CommandResult::setError(std::exception const& error) {
    *m_error = reportError(error);
}

void CommandResult::setWrongUsage(std::string const& message) {
    *m_error = reportWrongUsage(message);
}

void CommandResult::endMembers(ExitStatus status) {
    add({{"seconds", secondsSince(m_start)},
         {"warnings", m_warnings},
         {"exitStatus", static_cast<int>(status)}});
    if (!m_error->is_null())
        (*m_members)["error"] = *m_error;
}

void CommandResult::printLine() const {
    std::fprintf(stderr, "%s\n", formatElement(*m_members).c_str());
}

void CommandResult::finish(ExitStatus status) {
    if (m_isJSON) {
        endMembers(status);
        if (m_isLine) {
            printLine();
        } else {
            std::string const text = formatJSON(*m_members);
            if (m_list == List::None)
                kelm::tool::print(text + "\n");
            else
                kelm::tool::print((m_list == List::Empty ? "]," : "\n  ],") + text.substr(1) +
                                  "\n");
        }
    }
    flushOutput();
}

} // namespace kelm::tool
