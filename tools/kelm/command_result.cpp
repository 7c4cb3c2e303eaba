#include "tools/kelm/command_result.h"

#include <cassert>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/kelm/disk_report.h"
#include "tools/kelm/error_report.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

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
    (*m_members)["command"] = command;
    (*m_members)["arguments"] = arguments;
}

void CommandResult::print(std::string const& text) const {
    if (!m_isJSON)
        kelm::tool::print(text);
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
