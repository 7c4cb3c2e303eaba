#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelm::s3 {

/// Escapes all bytes but letters, digits, "-", ".", "_", "~" and, with `keepsSlashes`, "/" by a
/// percent sign and two digits in upper case, as signatures demand it.
std::string escape(std::string_view bytes, bool keepsSlashes);

/// The inverse; nothing if a percent sign has no two hexadecimal digits behind it. With
/// `plusIsBlank` a "+" stands for a blank.
std::optional<std::string> unescape(std::string_view text, bool plusIsBlank = false);

/// Two lower-case digits a byte.
std::string toHex(std::string_view bytes);

/// In lower case, where the letters are those of ASCII.
std::string toLowerCase(std::string text);

/// Without blanks, tabs and ends of lines at both ends.
std::string trim(std::string_view text);

} // namespace kelm::s3
