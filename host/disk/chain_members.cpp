#include "host/disk/chain_members.h"

#include <optional>

namespace kelm::host {

namespace {

CVMDKSparseExtentHeader readHeader(yx::IFileSystem* fileSystem, yx::CURI const& extentFile) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, extentFile, yx::IIOStream::ReadOnly);
    yx::CDataInStream in(stream.get());
    CVMDKSparseExtentHeader header;
    header.load(in);
    return header;
}

ChainMember readMember(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    ChainMember member;
    member.mainFile = mainFile;
    member.descriptor = readDescriptor(fileSystem, mainFile);
    member.extents = listDescribedExtents(*member.descriptor, mainFile, kSectorSizeBytes, false);
    if (member.extents.empty())
        return member;
    CVMDKSparseExtentHeader const header = readHeader(fileSystem, member.extents.front().uri);
    auto const grainSizeSectors = header.getGrainSizeSectors();
    if (grainSizeSectors == 0 || grainSizeSectors > CVMDKDataPreparer::kMaxGrainSizeSectors) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The header of a parent disk is damaged.",
                           yx::CProps().add("uri", member.extents.front().uri.toString(true)),
                           nullptr);
    }
    for (DiskExtent& extent : member.extents) {
        extent.grainSizeBytes = static_cast<__int64>(grainSizeSectors) * kSectorSizeBytes;
        extent.isCompressed = header.isCompressed();
    }
    return member;
}

std::optional<ChainMember> tryReadMember(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    if (!fileSystem->fileExists(mainFile))
        return std::nullopt;
    try {
        return readMember(fileSystem, mainFile);
    } catch (yx::CIOError const& error) {
        error.nop();
        return std::nullopt;
    }
}

/// Empty for a disk without a parent.
yx::CURI findParent(ChainMember const& child) {
    yx::String hint;
    if (child.descriptor->getParentContentID() == kNoParentContentID ||
        !child.descriptor->tryGetParentFileNameHint(hint))
        return {};
    return vmdkFileReferenceToURI(child.mainFile.getParent(), hint);
}

} // namespace

yx::P<CVMDKDescriptor> readDescriptor(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, mainFile, yx::IIOStream::ReadOnly);
    return CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
}

std::vector<ChainMember> listChainMembers(SafeDisk& disk) {
    CVMDKDisk& first = disk.getDisk();
    std::vector<ChainMember> members{
        {first.getMainFileURI(), first.getDescriptor(), disk.listExtents()}};
    yx::CURI parent = first.getParentDiskMainURI();
    while (!parent.isEmpty() && members.size() <= kMaxChainLength) {
        std::optional<ChainMember> member = tryReadMember(disk.getFileSystem(), parent);
        if (!member)
            break;
        members.push_back(*std::move(member));
        parent = findParent(members.back());
    }
    return members;
}

} // namespace kelm::host
