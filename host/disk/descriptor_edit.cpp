#include "host/disk/descriptor_edit.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/constants.h"
#include "kelm/format/internal/descriptor_text.h"

namespace kelm::host {

namespace {

/// What other software knows a descriptor and its data base by, so that it must not change.
constexpr std::string_view kTitleComment = "# Disk DescriptorFile";
constexpr std::string_view kDataBaseComment = "#DDB";

/// The comments of a text that may get longer or shorter.
std::vector<TextSpan> listComments(std::string_view text) {
    std::vector<TextSpan> comments;
    for (TextSpan const& line : splitLines(text)) {
        std::string_view const content = text.substr(line.start, line.length);
        bool const isFixed =
            content.starts_with(kTitleComment) || content.starts_with(kDataBaseComment);
        if (content.starts_with('#') && !content.ends_with('\r') && !isFixed)
            comments.push_back(line);
    }
    return comments;
}

/// The text with the replacement, and with a comment that makes up for its length; nothing if that
/// comment cannot.
std::optional<std::string> replaceWithComment(std::string const& text, TextSpan const& old,
                                              std::string const& replacement,
                                              TextSpan const& comment) {
    std::string content = text.substr(comment.start, comment.length);
    std::size_t const wanted = content.size() + old.length;
    if (wanted < replacement.size() + 1)
        return std::nullopt;
    std::size_t const length = wanted - replacement.size();
    // A character that is cut in two would make the text none of its encoding.
    if (length < content.size() && (static_cast<unsigned char>(content[length]) & 0xC0) == 0x80)
        return std::nullopt;
    content.resize(length, ' ');
    std::string changed = text;
    // The one that stands behind comes first, so that the other one's place still holds.
    if (comment.start > old.start) {
        changed.replace(comment.start, comment.length, content);
        return changed.replace(old.start, old.length, replacement);
    }
    changed.replace(old.start, old.length, replacement);
    return changed.replace(comment.start, comment.length, content);
}

/// Nothing if the text is longer than the area.
std::optional<DescriptorArea> areaOf(std::string const& text, std::size_t sizeBytes) {
    if (text.size() > sizeBytes)
        return std::nullopt;
    DescriptorArea area(text.begin(), text.end());
    area.resize(sizeBytes, 0);
    return area;
}

} // namespace

std::vector<TextSpan> splitLines(std::string_view text) {
    std::vector<TextSpan> lines;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t const end = std::min(text.find('\n', start), text.size());
        lines.push_back({start, end - start});
        start = end + 1;
    }
    return lines;
}

std::optional<TextSpan> findValue(std::string_view text, char const* key) {
    for (TextSpan const& line : splitLines(text)) {
        auto const entry = detail::tryParseNameValue(text.substr(line.start, line.length));
        if (!entry ||
            !detail::isSameKey(wxString::From8BitData(entry->name.data(), entry->name.size()), key))
            continue;
        auto const start = static_cast<std::size_t>(entry->value.data() - text.data());
        return entry->quoted ? TextSpan{start - 1, entry->value.size() + 2}
                             : TextSpan{start, entry->value.size()};
    }
    return std::nullopt;
}

std::optional<DescriptorArea> replaceInArea(DescriptorArea const& area, TextSpan const& old,
                                            std::string const& replacement) {
    std::string const text(area.begin(), std::find(area.begin(), area.end(), 0));
    assert(old.start + old.length <= text.size());
    std::string changed = text;
    changed.replace(old.start, old.length, replacement);
    std::optional<DescriptorArea> plain = areaOf(changed, area.size());
    if (plain && differInOneSector(area, *plain))
        return plain;
    for (TextSpan const& comment : listComments(text)) {
        std::optional<std::string> const balanced =
            replaceWithComment(text, old, replacement, comment);
        if (!balanced)
            continue;
        DescriptorArea const candidate = *areaOf(*balanced, area.size());
        if (differInOneSector(area, candidate))
            return candidate;
    }
    return plain;
}

bool differInOneSector(DescriptorArea const& from, DescriptorArea const& to) {
    assert(from.size() == to.size());
    int count = 0;
    for (std::size_t at = 0; at < from.size(); at += kSectorSizeBytes) {
        std::size_t const end = std::min<std::size_t>(at + kSectorSizeBytes, from.size());
        auto const place = [&](DescriptorArea const& area, std::size_t offset) {
            return area.begin() + static_cast<std::ptrdiff_t>(offset);
        };
        count += !std::equal(place(from, at), place(from, end), place(to, at));
    }
    return count <= 1;
}

} // namespace kelm::host
