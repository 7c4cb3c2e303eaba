#include "host/disk/disk_record.h"

#include <algorithm>
#include <string_view>

#include "yx/error.h"
#include "yx/number.h"

namespace kelm::host {

namespace {

constexpr char kStateKey[] = "ddb.kelm.state";
constexpr char kImageBytesKey[] = "ddb.kelm.imageBytes";
constexpr char kTimeKey[] = "ddb.kelm.time";
constexpr char kSourceKey[] = "ddb.kelm.source";
constexpr char kHostKey[] = "ddb.kelm.host";
constexpr char kLabelKey[] = "ddb.kelm.label";

// Of one length.
constexpr char kUnfinished[] = "unfinished";
constexpr char kComplete[] = "complete  ";

constexpr std::size_t kImageBytesDigits = 20;
constexpr char kHexDigits[] = "0123456789abcdef";
constexpr std::size_t kEscapeLength = 3;

void appendEscaped(std::string& text, unsigned char byte) {
    text += '%';
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 15];
}

std::string escape(std::string const& text) {
    bool const isUTF8 = yx::String::tryFromUTF8(text).has_value();
    std::string escaped;
    for (char const character : text) {
        auto const byte = static_cast<unsigned char>(character);
        bool const isControl = byte < 0x20 || byte == 0x7F;
        bool const isSpecial = character == '"' || character == '%';
        if (isControl || isSpecial || (byte >= 0x80 && !isUTF8))
            appendEscaped(escaped, byte);
        else
            escaped += character;
    }
    return escaped;
}

int hexValue(char digit) {
    std::size_t const value = std::string_view(kHexDigits).find(digit);
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

/// What does not look like an escape stays: somebody else may have written it.
std::string unescape(std::string const& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        bool const mayBeEscape = text[at] == '%' && at + kEscapeLength <= text.size();
        int const high = mayBeEscape ? hexValue(text[at + 1]) : -1;
        int const low = mayBeEscape ? hexValue(text[at + 2]) : -1;
        if (high < 0 || low < 0) {
            plain += text[at];
            continue;
        }
        plain += static_cast<char>(high * 16 + low);
        at += kEscapeLength - 1;
    }
    return plain;
}

bool isAllDigits(std::string const& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

std::string DiskRecord::getText(char const* key) const {
    yx::String value;
    m_descriptor.tryGetValue(key, value);
    return unescape(value.toStdString());
}

void DiskRecord::setText(char const* key, std::string const& text) {
    std::string const escaped = escape(text);
    if (escaped.size() > kMaxTextBytes) {
        throw yx::CInvalidArgError("DiskRecord::setText",
                                   "The text is too long for a descriptor: " + yx::String(key) +
                                       ".",
                                   yx::CProps().add("bytes", yx::toString(escaped.size())));
    }
    m_descriptor.setValue(key, yx::String::fromUTF8(escaped), true, false);
}

DiskState DiskRecord::getState() const {
    yx::String value;
    if (!m_descriptor.tryGetValue(kStateKey, value))
        return DiskState::Complete;
    return yx::String(value.wx().Strip(wxString::both)) == "complete" ? DiskState::Complete
                                                                      : DiskState::Unfinished;
}

void DiskRecord::setState(DiskState state) {
    m_descriptor.setValue(kStateKey, state == DiskState::Complete ? kComplete : kUnfinished, true,
                          false);
}

std::optional<__int64> DiskRecord::getImageBytes(__int64 diskSizeBytes) const {
    yx::String value;
    if (!m_descriptor.tryGetValue(kImageBytesKey, value))
        return std::nullopt;
    std::string const text = value.toStdString();
    // No image has more digits than 64 bits hold, whatever zeros come before.
    std::size_t const firstDigit = std::min(text.find_first_not_of('0'), text.size());
    constexpr std::size_t kMaxDigits = 18;
    __int64 bytes = -1;
    if (isAllDigits(text) && text.size() - firstDigit <= kMaxDigits)
        bytes = std::stoll(text);
    if (bytes < 0 || bytes > diskSizeBytes) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid " + yx::String(kImageBytesKey) +
                               " in VMDK descriptor: " + value,
                           yx::CProps(), nullptr);
    }
    return bytes;
}

void DiskRecord::setImageBytes(__int64 imageBytes) {
    std::string const digits = std::to_string(imageBytes);
    m_descriptor.setValue(
        kImageBytesKey,
        yx::String::fromUTF8(std::string(kImageBytesDigits - digits.size(), '0') + digits), true,
        false);
}

std::string DiskRecord::getTime() const {
    return getText(kTimeKey);
}

void DiskRecord::setTime(std::string const& time) {
    setText(kTimeKey, time);
}

std::string DiskRecord::getSource() const {
    return getText(kSourceKey);
}

void DiskRecord::setSource(std::string const& source) {
    setText(kSourceKey, source);
}

std::string DiskRecord::getHost() const {
    return getText(kHostKey);
}

void DiskRecord::setHost(std::string const& host) {
    setText(kHostKey, host);
}

std::string DiskRecord::getLabel() const {
    return getText(kLabelKey);
}

void DiskRecord::setLabel(std::string const& label) {
    setText(kLabelKey, label);
}

} // namespace kelm::host
