#pragma once

namespace kelm::tool {

/// The manual page, as kelm.1 has it. The build makes the source of this from that file.
extern char const kManualText[];

} // namespace kelm::tool
