#pragma once

#include <nlohmann/json.hpp>

#include "host/transfer/transfer.h"

namespace kelm::tool {

/// All that is to be told about one disk, in the order in which it is told. What a descriptor does
/// not have is left out.
nlohmann::ordered_json reportDisk(host::SafeDisk& disk);

/// The space of a disk's grains by kind of use; reads all tables.
nlohmann::ordered_json reportSpace(host::SafeDisk& disk, host::WorkOptions const& options);

/// The text of a JSON document, in lines that are safe to print; the last one has no end.
std::string formatJSON(nlohmann::ordered_json const& document);

/// A report of `reportDisk` in lines for people. To it belong "parents", an array of objects with
/// "file" and either "contentID" or "error", and perhaps "space", a report of `reportSpace`.
std::string formatReport(nlohmann::ordered_json const& report);

} // namespace kelm::tool
