#include "tools/kelm/output_options.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/kelm/invocation.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

std::map<std::string, ProgressKind> const kProgressKinds{
    {"bar", ProgressKind::Bar}, {"json", ProgressKind::Lines}, {"none", ProgressKind::None}};

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
    addFlag(command, "--quiet", quiet, "Say nothing but errors");
    addFlag(command, "--verbose", verbose,
            "Say also what the work was based on, and how much was done");
    command.get_option("--verbose")->excludes("--quiet");
    command
        .add_option("--progress", progress,
                    "How progress is shown on standard error: bar (default, on a terminal), json "
                    "(an object in a line, once a second) or none")
        ->type_name("KIND")
        ->check(CLI::IsMember({"bar", "json", "none"}));
}

Words OutputOptions::wordsWanted() const {
    if (quiet)
        return Words::Errors;
    return verbose ? Words::All : Words::Usual;
}

void OutputOptions::applyTo(Invocation& invocation, CLI::App const& command) const {
    CommandResult& result = invocation.getResult();
    result.begin(command.get_name(), reportArguments(command));
    if (json)
        result.useJSON();
    result.setWords(wordsWanted());
    ProgressKind const kind = kProgressKinds.at(progress);
    invocation.setProgressKind(quiet && kind == ProgressKind::Bar ? ProgressKind::None : kind);
}

} // namespace kelm::tool
