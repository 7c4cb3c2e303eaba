#include "host/disk/own_name.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "host/disk/descriptor_edit.h"
#include "host/store/file_names.h"
#include "kelm/format/descriptor.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

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

/// Where the name stands in the first extent line, between its quotes.
std::optional<TextSpan> findFirstName(std::string_view text) {
    for (TextSpan const& line : splitLines(text)) {
        std::string_view const content = text.substr(line.start, line.length);
        if (!isExtentLine(content))
            continue;
        std::size_t const open = content.find('"');
        std::size_t const close = content.find('"', open + 1);
        return TextSpan{line.start + open + 1, close - open - 1};
    }
    return std::nullopt;
}

/// The name as the text's encoding has it; nothing if it has no such letters.
std::optional<std::string> encodeName(CVMDKDescriptor const& descriptor, yx::String const& name) {
    yx::String encoding;
    descriptor.tryGetValue("encoding", encoding);
    wxString reduced = encoding.wx().Lower();
    reduced.Replace(L"-", L"");
    reduced.Replace(L"_", L"");
    if (reduced.empty() || reduced == L"utf8")
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
    std::optional<TextSpan> const old = findFirstName(text);
    if (!old)
        return std::nullopt;
    std::optional<std::string> const name =
        encodeName(descriptor, makeFileReference(folder, mainFile));
    std::optional<DescriptorArea> corrected =
        name ? replaceInArea(area, *old, *name) : std::nullopt;
    if (!corrected) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The descriptor inside the disk has no room for the file's name, or "
                           "cannot spell it. Give the file a shorter one.",
                           yx::CProps().add("uri", mainFile.toString(true)), nullptr);
    }
    return corrected;
}

} // namespace kelm::host
