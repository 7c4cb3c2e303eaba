#pragma once

#include <optional>
#include <string>

#include "kelm/format/descriptor.h"

namespace kelm::host {

/// Whether a disk holds all that it is to hold.
enum class DiskState {
    Complete,   ///< it does; also any disk that says nothing about it
    Unfinished, ///< it was still being filled
};

/// What a disk says about itself beyond the format, by keys in its descriptor. Other software
/// ignores and keeps them, and a disk without them is as good as any.
///
///     ddb.kelm.state = "unfinished"                  or "complete  ", which is of the same length
///     ddb.kelm.imageBytes = "00000000000067109376"   20 digits
///     ddb.kelm.time = "2031-05-04T02:00:00Z"         RFC 3339, in UTC
///     ddb.kelm.source = "/dev/sdb"
///     ddb.kelm.host = "server7"
///     ddb.kelm.label = "before the upgrade"
///
/// In texts, quotes, percent signs, control characters and bytes that are no UTF-8 stand as "%" and
/// two hexadecimal digits for each byte, since a descriptor has no escapes of its own.
///
/// Everything here changes the descriptor in memory; storing it is the caller's, by
/// `SafeDisk::storeDescriptor`, which also keeps the checksum true (`updateChecksum`).
class DiskRecord {
public:
    /// The longest text that `setSource`, `setHost` and `setLabel` take, in bytes as stored: a
    /// descriptor inside a disk file has room for 10 KiB.
    static constexpr std::size_t kMaxTextBytes = 1024;

    /// `descriptor` must outlive the record.
    explicit DiskRecord(CVMDKDescriptor& descriptor) : m_descriptor(descriptor) {}

    /// Any value but "complete" counts as unfinished: a power cut may leave a mixture of the two.
    DiskState getState() const;

    /// Changes one line in place, so that no other line moves to another sector.
    void setState(DiskState state);

    /// The exact size of the image that the disk was made of, in bytes; nothing if it was made of
    /// none. A value that is no number, or more than `diskSizeBytes`, is `CIOError` `CorruptData`
    /// "Invalid ddb.kelm.imageBytes in VMDK descriptor: " value.
    std::optional<__int64> getImageBytes(__int64 diskSizeBytes) const;

    /// `imageBytes` is not negative.
    void setImageBytes(__int64 imageBytes);

    /// When the image was taken, as text of `formatTime`; "" if not known.
    std::string getTime() const;
    void setTime(std::string const& time);

    /// The image that was imported, the machine that did it, and a text that a person gave; "" if
    /// not known. A text of more than `kMaxTextBytes` bytes as stored is `yx::CInvalidArgError`.
    std::string getSource() const;
    void setSource(std::string const& source);
    std::string getHost() const;
    void setHost(std::string const& host);
    std::string getLabel() const;
    void setLabel(std::string const& label);

private:
    std::string getText(char const* key) const;
    void setText(char const* key, std::string const& text);

    CVMDKDescriptor& m_descriptor;
};

} // namespace kelm::host
