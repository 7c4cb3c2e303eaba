#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace yx::detail {

// The characters of a URI: ASCII only, whatever the locale.

bool isAlpha(char character);
bool isDigit(char character);
bool isOneOf(char character, std::string_view set);
bool isUnreserved(char character);

/// What may stand unescaped in a user name, authentication information and a host.
bool isAuthorityChar(char character);
bool isSegmentChar(char character);
bool isPathChar(char character);

/// The same set serves the query and the fragment.
bool isQueryChar(char character);

using CharTest = bool (*)(char);

std::string toLowerAscii(std::string text);
std::string toUpperAscii(std::string text);

/// Escapes all bytes that are not allowed.
std::string escape(std::string_view bytes, CharTest isAllowed);

/// Text that is in escaped form already, with the rest of what may not stand in it escaped too.
/// Absent if it has a percent sign without two hexadecimal digits.
std::optional<std::string> completeEscapes(std::string_view text, CharTest isAllowed);

/// The bytes that escaped text stands for.
std::string unescape(std::string_view escaped);

/// Escaped text without the escapes of what need not be escaped, the others in upper case.
std::string normalizeEscapes(std::string_view escaped, CharTest isUnescaped);

} // namespace yx::detail
