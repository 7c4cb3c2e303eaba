#include "tools/kelm/svg.h"

#include <cstdio>

namespace kelm::tool::svg {

std::string escape(std::string const& text) {
    std::string escaped;
    for (char const character : text) {
        if (character == '<')
            escaped += "&lt;";
        else if (character == '&')
            escaped += "&amp;";
        else if (static_cast<unsigned char>(character) < ' ')
            escaped += '?';
        else
            escaped += character;
    }
    return escaped;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

std::string rect(double x, double y, double width, double height, char const* fill) {
    return "<rect x=\"" + number(x) + "\" y=\"" + number(y) + "\" width=\"" + number(width) +
           "\" height=\"" + number(height) + "\" fill=\"" + fill + "\"/>\n";
}

std::string label(double x, double y, int size, std::string const& text) {
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" font-size=\"" +
           std::to_string(size) + "\">" + escape(text) + "</text>\n";
}

} // namespace kelm::tool::svg
