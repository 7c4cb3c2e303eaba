#pragma once

#include <string>
#include <vector>

#include "host/system/cancel.h"
#include "host/transfer/changed_grains.h"

namespace kelm::tool {

/// Reads which ranges of an image have changed, as tools that compare snapshots print it:
///
/// - JSON arrays of objects with "offset" and "length" in bytes. Whatever else an object says, such
///   as "type", "exists" or "zero", changes nothing: what the range now holds is read from the image.
/// - Lines of two numbers, the offset and the length. Empty lines, and what follows a "#", are
///   skipped.
///
/// Ranges may overlap and come in any order. `file` may be "-" for standard input. A list that
/// cannot be read so, and a range that does not lie in `imageBytes`, are `UsageError` with the file
/// and the line, or the number of the entry of a JSON array. Lists of more than 1 GiB are refused.
std::vector<host::ImageRange> readChangedList(std::string const& file, __int64 imageBytes,
                                              host::CancelFlag const& cancel);

/// The same for a text; `name` is what errors call it.
std::vector<host::ImageRange> parseChangedList(std::string const& text, std::string const& name,
                                               __int64 imageBytes);

} // namespace kelm::tool
