#pragma once

#include <string_view>
#include <utility>

#include "kelm/format/descriptor_entry.h"

namespace kelm {

/// The extent line of a descriptor, such as `RW 4192256 SPARSE "disk-s001.vmdk"`: which file, or
/// which part of one, holds the next sectors of the disk.
class KELM_API CVMDKExtentInfo : public CVMDKDescriptorEntry {
public:
    /// `offset` is -1 for a line without one. Nothing is tested.
    CVMDKExtentInfo(yx::String const& access, __int64 sizeSectors, yx::String const& type,
                    yx::String const& filename, __int64 offset);

    /// The same, and takes the texts over.
    CVMDKExtentInfo(yx::String&& access, __int64 sizeSectors, yx::String&& type,
                    yx::String&& filename, __int64 offset) noexcept
        : m_access(std::move(access)),
          m_sizeSectors(sizeSectors),
          m_type(std::move(type)),
          m_filename(std::move(filename)),
          m_offset(offset) {}

    /// The fields of the line: an access word such as "RW", the size, and a type word such as
    /// "SPARSE".
    yx::String const& getAccess() const { return m_access; }
    __int64 getSizeSectors() const { return m_sizeSectors; }
    yx::String const& getType() const { return m_type; }

    /// The text between the quotes, as it stands.
    yx::String const& getFilename() const { return m_filename; }

    /// The number behind the file name, which opening a disk ignores; -1 if the line has none.
    __int64 getOffset() const { return m_offset; }

    /// Reads a line of an access word, a size in sectors, a type word, a file name in double quotes
    /// and, if anything follows, an offset, separated by blanks. Which words they are is not
    /// tested. Any other line, also one with bad numbers, yields an empty pointer.
    static yx::P<CVMDKExtentInfo> tryParseDescriptorLine(yx::String const& line);

    yx::String toString() override;
    yx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

private:
    friend class CVMDKDescriptor;

    /// As `tryParseDescriptorLine`, for a line within a larger text.
    static yx::P<CVMDKExtentInfo> tryParse(std::wstring_view line);

    /// The same, for ASCII too.
    template <class Char>
    static yx::P<CVMDKExtentInfo> tryMake(std::basic_string_view<Char> line);

    yx::String m_access;
    __int64 m_sizeSectors;
    yx::String m_type;
    yx::String m_filename;
    __int64 m_offset;
};

} // namespace kelm
