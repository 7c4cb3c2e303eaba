#include "host/backups/key_rewrapping.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <optional>
#include <string>

#include "host/disk/descriptor_checksum.h"
#include "host/disk/own_name.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/descriptor_text.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// In the order in which a new disk has them.
constexpr std::array<char const*, 3> kWrappingKeys = {"yxEncKeyDerivAlg", "yxEncKeyDerivSalt",
                                                      "yxEncEncKey"};

/// With its first letter replaced, a line of a wrapping is a comment.
constexpr std::string_view kOldLineStart = "#xEnc";

/// Differs from the checksum's key in one letter, which a write of one sector changes.
constexpr char kHiddenChecksumKey[] = "ddb.kelm.checksu-";

/// A comment that can make up for a longer number of rounds.
constexpr std::string_view kSpareComment = "#          \n";

std::string textOf(DescriptorArea const& area) {
    return {area.begin(), std::find(area.begin(), area.end(), 0)};
}

CVMDKDescriptor parse(DescriptorArea const& area) {
    std::string const text = textOf(area);
    yx::TBuffer<unsigned char> bytes(static_cast<int>(text.size()), -1);
    std::copy(text.begin(), text.end(), bytes.getData());
    return CVMDKDescriptor(bytes);
}

/// The lines of a key, without their line ends.
std::vector<TextSpan> findLines(std::string_view text, char const* key) {
    std::vector<TextSpan> found;
    for (TextSpan const& line : splitLines(text)) {
        std::string_view const content = text.substr(line.start, line.length);
        auto const entry = detail::tryParseNameValue(content);
        if (entry && !detail::isComment(content) &&
            detail::isSameKey(wxString::From8BitData(entry->name.data(), entry->name.size()), key))
            found.push_back(line);
    }
    return found;
}

/// The three lines as the library writes them, without the last line end.
std::string wrappingLinesOf(CVMDKDescriptor const& descriptor) {
    std::string lines;
    for (char const* const key : kWrappingKeys) {
        lines += lines.empty() ? "" : "\n";
        lines += std::string(key) + "=" + descriptor.getValue(key).toStdString();
    }
    return lines;
}

/// The last lines of a wrapping, if nothing stands between them.
std::optional<TextSpan> findWrapping(std::string_view text) {
    std::optional<TextSpan> whole;
    for (char const* const key : kWrappingKeys) {
        std::vector<TextSpan> const lines = findLines(text, key);
        if (lines.empty())
            return std::nullopt;
        TextSpan const& line = lines.back();
        if (!whole)
            whole = line;
        else if (line.start == whole->start + whole->length + 1)
            whole->length += 1 + line.length;
        else
            return std::nullopt;
    }
    return whole;
}

/// The area with another wrapping, if that takes a write of one sector.
std::optional<DescriptorArea> tryExchange(DescriptorArea const& area, std::string const& lines) {
    std::optional<TextSpan> const place = findWrapping(textOf(area));
    if (!place)
        return std::nullopt;
    std::optional<DescriptorArea> changed = replaceInArea(area, *place, lines);
    if (changed && !differInOneSector(area, *changed))
        changed.reset();
    return changed;
}

/// The area with the same wrapping once more, in one sector behind the text; nothing if it has no
/// room.
std::optional<DescriptorArea> tryAppend(DescriptorArea const& area) {
    std::string text = textOf(area);
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    std::string const block = std::string(kSpareComment) + wrappingLinesOf(parse(area)) + '\n';
    std::size_t const left = kSectorSizeBytes - text.size() % kSectorSizeBytes;
    if (left < block.size()) {
        if (left > 1)
            text += '#' + std::string(left - 2, ' ');
        text += '\n';
    }
    text += block;
    if (text.size() > area.size() || block.size() > kSectorSizeBytes)
        return std::nullopt;
    DescriptorArea grown(text.begin(), text.end());
    grown.resize(area.size(), 0);
    return grown;
}

/// The area with all lines of a wrapping but the last ones as comments.
DescriptorArea withoutDuplicates(DescriptorArea const& area) {
    DescriptorArea changed = area;
    std::string const text = textOf(area);
    for (char const* const key : kWrappingKeys) {
        std::vector<TextSpan> lines = findLines(text, key);
        for (std::size_t index = 0; index + 1 < lines.size(); ++index)
            changed[lines[index].start] = '#';
    }
    return changed;
}

