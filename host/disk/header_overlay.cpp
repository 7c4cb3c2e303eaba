#include "host/disk/header_overlay.h"

#include <algorithm>
#include <string_view>

#include "host/disk/disk_layout.h"
#include "host/disk/expected_extent.h"
#include "host/disk/overlaid_stream.h"
#include "host/disk/readable_sectors.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

constexpr std::string_view kDescriptorStart = "# Disk DescriptorFile";
constexpr __int64 kMaxTextSectors = 160;

bool isHeader(ReadableSectors const& sectors) {
    auto const magic = loadLittleEndian<unsigned int>(sectors.bytes.data());
    return sectors.isReadable.front() &&
           (magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic);
}

/// The descriptor that begins in the second sector; null if none does.
yx::P<CVMDKDescriptor> readDescriptorBehindHeader(yx::IIOStream& stream) {
    ReadableSectors const area = readReadableSectors(stream, 1, kMaxTextSectors);
    auto const end = std::find(area.bytes.begin(), area.bytes.end(), 0);
    std::string_view const text(reinterpret_cast<char const*>(area.bytes.data()),
                                static_cast<std::size_t>(end - area.bytes.begin()));
    if (!text.starts_with(kDescriptorStart))
        return nullptr;
    yx::TBuffer<unsigned char> bytes(static_cast<int>(text.size()), -1);
    std::copy(area.bytes.begin(), end, bytes.getData());
    return yx::makeObject<CVMDKDescriptor>(bytes);
}

/// The record of the header; empty if it is there, or is not to be had.
std::string findLostHeader(yx::IIOStream& stream, yx::CURI const& uri) {
    ReadableSectors const first = readReadableSectors(stream, 0, 1);
    if (stream.getLength() < kSectorSizeBytes)
        return {};
    try {
        if (isHeader(first)) {
            stream.seek(0);
            // Looks for the descriptor where the header says.
            CVMDKDescriptorAccessor const accessor(&stream, yx::IIOStream::ReadOnly);
            if (accessor.getDescriptor()->hasValue("createType"))
                return {};
        }
    } catch (yx::CError const& error) {
        error.nop();
    }
    yx::P<CVMDKDescriptor> const descriptor = readDescriptorBehindHeader(stream);
    if (!descriptor)
        return {};
    std::vector<DiskExtent> const extents =
        listDescribedExtents(*descriptor, uri, kSectorSizeBytes, false);
    if (extents.empty())
        return {};
    // A file that was renamed has its former name in its descriptor.
    ExpectedExtent expected = expectExtent(*descriptor, uri, extents.front());
    expected.holdsDescriptor = true;
    std::optional<CVMDKSparseExtentHeader> const header = findHeader(stream, expected);
    return header ? makeHeaderRecord(*header) : std::string();
}

} // namespace

yx::P<yx::IIOStream> HeaderOverlay::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                             unsigned int* options) {
    yx::P<yx::IIOStream> stream = m_fileSystem->openFile(uri, access, options);
    bool const isLockFile = uri.getExtension() == kLockFileExtension;
    if (access != yx::IIOStream::ReadOnly || isLockFile)
        return stream;
    yx::P<yx::IIOStream> buffered = stream;
    if (dynamic_cast<yx::IAlignedStreamBase*>(stream.get()))
        buffered = yx::makeObject<yx::COptimizingIOStream>(stream.get());
    std::string record;
    try {
        record = findLostHeader(*buffered, uri);
        stream->seek(0);
    } catch (yx::CError const& error) {
        // Who reads the file gets the error as it is.
        error.nop();
    }
    if (record.empty())
        return stream;
    yx::P<Overlay> const overlay = yx::makeObject<Overlay>();
    overlay->bytes.assign(record.begin(), record.end());
    buffered->seek(0);
    return yx::makeObject<OverlaidStream>(buffered, overlay);
}

} // namespace kelm::host
