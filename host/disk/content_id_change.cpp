#include "host/disk/content_id_change.h"

#include <algorithm>
#include <cassert>
#include <optional>
#include <string>

#include "host/disk/descriptor_edit.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/descriptor_text.h"
#include "yx/mt_rand.h"
#include "yx/number.h"

namespace kelm::host {

namespace {

constexpr char kStoredContentIDKey[] = "CID";
constexpr std::size_t kContentIDDigits = 8;

/// 2^24 IDs: the least that are left alone.
constexpr std::size_t kFewestDigitsKept = 6;

std::string toDigits(unsigned int contentID, std::size_t count) {
    std::string const digits = yx::toHexString(contentID).toStdString();
    return std::string(std::max(count, digits.size()) - digits.size(), '0') + digits;
}

CVMDKDescriptor parseArea(DescriptorArea const& area) {
    yx::TBuffer<unsigned char> bytes(static_cast<int>(area.size()), -1);
    std::copy(area.begin(), area.end(), bytes.getData());
    return CVMDKDescriptor(bytes);
}

/// Where the value of the content ID stands.
std::optional<TextSpan> findStoredValue(std::string const& text) {
    std::string_view const view(text);
    for (TextSpan const& line : splitLines(view)) {
        std::string_view const content = view.substr(line.start, line.length);
        auto const entry =
            detail::isComment(content) ? std::nullopt : detail::tryParseNameValue(content);
        if (entry && detail::isSameKey(wxString::FromUTF8(entry->name.data(), entry->name.size()),
                                       kStoredContentIDKey))
            return TextSpan{static_cast<std::size_t>(entry->value.data() - view.data()),
                            entry->value.size()};
    }
    return std::nullopt;
}

/// The descriptor with a place for all digits, and these in it; nothing if lines that must stay
/// would move from sector to sector.
std::optional<CVMDKDescriptor> makePlace(CVMDKDescriptor const& descriptor,
                                         std::string const& digits) {
    std::string const text = descriptor.toString().toStdString();
    std::optional<TextSpan> const old = findStoredValue(text);
    if (!old)
        return std::nullopt;
    DescriptorArea area(text.begin(), text.end());
    area.resize(text.size() + digits.size(), 0);
    std::optional<DescriptorArea> const changed = replaceInArea(area, *old, digits);
    if (!changed || !differInOneSector(area, *changed))
        return std::nullopt;
    return parseArea(*changed);
}

} // namespace

unsigned int drawContentID(unsigned int contentID) {
    for (;;) {
        unsigned int const drawn = yx::CMTRand::drawGlobal32();
        if (drawn != 0 && drawn != kNoParentContentID && drawn != contentID)
            return drawn;
    }
}

unsigned int writeContentID(CVMDKDescriptor& descriptor, unsigned int contentID) {
    yx::String const old = descriptor.getValue(kStoredContentIDKey);
    std::size_t const place = old.wx().length();
    std::string digits = toDigits(contentID, std::max(place, kContentIDDigits));
    if (place < kContentIDDigits) {
        // Storing the descriptor adds this line where it is missing.
        descriptor.setEncodingUTF8();
        if (std::optional<CVMDKDescriptor> const grown = makePlace(descriptor, digits)) {
            descriptor = *grown;
            return contentID;
        }
        if (place >= kFewestDigitsKept)
            digits = digits.substr(kContentIDDigits - place);
    }
    descriptor.setValue(kStoredContentIDKey, yx::String::fromUTF8(digits), false, true);
    return descriptor.getContentID();
}

ContentIDChange::ContentIDChange(CVMDKDisk& disk) : m_disk(disk) {
    disk.setContentIDUpdatesEnabled(false);
}

void ContentIDChange::ensureDone() {
    if (m_isDone)
        return;
    yx::P<CVMDKDescriptor> const descriptor = m_disk.getDescriptor();
    CVMDKDescriptor const old = *descriptor;
    unsigned int const oldContentID = old.getContentID();
    try {
        unsigned int written = oldContentID;
        // A place that keeps only the last digits may turn another ID into one that does not do.
        while (written == oldContentID || written == 0)
            written = writeContentID(*descriptor, drawContentID(oldContentID));
        m_disk.storeDescriptor();
    } catch (...) {
        *descriptor = old;
        throw;
    }
    assert(descriptor->getContentID() != oldContentID);
    m_isDone = true;
}

} // namespace kelm::host
