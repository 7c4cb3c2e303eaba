#include "tools/kelm/changed_list.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>

#include <nlohmann/json.hpp>

#include "host/system/name_text.h"
#include "host/transfer/raw_source.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/local_file.h"

namespace kelm::tool {

namespace {

using ListJSON = nlohmann::json;

constexpr std::size_t kMaxListBytes = std::size_t{1} << 30;
constexpr char kBlanks[] = " \t\r\n\f\v";

std::string readText(std::string const& file, host::CancelFlag const& cancel) {
    verifyIsOnThisMachine("The list of changes", file);
    host::RawSource source(file, &cancel);
    std::string text;
    std::vector<unsigned char> buffer(std::size_t{1} << 16);
    bool isHole = false;
    while (int const count =
               source.readNext(buffer.data(), static_cast<int>(buffer.size()), isHole)) {
        if (isHole)
            std::fill(buffer.begin(), buffer.end(), static_cast<unsigned char>(0));
        text.append(buffer.begin(), buffer.begin() + count);
        if (text.size() > kMaxListBytes)
            throw UsageError("The list of changes is too long: " + host::printable(file));
    }
    return text;
}

/// Says where in a list something is wrong.
class ListPlace {
public:
    ListPlace(std::string const& name, __int64 imageBytes)
        : m_name(host::printable(name)), m_imageBytes(imageBytes) {}

    void goTo(std::string const& unit, std::size_t number) {
        m_unit = unit;
        m_number = number;
    }

    [[noreturn]] void fail(std::string const& words) const {
        throw UsageError(m_name + ", " + m_unit + " " + std::to_string(m_number) + ": " + words);
    }

    host::ImageRange makeRange(__int64 offset, __int64 length) const {
        if (offset < 0 || length < 0)
            fail("a range has no negative numbers");
        if (offset > m_imageBytes || length > m_imageBytes - offset) {
            fail("the range from " + std::to_string(offset) + " on of " + std::to_string(length) +
                 " bytes does not lie in the image, which has " + std::to_string(m_imageBytes));
        }
        return {offset, offset + length};
    }

private:
    std::string m_name;
    __int64 m_imageBytes;
    std::string m_unit = "line";
    std::size_t m_number = 1;
};

__int64 takeNumber(std::string_view& line, ListPlace const& place) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    __int64 number = 0;
    auto const [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    auto const taken = static_cast<std::size_t>(end - line.data());
    bool const isWhole = taken == line.size() ||
                         std::string_view(kBlanks).find(line[taken]) != std::string_view::npos;
    if (error != std::errc() || !isWhole)
        place.fail("not an offset and a length in bytes");
    line.remove_prefix(taken);
    return number;
}

std::vector<host::ImageRange> parseLines(std::string const& text, ListPlace place) {
    std::vector<host::ImageRange> ranges;
    std::istringstream lines(text);
    std::size_t number = 0;
    for (std::string whole; std::getline(lines, whole);) {
        place.goTo("line", ++number);
        std::string_view line = std::string_view(whole).substr(0, whole.find('#'));
        if (line.find_first_not_of(kBlanks) == std::string_view::npos)
            continue;
        __int64 const offset = takeNumber(line, place);
        __int64 const length = takeNumber(line, place);
        if (line.find_first_not_of(kBlanks) != std::string_view::npos)
            place.fail("not an offset and a length in bytes");
        ranges.push_back(place.makeRange(offset, length));
    }
    return ranges;
}

__int64 numberIn(ListJSON const& entry, char const* key, ListPlace const& place) {
    auto const found = entry.find(key);
    if (found == entry.end() || !found->is_number_integer())
        place.fail("an entry has an \"offset\" and a \"length\" in bytes");
    // What is larger than 63 bits becomes negative, and is refused as such.
    return found->get<__int64>();
}

void addEntries(ListJSON const& array, ListPlace& place, std::vector<host::ImageRange>& ranges) {
    std::size_t number = 0;
    for (ListJSON const& entry : array) {
        place.goTo("entry", ++number);
        if (!entry.is_object())
            place.fail("an entry has an \"offset\" and a \"length\" in bytes");
        ranges.push_back(
            place.makeRange(numberIn(entry, "offset", place), numberIn(entry, "length", place)));
    }
}

std::vector<host::ImageRange> parseJSON(std::string const& text, ListPlace place) {
    std::vector<host::ImageRange> ranges;
    try {
        ListJSON const document = ListJSON::parse(text);
        addEntries(document, place, ranges);
    } catch (ListJSON::parse_error const& error) {
        std::size_t const bytes = std::min(error.byte, text.size());
        auto const end = text.begin() + static_cast<std::ptrdiff_t>(bytes);
        place.goTo("line", 1 + static_cast<std::size_t>(std::count(text.begin(), end, '\n')));
        place.fail("not valid JSON");
    }
    return ranges;
}

} // namespace

std::vector<host::ImageRange> parseChangedList(std::string const& text, std::string const& name,
                                               __int64 imageBytes) {
    ListPlace const place(name, imageBytes);
    std::size_t const start = text.find_first_not_of(kBlanks);
    bool const isJSON = start != std::string::npos && text[start] == '[';
    return isJSON ? parseJSON(text, place) : parseLines(text, place);
}

std::vector<host::ImageRange> readChangedList(std::string const& file, __int64 imageBytes,
                                              host::CancelFlag const& cancel) {
    return parseChangedList(readText(file, cancel), file, imageBytes);
}

} // namespace kelm::tool
