#include "tools/kelm/output_options.h"

#include <algorithm>
#include <cctype>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/kelm/command_result.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

std::string inLowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

/// The files and folders that the command line names, by the names that the help has for them.
nlohmann::ordered_json reportArguments(CLI::App const& command) {
    nlohmann::ordered_json report = nlohmann::ordered_json::object();
    for (CLI::Option const* const option : command.get_options()) {
        if (!option->get_positional())
            continue;
        auto const& values = option->results();
        std::string const name = inLowerCase(option->get_single_name());
        if (option->get_items_expected_max() > 1)
            report[name] = values;
        else if (!values.empty())
            report[name] = values.front();
    }
    return report;
}

} // namespace

void OutputOptions::addTo(CLI::App& command) {
    addFlag(command, "--json", json, "Print one JSON object, also for an error");
}

void OutputOptions::applyTo(CommandResult& result, CLI::App const& command) const {
    result.begin(command.get_name(), reportArguments(command));
    if (json)
        result.useJSON();
}

} // namespace kelm::tool
