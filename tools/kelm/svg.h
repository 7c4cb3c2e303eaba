#pragma once

#include <string>

/// Pieces of SVG documents. Lengths are in pixels.
namespace kelm::tool::svg {

/// A text as content of an element. Control characters become question marks.
std::string escape(std::string const& text);

/// A number with four digits.
std::string number(double value);

/// A rectangle. `fill` is a colour or a reference to a pattern.
std::string rect(double x, double y, double width, double height, char const* fill);

/// A line of text whose baseline begins there.
std::string label(double x, double y, int size, std::string const& text);

} // namespace kelm::tool::svg
