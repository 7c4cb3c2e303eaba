#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace bench {

// Options that several of the programs have. The value that is there is the default.

inline void addRoundsTo(CLI::App& app, int& rounds) {
    app.add_option("--rounds", rounds, "Rounds in which both sides of a comparison take turns")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
}

inline void addWorkTo(CLI::App& app, std::string& folder) {
    app.add_option("--work", folder, "A folder for work files")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
}

inline void addContentTo(CLI::App& app, std::string& folder) {
    app.add_option("--content", folder, "A folder whose files fill the image of a file system")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
}

} // namespace bench
