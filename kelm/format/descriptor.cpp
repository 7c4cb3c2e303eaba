#include "kelm/format/descriptor.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/internal/descriptor_text.h"
#include "kelm/format/internal/entry_cast.h"
#include "kelm/format/marker.h"
#include "yx/error.h"

namespace kelm {

namespace {

using detail::castToExtent;
using detail::castToNameValue;
using detail::forEachLine;
using detail::isComment;
using detail::isSameKey;
using detail::tryParseNameValue;

/// Whether all characters are such that UTF-8 has them and a text in a file can hold them.
bool isStorable(wxString const& text) {
    constexpr wxUint32 kGreatestCharacter = 0x10FFFF;
    std::wstring const& characters = text.ToStdWstring();
    return std::all_of(characters.begin(), characters.end(), [](wchar_t character) {
        wxUint32 const value = wxUniChar(character).GetValue();
        return value != 0 && value <= kGreatestCharacter;
    });
}

[[noreturn]] void throwInternal(yx::String const& message) {
    throw yx::CError("Internal error: " + message, "", -1, yx::CProps(), nullptr);
}

} // namespace

CVMDKDescriptor::CGenericEntry::CGenericEntry(yx::String const& text) : m_text(text) {}

yx::String CVMDKDescriptor::CGenericEntry::toString() {
    return m_text;
}

yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
    return yx::makeObject<CGenericEntry>(*this);
}

CVMDKDescriptor::CNameValueEntry::CNameValueEntry(yx::String const& name, yx::String const& value,
                                                  bool quoted)
    : m_name(name), m_value(value), m_quoted(quoted) {}

yx::String CVMDKDescriptor::CNameValueEntry::toString() {
    yx::String text = m_name;
    // Deliberate: by the case of the letters, unlike the search for keys.
    text += m_name.wx().StartsWith(L"ddb.") ? " = " : "=";
    if (m_quoted)
        text += L'"';
    text += m_value;
    if (m_quoted)
        text += L'"';
    return text;
}

yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const {
    return yx::makeObject<CNameValueEntry>(*this);
}

CVMDKDescriptor::CVMDKDescriptor(yx::TBuffer<unsigned char> const& text) {
    if (auto const ascii = detail::tryGetAsciiDescriptor(text))
        addLines(*ascii);
    else
        parseLines(detail::decodeDescriptor(text));
    findHeaderEnd();
}

CVMDKDescriptor::CVMDKDescriptor(CVMDKDescriptor const& other)
    : CBase(other), m_headerEndIndex(other.m_headerEndIndex) {
    for (auto const& entry : other.m_entries)
        m_entries.add(entry->cloneDescriptorEntry());
}

CVMDKDescriptor& CVMDKDescriptor::operator=(CVMDKDescriptor const& other) {
    CVMDKDescriptor copy(other);
    m_entries = std::move(copy.m_entries);
    m_headerEndIndex = copy.m_headerEndIndex;
    return *this;
}

void CVMDKDescriptor::parseLines(wxString const& text) {
    addLines(std::wstring_view(text.ToStdWstring()));
}

template <class Char>
void CVMDKDescriptor::addLines(std::basic_string_view<Char> text) {
    // One object for all empty lines: a line's object is a hundred times as large as an empty line,
    // and generic lines never change.
    yx::P<CVMDKDescriptorEntry> const emptyLine = yx::makeObject<CGenericEntry>("");
    forEachLine(text, [&](std::basic_string_view<Char> line) {
        m_entries.add(line.empty() ? emptyLine : parseLine(line));
        return true;
    });
    // The line behind the text's last line end, if that is where the text ends.
    if (!m_entries.isEmpty() && m_entries[m_entries.getSize() - 1]->toString().isEmpty())
        m_entries.remove(m_entries.getSize() - 1);
}

yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::parseLine(std::wstring_view line) {
    return makeEntry(line);
}

yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::parseLine(std::string_view line) {
    return makeEntry(line);
}

template <class Char>
yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::makeEntry(std::basic_string_view<Char> line) {
    if (isComment(line))
        return yx::makeObject<CGenericEntry>(detail::toString(line));
    if (auto const parsed = tryParseNameValue(line)) {
        return yx::makeObject<CNameValueEntry>(detail::toString(parsed->name),
                                               detail::toString(parsed->value), parsed->quoted);
    }
    if (auto extent = CVMDKExtentInfo::tryMake(line))
        return extent;
    return yx::makeObject<CGenericEntry>(detail::toString(line));
}

void CVMDKDescriptor::findHeaderEnd() {
    m_headerEndIndex = 0;
    for (int i = 0; i < m_entries.getSize(); ++i) {
        if (castToExtent(m_entries[i]))
            return;
        if (castToNameValue(m_entries[i]))
            m_headerEndIndex = i + 1;
    }
    assert(isHeaderEndPlausible());
}

