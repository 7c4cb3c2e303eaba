#pragma once

#include <string>

namespace bench {

class Report;

/// Adds what the figures were measured on: the machine, the file system of `folder`, the versions.
void addMachine(Report& report, std::string const& folder);

/// Processors that this process may use.
int coreCount();

/// Whether the folder is in memory rather than on a device.
bool isInMemory(std::string const& folder);

} // namespace bench
