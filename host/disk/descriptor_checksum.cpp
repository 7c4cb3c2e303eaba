#include "host/disk/descriptor_checksum.h"

#include <string>
#include <string_view>

#include "host/store/file_names.h"
#include "kelm/format/internal/descriptor_text.h"
#include "krym/digest_type_sha256.h"

namespace kelm::host {

namespace {

/// Keys whose values are left out.
constexpr char const* kFreeKeys[] = {"CID", "ddb.kelm.state"};

std::string toHexDigits(unsigned char const* bytes, int size) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

bool isKeyAmong(std::string_view name, char const* key) {
    return detail::isSameKey(wxString::FromUTF8(name.data(), name.size()), key);
}

/// The extent line without the name between its quotes, if that is the name of `mainFile`.
std::string withoutOwnName(std::string_view line, yx::CURI const& mainFile) {
    std::string text(line);
    yx::P<CVMDKExtentInfo> const extent =
        CVMDKExtentInfo::tryParseDescriptorLine(yx::String::fromUTF8(text));
    if (!extent || !isReferenceTo(mainFile.getParent(), extent->getFilename(), mainFile))
        return text;
    std::size_t const open = text.find('"');
    return text.erase(open + 1, text.find('"', open + 1) - open - 1);
}

/// What the checksum takes of a line that is no comment and not its own.
std::string countedPart(std::string_view line, yx::CURI const& mainFile) {
    auto const entry = detail::tryParseNameValue(line);
    if (!entry)
        return withoutOwnName(line, mainFile);
    for (char const* const key : kFreeKeys) {
        if (isKeyAmong(entry->name, key))
            return std::string(entry->name);
    }
    return std::string(line);
}

std::string calcDescriptorChecksum(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    std::string text = descriptor.toString().toStdString();
    // Behind the last line end there is no line.
    if (!text.empty())
        text.pop_back();
    yx::P<krym::IDigest> const digest = yx::makeObject<krym::CDigestType_SHA256>()->createDigest();
    detail::forEachLine(std::string_view(text), [&](std::string_view line) {
        auto const entry = detail::tryParseNameValue(line);
        if (detail::isComment(line) || (entry && isKeyAmong(entry->name, kDescriptorChecksumKey)))
            return true;
        std::string const counted = countedPart(line, mainFile) + "\n";
        digest->update(counted.data(), static_cast<int>(counted.size()));
        return true;
    });
    digest->finish();
    return toHexDigits(static_cast<unsigned char const*>(digest->getData()), digest->getSize());
}

} // namespace

ChecksumState getChecksumState(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    yx::String value;
    if (!descriptor.tryGetValue(kDescriptorChecksumKey, value))
        return ChecksumState::Absent;
    return value.toStdString() == calcDescriptorChecksum(descriptor, mainFile)
               ? ChecksumState::Valid
               : ChecksumState::Different;
}

void updateChecksum(CVMDKDescriptor& descriptor, yx::CURI const& mainFile) {
    // Storing the descriptor adds this line where it is missing.
    descriptor.setEncodingUTF8();
    descriptor.setValue(kDescriptorChecksumKey,
                        yx::String::fromUTF8(calcDescriptorChecksum(descriptor, mainFile)), true,
                        false);
}

} // namespace kelm::host
