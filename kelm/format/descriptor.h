#pragma once

#include <string_view>
#include <utility>

#include "kelm/format/descriptor_entry.h"
#include "kelm/format/extent_info.h"
#include "yx/array.h"
#include "yx/stream.h"

namespace kelm {

/// A disk's descriptor: a text of key and value lines, extent lines and comments, held as an
/// ordered list of lines, so that reading it, changing a value and writing it keeps every other
/// line where it was, comments and unknown keys included.
///
/// Keys are compared without regard to case, and the first line of a key counts. Key and value
/// lines are written in a normal form (`key=value`, `ddb.key = "value"`), all other lines as they
/// were read. No escapes exist: quotes in values and file names are written as they stand.
///
/// Getters of numbers and bytes throw what the framework's parsers throw on bad text, and numbers
/// of more bits than the getter returns lose the upper ones. "Not found" below is `yx::CError`
/// "VMDK descriptor value '" key "' not found.".
class KELM_API CVMDKDescriptor : public yx::CBase {
public:
    /// A line that is kept verbatim: a comment, an empty line, or anything not understood.
    class KELM_API CGenericEntry : public CVMDKDescriptorEntry {
    public:
        /// `text` is the line without its line end.
        explicit CGenericEntry(yx::String const& text);

        /// The same, and takes the text over.
        explicit CGenericEntry(yx::String&& text) noexcept : m_text(std::move(text)) {}

        yx::String toString() override;
        yx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    private:
        yx::String m_text;
    };

    /// A line of key and value.
    class KELM_API CNameValueEntry : public CVMDKDescriptorEntry {
    public:
        /// `value` is without quotes; `quoted` says whether the line has them.
        CNameValueEntry(yx::String const& name, yx::String const& value, bool quoted);

        /// The same, and takes the texts over.
        CNameValueEntry(yx::String&& name, yx::String&& value, bool quoted) noexcept
            : m_name(std::move(name)), m_value(std::move(value)), m_quoted(quoted) {}

        /// In the case in which the text has it.
        yx::String const& getName() const { return m_name; }

        /// The value without quotes, and whether the line has them.
        yx::String const& getValue() const { return m_value; }
        bool getQuoted() const { return m_quoted; }

        /// Quotes, or none, stay as they are.
        void setValue(yx::String const& value) { m_value = value; }

        yx::String toString() override;
        yx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    private:
        yx::String m_name;
        yx::String m_value;
        bool m_quoted;
    };

    /// No lines.
    CVMDKDescriptor() = default;

    /// Parses the bytes up to the first zero byte, in the encoding that their "encoding" line
    /// names: UTF-8, which is also meant if there is none, or Latin-1. Another encoding is logged
    /// as a warning and read as Latin-1. Bytes that are no UTF-8 where UTF-8 is named make a
    /// descriptor without lines. No text is refused; the cost grows in step with the text.
    explicit CVMDKDescriptor(yx::TBuffer<unsigned char> const& text);

    /// Copies share no line with their source.
    CVMDKDescriptor(CVMDKDescriptor const& other);
    CVMDKDescriptor& operator=(CVMDKDescriptor const& other);

    ~CVMDKDescriptor() override = default;

    /// Whether a line has that key.
    bool hasValue(yx::String const& key) const;

    /// Whether the key exists; `value` is empty if it does not.
    bool tryGetValue(yx::String const& key, yx::String& value) const;

    /// Throws "not found".
    yx::String getValue(yx::String const& key) const;

    /// Gives the first line of that key a new value and leaves its place, its spelling of the key
    /// and its quotes as they are. Without such a line a new one is made, with quotes if `quoted`:
    /// behind the last key and value line before the extent lines if `inHeader`, else at the end.
    void setValue(yx::String const& key, yx::String const& value, bool quoted, bool inHeader);

    /// Removes every line of that key, and answers whether there was one. The other lines keep
    /// their order, and new ones go where they would in a descriptor read from the text that is
    /// left.
    bool removeValue(yx::String const& key);

    /// Adds a line, to be kept verbatim, in the place where `setValue` would put a new key.
    void addGenericLine(yx::String const& line, bool inHeader);

    /// Appends an extent line, at the very end, and shares the object with the caller. Null is
    /// `yx::CInvalidArgError`.
    void addExtentEntry(CVMDKExtentInfo* entry);

    /// Appends every extent line, in file order, to `target`.
    void getExtentEntries(yx::TArray<yx::P<CVMDKExtentInfo>>& target) const;

    /// All lines, each followed by a line feed.
    yx::String toString() const;

    /// Sets the encoding to UTF-8 and writes exactly `targetSizeBytes` bytes at the stream's
    /// position: the text in UTF-8, then zeros from `zeroBuffer`.
    ///
    /// Throws `yx::CError` before it writes anything: "Internal error: actual VMDK descriptor size
    /// exceeds target size (actual size: " and so on; "Internal error: pad buffer too small (size:
    /// " and so on, if `zeroBuffer` holds less than all of the padding; "Internal error: VMDK
    /// descriptor text cannot be stored." for a text with a zero character, or with one that UTF-8
    /// does not have, since a part of it would be lost.
    void store(yx::IOutStream& stream, int targetSizeBytes,
               yx::TBuffer<unsigned char> const& zeroBuffer);

