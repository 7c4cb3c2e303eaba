#include "host/backups/descriptor_mending.h"

#include <algorithm>
#include <optional>
#include <string>

#include "host/backups/descriptor_file.h"
#include "host/backups/disk_claims.h"
#include "host/disk/disk_files.h"
#include "host/store/folder_files.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

constexpr __int64 kMaxChangeBytes = __int64{64} << 20;

DescriptorArea readBytes(yx::IFileSystem* fileSystem, yx::CURI const& file, __int64 positionBytes,
                         std::size_t count) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, file, yx::IIOStream::ReadOnly);
    DescriptorArea bytes(count);
    stream->seek(positionBytes);
    stream->read(bytes.data(), static_cast<int>(count));
    return bytes;
}

/// Whether each sector is that of one of the two.
bool isMixture(DescriptorArea const& area, DescriptorArea const& one, DescriptorArea const& other) {
    for (std::size_t at = 0; at < area.size(); at += kSectorSizeBytes) {
        auto const begin = static_cast<std::ptrdiff_t>(at);
        auto const end =
            static_cast<std::ptrdiff_t>(std::min<std::size_t>(at + kSectorSizeBytes, area.size()));
        auto const isThatOf = [&](DescriptorArea const& source) {
            return std::equal(area.begin() + begin, area.begin() + end, source.begin() + begin);
        };
        if (!isThatOf(one) && !isThatOf(other))
            return false;
    }
    return true;
}

/// Where the header says that the descriptor is; nothing where it says nothing of the kind.
std::optional<__int64> findAreaOf(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                                  std::size_t areaBytes) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, mainFile, yx::IIOStream::ReadOnly);
    CVMDKSparseExtentHeader header;
    yx::CDataInStream in(stream.get());
    header.load(in);
    bool const isThatLarge = header.getDescriptorSizeSectors() * kSectorSizeBytes == areaBytes;
    if (!isThatLarge || header.getDescriptorOffsetSectors() == 0)
        return std::nullopt;
    return static_cast<__int64>(header.getDescriptorOffsetSectors()) * kSectorSizeBytes;
}

/// The disk that a file beside it belongs to, whose name has a suffix behind that of the disk.
std::optional<yx::CURI> findMainFile(yx::CURI const& file, std::string const& suffix) {
    std::string const name = file.getName().toStdString();
    if (!name.ends_with(suffix))
        return std::nullopt;
    std::string const mainName = name.substr(0, name.size() - suffix.size());
    return (file.getParent() << yx::String::fromUTF8(mainName)).toNormalized();
}

/// A kill came before the disk itself was touched.
void removeUnfinishedChange(yx::IFileSystem* fileSystem, DurableFiles& files,
                            yx::CURI const& mainFile, yx::CURI const& file) {
    DiskClaims claims(fileSystem);
    claims.addName(mainFile);
    files.remove(file);
}

} // namespace

void mendDescriptor(yx::IFileSystem* fileSystem, DurableFiles& files, yx::CURI const& mainFile) {
    yx::CURI const change = nameOfDescriptorChange(mainFile);
    if (!fileSystem->fileExists(change))
        return;
    DiskClaims claims(fileSystem);
    claims.addName(mainFile);
    claims.addFile(mainFile);
    // Only now nobody is changing it.
    if (!fileSystem->fileExists(change))
        return;
    __int64 const sizeBytes =
        openVMDKFileStream(fileSystem, change, yx::IIOStream::ReadOnly)->getLength();
    if (sizeBytes % (__int64{2} * kSectorSizeBytes) != 0 || sizeBytes < 1 ||
        sizeBytes > kMaxChangeBytes || !fileSystem->fileExists(mainFile))
        return;
    auto const areaBytes = static_cast<std::size_t>(sizeBytes / 2);
    std::optional<__int64> const position = findAreaOf(fileSystem, mainFile, areaBytes);
    if (position) {
        DescriptorArea const before = readBytes(fileSystem, change, 0, areaBytes);
        DescriptorArea const after = readBytes(fileSystem, change, sizeBytes / 2, areaBytes);
        DescriptorArea const present = readBytes(fileSystem, mainFile, *position, areaBytes);
        if (present != before && present != after && isMixture(present, before, after))
            files.patch(mainFile, *position, before);
    }
    files.remove(change);
}

void mendDescriptors(yx::IFileSystem* fileSystem, DurableFiles& files,
                     std::vector<yx::CURI> const& folders) {
    for (yx::CURI const& folder : folders) {
        for (yx::CURI const& file : listFilesBelow(folder)) {
            if (std::optional<yx::CURI> const mainFile =
                    findMainFile(file, kDescriptorChangeSuffix)) {
                mendDescriptor(fileSystem, files, *mainFile);
            } else if (std::optional<yx::CURI> const other = findMainFile(
                           file, std::string(kDescriptorChangeSuffix) + kUnfinishedFileSuffix)) {
                removeUnfinishedChange(fileSystem, files, *other, file);
            }
        }
    }
}

} // namespace kelm::host
