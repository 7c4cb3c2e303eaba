#include "host/disk/own_name.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "host/store/file_names.h"
#include "kelm/format/constants.h"
#include "kelm/format/descriptor.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

using Area = std::vector<unsigned char>;

/// What other software knows a descriptor and its data base by, so that it must not change.
constexpr std::string_view kTitleComment = "# Disk DescriptorFile";
constexpr std::string_view kDataBaseComment = "#DDB";

/// A part of a text.
struct Span {
    std::size_t start;
    std::size_t length;
};

CVMDKDescriptor parseDescriptor(std::string_view text) {
    yx::TBuffer<unsigned char> bytes(static_cast<int>(text.size()), -1);
    std::copy(text.begin(), text.end(), bytes.getData());
    return CVMDKDescriptor(bytes);
}

yx::TArray<yx::P<CVMDKExtentInfo>> listExtentLines(CVMDKDescriptor const& descriptor) {
    yx::TArray<yx::P<CVMDKExtentInfo>> lines;
    descriptor.getExtentEntries(lines);
    return lines;
}

/// Whether a line is an extent line, by the rules of the library. Every byte is a character of
/// Latin-1, whatever the encoding of the text.
bool isExtentLine(std::string_view line) {
    std::string text = "encoding=latin1\n";
    text += line;
    return !listExtentLines(parseDescriptor(text)).isEmpty();
}

std::vector<Span> splitLines(std::string_view text) {
    std::vector<Span> lines;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t const end = std::min(text.find('\n', start), text.size());
        lines.push_back({start, end - start});
        start = end + 1;
    }
    return lines;
}

/// Where the name stands in the first extent line, between its quotes.
std::optional<Span> findFirstName(std::string_view text) {
    for (Span const& line : splitLines(text)) {
        std::string_view const content = text.substr(line.start, line.length);
        if (!isExtentLine(content))
            continue;
        std::size_t const open = content.find('"');
        std::size_t const close = content.find('"', open + 1);
        return Span{line.start + open + 1, close - open - 1};
    }
    return std::nullopt;
}

/// The name as the text's encoding has it; nothing if it has no such letters.
std::optional<std::string> encodeName(CVMDKDescriptor const& descriptor, yx::String const& name) {
    yx::String encoding;
    descriptor.tryGetValue("encoding", encoding);
    wxString reduced = encoding.wx().Lower();
    reduced.Replace("-", "");
    reduced.Replace("_", "");
    if (reduced.empty() || reduced == "utf8")
        return name.toStdString();
    constexpr wxUint32 kGreatestLatin1Character = 0xFF;
    std::string encoded;
    for (wxUniChar const character : name.wx()) {
        if (character.GetValue() > kGreatestLatin1Character)
            return std::nullopt;
        encoded += static_cast<char>(character.GetValue());
    }
    return encoded;
}

/// The comments of a text that may get longer or shorter.
std::vector<Span> listComments(std::string_view text) {
    std::vector<Span> comments;
    for (Span const& line : splitLines(text)) {
        std::string_view const content = text.substr(line.start, line.length);
        bool const isFixed =
            content.starts_with(kTitleComment) || content.starts_with(kDataBaseComment);
        if (content.starts_with('#') && !content.ends_with('\r') && !isFixed)
            comments.push_back(line);
    }
    return comments;
}

std::string withName(std::string text, Span const& old, std::string const& name) {
    return text.replace(old.start, old.length, name);
}

/// The text with another name, and with a comment that makes up for the name's length; nothing if
/// that comment cannot.
std::optional<std::string> withNameAndComment(std::string const& text, Span const& old,
                                              std::string const& name, Span const& comment) {
    std::string content = text.substr(comment.start, comment.length);
    std::size_t const wanted = content.size() + old.length;
    if (wanted < name.size() + 1)
        return std::nullopt;
    std::size_t const length = wanted - name.size();
    // A character that is cut in two would make the text none of its encoding.
    if (length < content.size() && (static_cast<unsigned char>(content[length]) & 0xC0) == 0x80)
        return std::nullopt;
    content.resize(length, ' ');
    std::string changed = text;
    // The one that stands behind comes first, so that the other one's place still holds.
    if (comment.start > old.start)
        return withName(changed.replace(comment.start, comment.length, content), old, name);
    changed.replace(old.start, old.length, name);
    return changed.replace(comment.start, comment.length, content);
}

int countChangedSectors(Area const& from, Area const& to) {
    int count = 0;
    for (std::size_t at = 0; at < from.size(); at += kSectorSizeBytes) {
        std::size_t const end = std::min<std::size_t>(at + kSectorSizeBytes, from.size());
        auto const place = [&](Area const& area, std::size_t offset) {
            return area.begin() + static_cast<std::ptrdiff_t>(offset);
        };
        count += !std::equal(place(from, at), place(from, end), place(to, at));
    }
    return count;
}

/// Nothing if the text is longer than the area.
std::optional<Area> areaOf(std::string const& text, std::size_t sizeBytes) {
    if (text.size() > sizeBytes)
        return std::nullopt;
    Area area(text.begin(), text.end());
    area.resize(sizeBytes, 0);
    return area;
}

std::optional<Area> withNewName(Area const& area, std::string const& text, Span const& old,
                                std::string const& name) {
    std::optional<Area> const plain = areaOf(withName(text, old, name), area.size());
    if (plain && countChangedSectors(area, *plain) <= 1)
        return plain;
    for (Span const& comment : listComments(text)) {
        std::optional<std::string> const balanced = withNameAndComment(text, old, name, comment);
        if (!balanced)
            continue;
        Area const candidate = *areaOf(*balanced, area.size());
        if (countChangedSectors(area, candidate) <= 1)
            return candidate;
    }
    return plain;
}

} // namespace

std::optional<std::vector<unsigned char>> correctOwnName(std::vector<unsigned char> const& area,
                                                         yx::CURI const& mainFile) {
    std::string const text(area.begin(), std::find(area.begin(), area.end(), 0));
    CVMDKDescriptor const descriptor = parseDescriptor(text);
    yx::CURI const folder = mainFile.getParent();
    for (yx::P<CVMDKExtentInfo> const& line : listExtentLines(descriptor)) {
        if (isReferenceTo(folder, line->getFilename(), mainFile))
            return std::nullopt;
    }
    std::optional<Span> const old = findFirstName(text);
    if (!old)
        return std::nullopt;
    std::optional<std::string> const name =
        encodeName(descriptor, makeFileReference(folder, mainFile));
    std::optional<Area> const corrected =
        name ? withNewName(area, text, *old, *name) : std::nullopt;
    if (!corrected) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The descriptor inside the disk has no room for the file's name, or "
                           "cannot spell it. Give the file a shorter one.",
                           yx::CProps().add("uri", mainFile.toString(true)), nullptr);
    }
    return corrected;
}

} // namespace kelm::host
