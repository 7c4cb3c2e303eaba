#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelm::host {

/// The bytes that a file has for a descriptor: the text, and zeros behind it. Begins with a sector.
using DescriptorArea = std::vector<unsigned char>;

/// A part of a text.
struct TextSpan {
    std::size_t start;  ///< the offset of its first byte
    std::size_t length; ///< in bytes
};

/// The lines of a text, without their line ends.
std::vector<TextSpan> splitLines(std::string_view text);

/// The value in the first line of that key, quotes included; nothing if there is none.
std::optional<TextSpan> findValue(std::string_view text, char const* key);

/// Replaces a part of the text by bytes of another length, so that a power cut can do as little
/// harm as possible. Where a comment in the same sector can make up for the length (blanks behind
/// it, or letters off its end), all lines behind keep their places, and the areas differ in a
/// single sector, which a cut leaves old or new. Otherwise the lines behind move. The comments by
/// which other software knows a descriptor stay. Nothing, if the area has no room.
std::optional<DescriptorArea> replaceInArea(DescriptorArea const& area, TextSpan const& old,
                                            std::string const& replacement);

/// Whether two areas of one size differ in no more than one sector.
bool differInOneSector(DescriptorArea const& from, DescriptorArea const& to);

} // namespace kelm::host
