#pragma once

#include <exception>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/transfer/damage_list.h"

namespace kelm::tool {

/// What programs can know of an error: a code, the message, its properties, and if they tell it, the
/// file and the bytes of the disk.
nlohmann::ordered_json reportError(std::exception const& error);

/// The same for a command line that makes no sense.
nlohmann::ordered_json reportWrongUsage(std::string const& message);

/// What one thing that is wrong with a disk says, as `check` tells it; with the bytes of the disk if
/// the text ends with them.
nlohmann::ordered_json reportFinding(std::string const& file, std::string const& text);

/// The damaged stretches of a disk that was salvaged.
nlohmann::ordered_json reportDamagedStretches(host::DamageList const& damage);

} // namespace kelm::tool
