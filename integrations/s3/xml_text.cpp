#include "integrations/s3/xml_text.h"

#include <array>
#include <charconv>

namespace kelm::s3 {

namespace {

struct Entity {
    std::string_view name;
    char character;
};

constexpr std::array kEntities{Entity{"&amp;", '&'}, Entity{"&lt;", '<'}, Entity{"&gt;", '>'},
                               Entity{"&quot;", '"'}, Entity{"&apos;", '\''}};

/// The character of an entity that gives a number below 128, such as "&#34;" or "&#x22;"; 0 if it
/// is none. What lies above is escaped in the answers that matter.
char readNumber(std::string_view entity) {
    if (entity.size() < 4 || !entity.starts_with("&#"))
        return 0;
    bool const isHex = entity[2] == 'x';
    std::string_view const digits = entity.substr(isHex ? 3 : 2, entity.size() - (isHex ? 4 : 3));
    constexpr int kDecimal = 10;
    constexpr int kHexadecimal = 16;
    int number = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number,
                                              isHex ? kHexadecimal : kDecimal);
    constexpr int kLastOfASCII = 127;
    bool const isValid = error == std::errc() && end == digits.data() + digits.size() &&
                         number > 0 && number <= kLastOfASCII;
    return isValid ? static_cast<char>(number) : '\0';
}

char readEntity(std::string_view entity) {
    for (Entity const& known : kEntities) {
        if (known.name == entity)
            return known.character;
    }
    return readNumber(entity);
}

std::string resolveEntities(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::size_t const end = text[i] == '&' ? text.find(';', i) : std::string_view::npos;
        char const character =
            end == std::string_view::npos ? '\0' : readEntity(text.substr(i, end - i + 1));
        result += character == 0 ? text[i] : character;
        if (character != 0)
            i = end;
    }
    return result;
}

} // namespace

std::vector<std::string_view> findElements(std::string_view xml, std::string_view name) {
    std::vector<std::string_view> elements;
    std::string const begin = "<" + std::string(name);
    std::string const end = "</" + std::string(name) + ">";
    std::size_t position = 0;
    while ((position = xml.find(begin, position)) != std::string_view::npos) {
        position += begin.size();
        std::size_t const endOfTag = xml.find('>', position);
        if (endOfTag == std::string_view::npos)
            break;
        // Another element whose name only begins so.
        if (endOfTag != position && xml[position] != ' ' && xml[position] != '/')
            continue;
        if (xml[endOfTag - 1] == '/') {
            elements.emplace_back();
            continue;
        }
        std::size_t const close = xml.find(end, endOfTag);
        if (close == std::string_view::npos)
            break;
        elements.push_back(xml.substr(endOfTag + 1, close - endOfTag - 1));
        position = close + end.size();
    }
    return elements;
}

std::optional<std::string> findText(std::string_view xml, std::string_view name) {
    std::vector<std::string_view> const elements = findElements(xml, name);
    if (elements.empty())
        return std::nullopt;
    return resolveEntities(elements.front());
}

std::string toXMLText(std::string_view text) {
    std::string result;
    for (char const character : text) {
        Entity const* found = nullptr;
        for (Entity const& entity : kEntities) {
            if (entity.character == character)
                found = &entity;
        }
        if (found)
            result += found->name;
        else
            result += character;
    }
    return result;
}

} // namespace kelm::s3
