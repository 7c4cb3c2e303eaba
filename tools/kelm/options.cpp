#include "tools/kelm/options.h"

#include "host/size_text.h"
#include "yx/error.h"

namespace kelm::tool {

namespace {

constexpr int kMaxThreads = 1024;

} // namespace

CLI::Option* addSizeOption(CLI::App& command, std::string const& name, __int64& target,
                           std::string const& description) {
    auto const parse = [name, &target](std::string const& text) {
        try {
            target = host::parseSize(text);
        } catch (yx::CError const& error) {
            throw CLI::ValidationError(name, error.what());
        }
    };
    return command.add_option_function<std::string>(name, parse, description)->type_name("SIZE");
}

void addThreadsOption(CLI::App& command, int& target) {
    command.add_option("--threads", target, "Threads that work on grains; all cores by default")
        ->check(CLI::Range(1, kMaxThreads))
        ->type_name("N");
}

void addForceOption(CLI::App& command, bool& target) {
    command.add_flag("--force", target, "Replace files that exist already");
}

void addFileArgument(CLI::App& command, std::string const& name, std::string& target,
                     std::string const& description) {
    command.add_option(name, target, description)->required()->type_name("FILE");
}

void setExample(CLI::App& command, std::string const& example) {
    command.footer("Example:\n  " + example);
}

} // namespace kelm::tool
