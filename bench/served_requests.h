#pragma once

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "bench/content_files.h"

namespace bench {

/// What `fio` asks a server for, the field in which it counts that, and the server's command.
struct AskedRequests {
    std::string options;
    int field;
    char const* server;
};

/// Where `fio` counts reads.
inline constexpr int kReadsField = 7;

/// Where `fio` counts writes.
inline constexpr int kWritesField = 48;

/// How many requests of 4 KiB a server answers in a second; `plugin` is what nbdkit is to load, with
/// what that takes.
inline double requestsPerSecond(AskedRequests const& what, std::string const& plugin) {
    std::string const asked =
        "fio --name=requests --ioengine=nbd --uri=\"$uri\" " + what.options + " --bs=4k --minimal";
    std::string const command =
        std::string(what.server) + " -U - " + plugin + " --run " + quoted(asked);
    FILE* const output = ::popen(command.c_str(), "r");
    if (!output)
        failWith("failed: " + command);
    std::string text;
    for (int letter = std::fgetc(output); letter != EOF; letter = std::fgetc(output))
        text += static_cast<char>(letter);
    std::istringstream fields(text);
    std::string field;
    for (int i = 0; i <= what.field; ++i)
        std::getline(fields, field, ';');
    double const requests = std::atof(field.c_str());
    if (::pclose(output) != 0 || requests <= 0)
        failWith("failed: " + command);
    return requests;
}

} // namespace bench
