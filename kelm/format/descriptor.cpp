#include "kelm/format/descriptor.h"

#include <algorithm>
#include <optional>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/format/text_view.h"
#include "yx/error.h"
#include "yx/log.h"
#include "yx/number.h"

namespace kelm {

// The text, line by line:
//
//   # comment                              kept verbatim
//   key=value   key="value"                what stands before and behind the first "=", trimmed; a
//                                          key with a blank in it makes no such line
//   ddb.key = "value"                      the same; keys of this prefix are written with blanks
//   RW 4192256 SPARSE "disk-s001.vmdk"     extent line, see CVMDKExtentInfo
//   anything else                          kept verbatim
//
// In a file, zeros behind the text fill its area; the first of them ends the text.

namespace {

using detail::trimmed;
using detail::View;

constexpr char kVersionKey[] = "version";
constexpr char kEncodingKey[] = "encoding";
constexpr char kContentIDKey[] = "CID";
constexpr char kParentContentIDKey[] = "parentCID";
constexpr char kParentFileNameHintKey[] = "parentFileNameHint";
constexpr char kCreateTypeKey[] = "createType";
constexpr char kOnDemandKey[] = "yxCreateExtentFilesOnDemand";
constexpr char kAdapterTypeKey[] = "ddb.adapterType";
constexpr char kGeometrySectorsKey[] = "ddb.geometry.sectors";
constexpr char kGeometryHeadsKey[] = "ddb.geometry.heads";
constexpr char kGeometryCylindersKey[] = "ddb.geometry.cylinders";
constexpr char kEncryptionAlgorithmKey[] = "yxEncAlg";
constexpr char kKeyHashAlgorithmKey[] = "yxEncKeyHashAlg";
constexpr char kKeyDerivationAlgorithmKey[] = "yxEncKeyDerivAlg";
constexpr char kEncryptionIVKey[] = "yxEncIV";
constexpr char kEncryptedEncryptionKeyKey[] = "yxEncEncKey";
constexpr char kEncryptionKeyHashKey[] = "yxEncKeyHash";
constexpr char kKeyDerivationSaltKey[] = "yxEncKeyDerivSalt";

/// Compares as if both were put in lower case. Asking for the length first spares the comparison
/// for most keys of a long text.
bool isSameKey(wxString const& left, wxString const& right) {
    return left.length() == right.length() && left.IsSameAs(right, false);
}

template <class Char>
struct NameValue {
    View<Char> name;
    View<Char> value;
    bool quoted;
};

template <class Char>
std::optional<NameValue<Char>> tryParseNameValue(View<Char> line) {
    size_t const separator = line.find(Char('='));
    if (separator == View<Char>::npos)
        return std::nullopt;
    View<Char> const name = trimmed(line.substr(0, separator));
    View<Char> const value = trimmed(line.substr(separator + 1));
    // Only a blank is looked for: it sends an extent line with "=" in its file name on.
    if (name.empty() || name.find(Char(' ')) != View<Char>::npos)
        return std::nullopt;
    if (!value.starts_with(Char('"')) || !value.ends_with(Char('"')))
        return NameValue<Char>{name, value, false};
    // One quote alone both starts and ends its value, which is then empty.
    size_t const length = std::max<size_t>(value.size(), 2) - 2;
    return NameValue<Char>{name, value.substr(1, length), true};
}

/// Calls `visit` with each line, which may end the walk by answering false. Lines end at line feeds
/// alone; what stands behind the last one is a line too, be it empty. An empty text has no line.
template <class Char, class Visitor>
void forEachLine(View<Char> text, Visitor visit) {
    while (!text.empty()) {
        size_t const end = text.find(Char('\n'));
        if (!visit(text.substr(0, end)) || end == View<Char>::npos)
            return;
        text.remove_prefix(end + 1);
        if (text.empty())
            visit(text);
    }
}

template <class Char>
bool isComment(View<Char> line) {
    return line.starts_with(Char('#'));
}

wxString decodeLatin1(std::string_view bytes) {
    return wxString::From8BitData(bytes.data(), bytes.size());
}

/// The value of the "encoding" key, empty if there is none. The bytes are taken as Latin-1, so that
/// the line is found whatever the encoding is.
yx::String findEncoding(std::string_view bytes) {
    wxString const key(kEncodingKey);
    yx::String encoding;
    forEachLine(bytes, [&](std::string_view line) {
        if (isComment(line))
            return true;
        auto const parsed = tryParseNameValue(line);
        if (!parsed || parsed->name.size() != key.length() ||
            !isSameKey(decodeLatin1(parsed->name), key))
            return true;
        encoding = decodeLatin1(parsed->value);
        return false;
    });
    return encoding;
}

wxString decodeAs(yx::String const& encoding, std::string_view bytes) {
    wxString reduced = encoding.wx().Lower();
    reduced.Replace("_", "");
    reduced.Replace("-", "");
    if (reduced.empty() || reduced == "utf8")
        return yx::String::tryFromUTF8(bytes).value_or(yx::String()).wx();
    if (reduced != "latin1" && reduced != "iso88591") {
        yx::logWarning("Unknown VMDK descriptor encoding '" + encoding +
                       "'. Using Latin-1 instead.");
    }
    return decodeLatin1(bytes);
}

wxString decode(std::string_view bytes) {
    yx::String const encoding = findEncoding(bytes);
    try {
        return decodeAs(encoding, bytes);
    } catch (std::exception const& error) {
        // Deliberate: the parenthesis stays open; these are the words that logs are searched for.
        yx::logWarning(error,
                       "Ignoring VMDK descriptor decoding error (encoding: '" + encoding +
                           "'. Using Latin-1 encoding instead.",
                       "");
        return decodeLatin1(bytes);
    }
}

/// The bytes before the first zero byte.
std::string_view textOf(yx::TBuffer<unsigned char> const& buffer) {
    std::string_view const bytes(reinterpret_cast<char const*>(buffer.getData()),
                                 static_cast<size_t>(buffer.getUsed()));
    return bytes.substr(0, bytes.find('\0'));
}

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
    text += m_name.wx().StartsWith("ddb.") ? " = " : "=";
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
    parseLines(decode(textOf(text)));
    findHeaderEnd();
}

CVMDKDescriptor::CVMDKDescriptor(CVMDKDescriptor const& other)
    : CBase(other), m_headerEndIndex(other.m_headerEndIndex) {
    for (auto const& entry : other.m_entries)
        m_entries.add(entry->cloneDescriptorEntry());
}

CVMDKDescriptor& CVMDKDescriptor::operator=(CVMDKDescriptor const& other) {
    CVMDKDescriptor const copy(other);
    m_entries = copy.m_entries;
    m_headerEndIndex = copy.m_headerEndIndex;
    return *this;
}

void CVMDKDescriptor::parseLines(wxString const& text) {
    // One object for all empty lines: a line's object is a hundred times as large as an empty line,
    // and generic lines never change.
    yx::P<CVMDKDescriptorEntry> const emptyLine = yx::makeObject<CGenericEntry>("");
    std::wstring const& characters = text.ToStdWstring();
    forEachLine(std::wstring_view(characters), [&](std::wstring_view line) {
        m_entries.add(line.empty() ? emptyLine : parseLine(line));
        return true;
    });
    // The line behind the text's last line end, if that is where the text ends.
    if (!m_entries.isEmpty() && m_entries[m_entries.getSize() - 1]->toString().isEmpty())
        m_entries.remove(m_entries.getSize() - 1);
}

yx::P<CVMDKDescriptorEntry> CVMDKDescriptor::parseLine(std::wstring_view line) {
    if (isComment(line))
        return yx::makeObject<CGenericEntry>(detail::toString(line));
    if (auto const parsed = tryParseNameValue(line)) {
        return yx::makeObject<CNameValueEntry>(detail::toString(parsed->name),
                                               detail::toString(parsed->value), parsed->quoted);
    }
    if (auto const extent = CVMDKExtentInfo::tryParse(line))
        return extent;
    return yx::makeObject<CGenericEntry>(detail::toString(line));
}

void CVMDKDescriptor::findHeaderEnd() {
    for (int i = 0; i < m_entries.getSize(); ++i) {
        if (yx::cast<CVMDKExtentInfo>(m_entries[i]))
            return;
        if (yx::cast<CNameValueEntry>(m_entries[i]))
            m_headerEndIndex = i + 1;
    }
}

yx::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::findValueEntry(
    yx::String const& key) const {
    for (auto const& line : m_entries) {
        auto entry = yx::cast<CNameValueEntry>(line);
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

void CVMDKDescriptor::addGenericLine(yx::String const& line, bool inHeader) {
    addLine(yx::makeObject<CGenericEntry>(line), inHeader);
}

void CVMDKDescriptor::addLine(yx::P<CVMDKDescriptorEntry> const& entry, bool inHeader) {
    if (inHeader)
        m_entries.insert(m_headerEndIndex++, entry);
    else
        m_entries.add(entry);
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
    for (auto const& line : m_entries) {
        if (auto const extent = yx::cast<CVMDKExtentInfo>(line))
            target.add(extent);
    }
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

int CVMDKDescriptor::getVersion() const {
    return static_cast<int>(yx::parseInt64(getValue(kVersionKey), false));
}

void CVMDKDescriptor::setVersion(int version) {
    setValue(kVersionKey, yx::toString(version), false, true);
}

void CVMDKDescriptor::setEncodingUTF8() {
    setValue(kEncodingKey, "UTF-8", true, true);
}

unsigned int CVMDKDescriptor::getContentID() const {
    return static_cast<unsigned int>(yx::parseHexInt64(getValue(kContentIDKey), false));
}

void CVMDKDescriptor::setContentID(unsigned int contentID) {
    setValue(kContentIDKey, yx::toHexString(contentID), false, true);
}

unsigned int CVMDKDescriptor::getParentContentID() const {
    yx::String text;
    if (!tryGetValue(kParentContentIDKey, text))
        return kNoParentContentID;
    // Deliberate: unlike the content ID, this one may be a number of 64 unsigned bits.
    return static_cast<unsigned int>(yx::parseHexInt64(text, true));
}

void CVMDKDescriptor::setParentContentID(unsigned int contentID) {
    setValue(kParentContentIDKey, yx::toHexString(contentID), false, true);
}

yx::String CVMDKDescriptor::getParentFileNameHint() const {
    return getValue(kParentFileNameHintKey);
}

bool CVMDKDescriptor::tryGetParentFileNameHint(yx::String& hint) const {
    return tryGetValue(kParentFileNameHintKey, hint);
}

void CVMDKDescriptor::setParentFileNameHint(yx::String const& hint) {
    setValue(kParentFileNameHintKey, hint, true, true);
}

yx::String CVMDKDescriptor::getCreateType() const {
    return getValue(kCreateTypeKey);
}

void CVMDKDescriptor::setCreateType(yx::String const& type) {
    setValue(kCreateTypeKey, type, true, true);
}

bool CVMDKDescriptor::getYxCreateExtentFilesOnDemand() const {
    yx::String text;
    return tryGetValue(kOnDemandKey, text) && yx::parseBool(text);
}

void CVMDKDescriptor::setYxCreateExtentFilesOnDemand(bool onDemand) {
    setValue(kOnDemandKey, yx::toString(onDemand), true, true);
}

yx::String CVMDKDescriptor::getAdapterType() const {
    return getValue(kAdapterTypeKey);
}

void CVMDKDescriptor::setAdapterType(yx::String const& type) {
    setValue(kAdapterTypeKey, type, true, false);
}

__int64 CVMDKDescriptor::getGeometrySectors() const {
    return yx::parseInt64(getValue(kGeometrySectorsKey), false);
}

void CVMDKDescriptor::setGeometrySectors(__int64 sectors) {
    setValue(kGeometrySectorsKey, yx::toString(sectors), true, false);
}

__int64 CVMDKDescriptor::getGeometryHeads() const {
    return yx::parseInt64(getValue(kGeometryHeadsKey), false);
}

void CVMDKDescriptor::setGeometryHeads(__int64 heads) {
    setValue(kGeometryHeadsKey, yx::toString(heads), true, false);
}

__int64 CVMDKDescriptor::getGeometryCylinders() const {
    return yx::parseInt64(getValue(kGeometryCylindersKey), false);
}

void CVMDKDescriptor::setGeometryCylinders(__int64 cylinders) {
    setValue(kGeometryCylindersKey, yx::toString(cylinders), true, false);
}

yx::String CVMDKDescriptor::getYxEncryptionAlgorithm() const {
    yx::String algorithm;
    tryGetValue(kEncryptionAlgorithmKey, algorithm);
    return algorithm;
}

void CVMDKDescriptor::setYxEncryptionAlgorithm(yx::String const& algorithm) {
    setValue(kEncryptionAlgorithmKey, algorithm, false, true);
}

yx::String CVMDKDescriptor::getYxEncryptionKeyHashAlgorithm() const {
    return getValue(kKeyHashAlgorithmKey);
}

void CVMDKDescriptor::setYxEncryptionKeyHashAlgorithm(yx::String const& algorithm) {
    setValue(kKeyHashAlgorithmKey, algorithm, false, true);
}

yx::String CVMDKDescriptor::getYxEncryptionKeyDerivationAlgorithm() const {
    return getValue(kKeyDerivationAlgorithmKey);
}

void CVMDKDescriptor::setYxEncryptionKeyDerivationAlgorithm(yx::String const& algorithm) {
    setValue(kKeyDerivationAlgorithmKey, algorithm, false, true);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getBytes(yx::String const& key) const {
    yx::TBuffer<unsigned char> bytes;
    yx::hexDecode(getValue(key), bytes);
    return bytes;
}

void CVMDKDescriptor::setBytes(yx::String const& key, yx::TBuffer<unsigned char> const& bytes) {
    setValue(key, yx::hexEncode(bytes), false, true);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionIV() const {
    return getBytes(kEncryptionIVKey);
}

void CVMDKDescriptor::setYxEncryptionIV(yx::TBuffer<unsigned char> const& iv) {
    setBytes(kEncryptionIVKey, iv);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptedEncryptionKey() const {
    return getBytes(kEncryptedEncryptionKeyKey);
}

void CVMDKDescriptor::setYxEncryptedEncryptionKey(yx::TBuffer<unsigned char> const& key) {
    setBytes(kEncryptedEncryptionKeyKey, key);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionKeyHash() const {
    return getBytes(kEncryptionKeyHashKey);
}

void CVMDKDescriptor::setYxEncryptionKeyHash(yx::TBuffer<unsigned char> const& hash) {
    setBytes(kEncryptionKeyHashKey, hash);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionKeyDerivationSalt() const {
    return getBytes(kKeyDerivationSaltKey);
}

void CVMDKDescriptor::setYxEncryptionKeyDerivationSalt(yx::TBuffer<unsigned char> const& salt) {
    setBytes(kKeyDerivationSaltKey, salt);
}

} // namespace kelm
