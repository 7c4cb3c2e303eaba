#include "tools/kelm/options.h"

#include <filesystem>
#include <optional>

#include <CLI/CLI.hpp>

#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "host/system/size_text.h"
#include "yx/error.h"

namespace kelm::tool {

namespace {

constexpr int kMaxThreads = 1024;

/// A year.
constexpr int kMaxWaitSeconds = 365 * 24 * 60 * 60;

/// The name of a file as the user gives it, that of a link too.
yx::String lastNameOf(std::string const& file) {
    yx::String const text = yx::String::fromUTF8(file);
    if (host::isStoreURI(file) || file.starts_with("file:"))
        return yx::CURI(text).getName();
    return yx::String::fromUTF8(std::filesystem::path(file).filename().string());
}

} // namespace

void addFlag(CLI::App& command, std::string const& name, bool& target,
             std::string const& description) {
    command.add_flag(name, target, description);
}

void addFileOption(CLI::App& command, std::string const& name, std::string& target,
                   std::string const& description, bool required) {
    command.add_option(name, target, description)->required(required)->type_name("FILE");
}

void addTextOption(CLI::App& command, std::string const& name, std::string& target,
                   std::string const& description) {
    command.add_option(name, target, description)->type_name("TEXT");
}

void addSizeOption(CLI::App& command, std::string const& name, __int64& target,
                   std::string const& description) {
    auto const parse = [name, &target](std::string const& text) {
        try {
            target = host::parseSize(text);
        } catch (yx::CError const& error) {
            throw CLI::ValidationError(name, error.what());
        }
    };
    command.add_option_function<std::string>(name, parse, description)->type_name("SIZE");
}

void addNumberOption(CLI::App& command, std::string const& name, int& target, int min, int max,
                     std::string const& description) {
    command.add_option(name, target, description)->check(CLI::Range(min, max))->type_name("N");
}

void addPercentOption(CLI::App& command, std::string const& name, double& target,
                      std::string const& description) {
    auto const isPercentage = [](std::string const& text) -> std::string {
        double percent = 0;
        bool const isNumber = CLI::detail::lexical_cast(text, percent);
        return isNumber && percent > 0 && percent <= 100
                   ? ""
                   : "Not a number above 0 and up to 100: " + text;
    };
    command.add_option(name, target, description)->check(isPercentage)->type_name("PERCENT");
}

void addLookOption(CLI::App& command, std::vector<std::string>& target) {
    addFoldersOption(command, "--look", target,
                     "A folder in which children of the disk are looked for, by default the disk's "
                     "own; may be given several times");
}

void addFoldersOption(CLI::App& command, std::string const& name, std::vector<std::string>& target,
                      std::string const& description) {
    command.add_option(name, target, description)->type_name("FOLDER")->allow_extra_args(false);
}

std::vector<yx::CURI> foldersToLookIn(std::vector<std::string> const& lookIn,
                                      yx::CURI const& mainFile) {
    if (lookIn.empty())
        return {mainFile.getParent()};
    std::vector<yx::CURI> folders;
    folders.reserve(lookIn.size());
    for (std::string const& folder : lookIn)
        folders.push_back(host::uriFromArgument(folder));
    return folders;
}

yx::CURI nameIn(std::string const& target, std::string const& file) {
    yx::CURI uri = host::uriFromArgument(target);
    std::optional<host::FileStatus> const status = host::findStatus(uri);
    if (!status || status->kind != host::FileKind::Folder)
        return uri;
    return host::resolveName((yx::CURI(uri) << lastNameOf(file)).toNormalized());
}

void addThreadsOption(CLI::App& command, int& target) {
    addNumberOption(command, "--threads", target, 1, kMaxThreads,
                    "Threads that work on grains; all cores by default");
}

void addForceOption(CLI::App& command, bool& target) {
    addFlag(command, "--force", target, "Replace files that exist already");
}

void addUnfinishedOption(CLI::App& command, bool& target) {
    addFlag(command, "--unfinished", target,
            "Read also a disk that was not filled to its end, as it is");
}

void addWaitOption(CLI::App& command, int& targetSeconds) {
    command
        .add_option("--wait", targetSeconds,
                    "Wait so long, in all, for disks that are in use; by default not at all")
        ->check(CLI::Range(0, kMaxWaitSeconds))
        ->type_name("SECONDS");
}

void addStoreTimeoutOption(CLI::App& command, int& targetSeconds) {
    command
        .add_option("--store-timeout", targetSeconds,
                    "Give up a store (a cluster, a bucket) that does not answer for so long; by "
                    "default never")
        ->check(CLI::Range(0, kMaxWaitSeconds))
        ->type_name("SECONDS");
}

void addFileArgument(CLI::App& command, std::string const& name, std::string& target,
                     std::string const& description) {
    addFileOption(command, name, target, description, true);
}

} // namespace kelm::tool
