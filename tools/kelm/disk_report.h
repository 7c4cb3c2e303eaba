#pragma once

#include <nlohmann/json.hpp>

#include "host/transfer/transfer.h"

namespace kelm::tool {

/// All that `info` shows about one disk, in its order. Values that the descriptor does not have are
/// left out.
nlohmann::ordered_json reportDisk(host::SafeDisk& disk);

/// How much space the grains and tables of a disk take. Reads all tables.
nlohmann::ordered_json reportSpace(host::SafeDisk& disk, host::WorkOptions const& options);

/// The text of a JSON document, in lines that are safe to print; the last one has no end.
std::string formatJSON(nlohmann::ordered_json const& document);

/// The same in one line, for an element of a long list.
std::string formatElement(nlohmann::ordered_json const& element);

/// The names of files for people, each in a line of its own.
std::string formatNames(std::vector<yx::CURI> const& files);

/// The names of files for people, as a JSON array.
nlohmann::ordered_json listNames(std::vector<yx::CURI> const& files);

/// The lines of `info`. `report` is that of `reportDisk`, with "parents" added, an array of objects
/// with "file" and either "contentID" or "error", and optionally "space", the report of
/// `reportSpace`.
std::string formatReport(nlohmann::ordered_json const& report);

} // namespace kelm::tool
