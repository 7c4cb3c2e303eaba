#pragma once

#include "yx/buffer.h"
#include "yx/string.h"

namespace yx {

/// The value of a hexadecimal digit of either case, -1 for any other character.
YX_API int hexDigitValue(char character);

/// Parses decimal text: an optional sign, then at least one ASCII digit, and nothing else.
/// `wrapUnsigned` also admits 2^63 to 2^64 - 1, which come out as the negative number of the same
/// bits. Blanks, trailing text and overflow throw `CError`: "Invalid number: '" text "'".
YX_API __int64 parseInt64(String const& text, bool wrapUnsigned);

/// The same for hexadecimal digits of either case, without a prefix.
YX_API __int64 parseHexInt64(String const& text, bool wrapUnsigned);

/// Parses "true" and "false", whatever their case, and "1" and "0". Anything else throws `CError`:
/// "Invalid boolean value: '" text "'".
YX_API bool parseBool(String const& text);

/// Two lower-case hexadecimal digits a byte.
YX_API String hexEncode(TBuffer<unsigned char> const& data);

/// The inverse, for digits of either case; sets the used size of `data`. An odd number of digits or
/// another character throws `CError`: "Invalid hexadecimal data: '" text "'"; `data` is then as it
/// was.
YX_API void hexDecode(String const& text, TBuffer<unsigned char>& data);

} // namespace yx
