#include <memory>

#include <CLI/CLI.hpp>

#include "tools/kelm/commands.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/manual.h"

namespace kelm::tool {

namespace {

bool isAny(CLI::App const*) {
    return true;
}

std::string listTopics(CLI::App& program) {
    std::string names;
    for (std::string const& topic : listManualTopics())
        names += (names.empty() ? "" : ", ") + topic;
    for (CLI::App const* const command : program.get_subcommands(isAny))
        names += ", " + command->get_name();
    return names;
}

std::string findText(CLI::App& program, std::string const& topic) {
    if (topic.empty()) {
        // Its own function would give the help of the command that is running.
        return program.get_formatter()->make_help(&program, program.get_name(),
                                                  CLI::AppFormatMode::Normal) +
               "\nTopics of 'kelm help': " + listTopics(program) + "\n";
    }
    for (CLI::App const* const command : program.get_subcommands(isAny)) {
        if (command->get_name() == topic)
            return command->help(program.get_name());
    }
    return formatManualTopic(topic);
}

ExitStatus help(Invocation& invocation, CLI::App& program, std::string const& topic) {
    std::string const text = findText(program, topic);
    if (text.empty())
        throw UsageError("There is no help on '" + topic + "', only on: " + listTopics(program));
    invocation.getResult().print(text);
    invocation.getResult().add({{"text", text}});
    return ExitStatus::Done;
}

} // namespace

void addHelpCommand(CLI::App& program, Run& run) {
    auto const topic = std::make_shared<std::string>();
    CLI::App& command = addPlainCommand(
        program, run, "help", "Print help on a command or a topic", "kelm help exit-status",
        [&program, topic](Invocation& invocation) { return help(invocation, program, *topic); });
    command
        .add_option("TOPIC", *topic, "A command, or one of the topics that are listed without this")
        ->type_name("");
}

} // namespace kelm::tool