bool CVMDKDescriptor::isHeaderEndPlausible() const {
    if (m_headerEndIndex < 0 || m_headerEndIndex > m_entries.getSize())
        return false;
    return m_headerEndIndex == 0 || !castToExtent(m_entries[m_headerEndIndex - 1]);
}

yx::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::findValueEntry(
    yx::String const& key) const {
    for (auto const& line : m_entries) {
        auto* const entry = castToNameValue(line);
        if (entry && isSameKey(entry->getName().wx(), key.wx()))
            return entry;
    }
    return {};
}

bool CVMDKDescriptor::hasValue(yx::String const& key) const {
    return static_cast<bool>(findValueEntry(key));
}

bool CVMDKDescriptor::tryGetValue(yx::String const& key, yx::String& value) const {
    yx::P<CNameValueEntry> const entry = findValueEntry(key);
    value = entry ? entry->getValue() : yx::String();
    return static_cast<bool>(entry);
}

yx::String CVMDKDescriptor::getValue(yx::String const& key) const {
    yx::P<CNameValueEntry> const entry = findValueEntry(key);
    if (!entry) {
        throw yx::CError("VMDK descriptor value '" + key + "' not found.", "", -1, yx::CProps(),
                         nullptr);
    }
    return entry->getValue();
}

void CVMDKDescriptor::setValue(yx::String const& key, yx::String const& value, bool quoted,
                               bool inHeader) {
    if (yx::P<CNameValueEntry> const entry = findValueEntry(key))
        entry->setValue(value);
    else
        addLine(yx::makeObject<CNameValueEntry>(key, value, quoted), inHeader);
}

bool CVMDKDescriptor::removeValue(yx::String const& key) {
    if (!hasValue(key))
        return false;
    yx::TArray<yx::P<CVMDKDescriptorEntry>> kept;
    for (auto const& line : m_entries) {
        auto const* const entry = castToNameValue(line);
        if (!entry || !isSameKey(entry->getName().wx(), key.wx()))
            kept.add(line);
    }
    m_entries = std::move(kept);
    findHeaderEnd();
    return true;
}

void CVMDKDescriptor::addGenericLine(yx::String const& line, bool inHeader) {
    addLine(yx::makeObject<CGenericEntry>(line), inHeader);
}

void CVMDKDescriptor::addLine(yx::P<CVMDKDescriptorEntry> const& entry, bool inHeader) {
    assert(entry);
    if (inHeader) {
        m_entries.insert(m_headerEndIndex, entry);
        ++m_headerEndIndex;
    } else {
        m_entries.add(entry);
    }
    assert(isHeaderEndPlausible());
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* entry) {
    if (!entry) {
        throw yx::CInvalidArgError("CVMDKDescriptor::addExtentEntry", "No extent entry given.",
                                   yx::CProps());
    }
    // Deliberate: at the very end, also behind "ddb." lines. Whoever wants the extent lines before
    // those adds them first.
    m_entries.add(yx::P<CVMDKExtentInfo>(entry));
}

void CVMDKDescriptor::getExtentEntries(yx::TArray<yx::P<CVMDKExtentInfo>>& target) const {
    yx::TArray<yx::P<CVMDKExtentInfo>> extended(target);
    for (auto const& line : m_entries) {
        if (auto* const extent = castToExtent(line))
            extended.add(extent);
    }
    target = std::move(extended);
}

yx::String CVMDKDescriptor::toString() const {
    yx::String text;
    for (auto const& entry : m_entries) {
        text += entry->toString();
        text += L'\n';
    }
    return text;
}

void CVMDKDescriptor::store(yx::IOutStream& stream, int targetSizeBytes,
                            yx::TBuffer<unsigned char> const& zeroBuffer) {
    setEncodingUTF8();
    yx::String const text = toString();
    if (!isStorable(text.wx()))
        throwInternal("VMDK descriptor text cannot be stored.");
    wxCharBuffer const utf8 = text.toUTF8();
    size_t const length = utf8.length();
    // Deliberate: the parentheses of the next two messages stay open; these are the words that logs
    // are searched for.
    if (static_cast<__int64>(length) > targetSizeBytes) {
        throwInternal("actual VMDK descriptor size exceeds target size (actual size: " +
                      yx::toString(length) + ", target size: " + yx::toString(targetSizeBytes));
    }
    int const sizeBytes = static_cast<int>(length);
    int const paddingBytes = targetSizeBytes - sizeBytes;
    if (zeroBuffer.getUsed() < paddingBytes) {
        throwInternal("pad buffer too small (size: " + yx::toString(zeroBuffer.getUsed()) +
                      ", needed: " + yx::toString(paddingBytes));
    }
    stream.write(utf8.data(), sizeBytes, nullptr);
    vmdkWritePadding(stream, paddingBytes, zeroBuffer);
}

} // namespace kelm