/// The area with blanks in what `withoutDuplicates` left, from `keptBytes` of each line on.
DescriptorArea withoutOldWrapping(DescriptorArea const& area, std::size_t keptBytes) {
    DescriptorArea changed = area;
    std::string const text = textOf(area);
    for (TextSpan const& line : splitLines(text)) {
        if (text.compare(line.start, kOldLineStart.size(), kOldLineStart) == 0) {
            auto const first = changed.begin() + static_cast<std::ptrdiff_t>(line.start);
            std::fill(first + static_cast<std::ptrdiff_t>(keptBytes),
                      first + static_cast<std::ptrdiff_t>(line.length), ' ');
        }
    }
    return changed;
}

/// The area with the letter in the checksum's key by which it is hidden or not; the same area if
/// there is no line of the key `from`.
DescriptorArea withChecksumKey(DescriptorArea const& area, char const* from, char const* to) {
    DescriptorArea changed = area;
    std::string_view const key = from;
    for (TextSpan const& line : findLines(textOf(area), from))
        changed[line.start + key.size() - 1] = static_cast<unsigned char>(to[key.size() - 1]);
    return changed;
}

/// The row of states, each of them once.
class States {
public:
    States(DescriptorArea const& first, yx::CURI const& mainFile)
        : m_last(first), m_mainFile(mainFile) {}

    DescriptorArea const& last() const { return m_last; }
    std::vector<DescriptorArea> take() { return std::move(m_states); }

    void add(DescriptorArea const& next) {
        assert(next.size() == m_last.size());
        if (next == m_last)
            return;
        m_states.push_back(next);
        m_last = next;
    }

    void add(std::optional<DescriptorArea> const& next) {
        if (!next) {
            throw yx::CIOError(yx::CIOError::NotSupported,
                               "The descriptor inside the disk has no room for another wrapping "
                               "of its key.",
                               yx::CProps().add("uri", m_mainFile.toString(true)), nullptr);
        }
        add(*next);
    }

    void hideChecksum() {
        if (getChecksumState(parseAsShown(m_last), m_mainFile) == ChecksumState::Valid)
            add(withChecksumKey(m_last, kDescriptorChecksumKey, kHiddenChecksumKey));
    }

    void end() {
        // What a line is known by goes when nothing else is left of it.
        add(withoutOldWrapping(m_last, kOldLineStart.size()));
        add(withoutOldWrapping(m_last, 1));
        DescriptorArea const shown =
            withChecksumKey(m_last, kHiddenChecksumKey, kDescriptorChecksumKey);
        if (shown == m_last)
            return;
        CVMDKDescriptor descriptor = parseAsShown(shown);
        updateChecksum(descriptor, m_mainFile);
        std::string const value =
            '"' + descriptor.getValue(kDescriptorChecksumKey).toStdString() + '"';
        // The value while nobody looks at it, since it may lie in two sectors.
        std::optional<TextSpan> const old = findValue(textOf(m_last), kHiddenChecksumKey);
        assert(old);
        add(replaceInArea(m_last, *old, value));
        add(withChecksumKey(m_last, kHiddenChecksumKey, kDescriptorChecksumKey));
    }

private:
    /// The checksum is that of a text with the file's right name.
    CVMDKDescriptor parseAsShown(DescriptorArea const& area) const {
        return parse(correctOwnName(area, m_mainFile).value_or(area));
    }

    std::vector<DescriptorArea> m_states;
    DescriptorArea m_last;
    yx::CURI m_mainFile;
};

} // namespace

std::vector<DescriptorArea> planKeyRewrapping(DescriptorArea const& area,
                                              CVMDKDescriptor const& rewrapped,
                                              yx::CURI const& mainFile) {
    std::string const lines = wrappingLinesOf(rewrapped);
    States states(area, mainFile);
    states.hideChecksum();
    states.add(withoutDuplicates(states.last()));
    if (!tryExchange(states.last(), lines)) {
        states.add(tryAppend(states.last()));
        states.add(withoutDuplicates(states.last()));
    }
    states.add(tryExchange(states.last(), lines));
    states.end();
    return states.take();
}

std::vector<DescriptorArea> planEndOfKeyRewrapping(DescriptorArea const& area,
                                                   yx::CURI const& mainFile) {
    States states(area, mainFile);
    states.add(withoutDuplicates(area));
    states.end();
    return states.take();
}

} // namespace kelm::host