    /// "version". Throws "not found".
    int getVersion() const;
    void setVersion(int version);

    /// "encoding".
    void setEncodingUTF8();

    /// "CID", the number that changes whenever the disk's content does. Throws "not found".
    unsigned int getContentID() const;
    void setContentID(unsigned int contentID);

    /// "parentCID", the content ID that the parent had when the child was made; 0xFFFFFFFF if the
    /// key is absent, as in a disk without parent.
    unsigned int getParentContentID() const;
    void setParentContentID(unsigned int contentID);

    /// "parentFileNameHint", a file reference. The first throws "not found", the second answers
    /// false and sets "".
    yx::String getParentFileNameHint() const;
    bool tryGetParentFileNameHint(yx::String& hint) const;
    void setParentFileNameHint(yx::String const& hint);

    /// Makes it absent, as in a disk without parent.
    void removeParentFileNameHint();

    /// "createType", such as "monolithicSparse". Throws "not found".
    yx::String getCreateType() const;
    void setCreateType(yx::String const& type);

    /// "yxCreateExtentFilesOnDemand"; false if the key is absent.
    bool getYxCreateExtentFilesOnDemand() const;
    void setYxCreateExtentFilesOnDemand(bool onDemand);

    /// "ddb.adapterType". Throws "not found".
    yx::String getAdapterType() const;
    void setAdapterType(yx::String const& type);

    /// "ddb.geometry.sectors", "ddb.geometry.heads" and "ddb.geometry.cylinders". Throw "not
    /// found".
    __int64 getGeometrySectors() const;
    void setGeometrySectors(__int64 sectors);
    __int64 getGeometryHeads() const;
    void setGeometryHeads(__int64 heads);
    __int64 getGeometryCylinders() const;
    void setGeometryCylinders(__int64 cylinders);

    /// Whether the disk is encrypted, which a "yxEncAlg" of any other value than "" says.
    bool isEncrypted() const { return !getYxEncryptionAlgorithm().isEmpty(); }

    /// "yxEncAlg"; "" if the key is absent.
    yx::String getYxEncryptionAlgorithm() const;
    void setYxEncryptionAlgorithm(yx::String const& algorithm);

    /// "yxEncKeyHashAlg" and "yxEncKeyDerivAlg". Throw "not found".
    yx::String getYxEncryptionKeyHashAlgorithm() const;
    void setYxEncryptionKeyHashAlgorithm(yx::String const& algorithm);
    yx::String getYxEncryptionKeyDerivationAlgorithm() const;
    void setYxEncryptionKeyDerivationAlgorithm(yx::String const& algorithm);

    /// "yxEncIV", "yxEncEncKey", "yxEncKeyHash" and "yxEncKeyDerivSalt", in hexadecimal in the
    /// text. Throw "not found".
    yx::TBuffer<unsigned char> getYxEncryptionIV() const;
    void setYxEncryptionIV(yx::TBuffer<unsigned char> const& iv);
    yx::TBuffer<unsigned char> getYxEncryptedEncryptionKey() const;
    void setYxEncryptedEncryptionKey(yx::TBuffer<unsigned char> const& key);
    yx::TBuffer<unsigned char> getYxEncryptionKeyHash() const;
    void setYxEncryptionKeyHash(yx::TBuffer<unsigned char> const& hash);
    yx::TBuffer<unsigned char> getYxEncryptionKeyDerivationSalt() const;
    void setYxEncryptionKeyDerivationSalt(yx::TBuffer<unsigned char> const& salt);

protected:
    /// The first line of that key, empty if there is none.
    yx::P<CNameValueEntry> findValueEntry(yx::String const& key) const;

private:
    static yx::P<CVMDKDescriptorEntry> parseLine(std::wstring_view line);
    static yx::P<CVMDKDescriptorEntry> parseLine(std::string_view line);
    void parseLines(wxString const& text);

    // Of either kind of character.
    template <class Char>
    static yx::P<CVMDKDescriptorEntry> makeEntry(std::basic_string_view<Char> line);
    template <class Char>
    void addLines(std::basic_string_view<Char> text);
    void findHeaderEnd();
    void addLine(yx::P<CVMDKDescriptorEntry> const& entry, bool inHeader);

    /// Whether the header ends within the lines, and not behind an extent line.
    bool isHeaderEndPlausible() const;
    yx::TBuffer<unsigned char> getBytes(yx::String const& key) const;
    void setBytes(yx::String const& key, yx::TBuffer<unsigned char> const& bytes);

    yx::TArray<yx::P<CVMDKDescriptorEntry>> m_entries;
    int m_headerEndIndex = 0;
};

} // namespace kelm
