#pragma once

// What the examples share: names of files, and something to back up.

#include "kelm/kelm.h"

namespace example {

/// The URI of a file by its path, below the current directory if that is relative.
inline yx::CURI uriOf(yx::String const& path) {
    using Path = yx::TPathImpl<yx::CUnixPathTraits>;
    return yx::CURI(Path(path, true, false).normalize(true, Path()), false);
}

/// Opens a file through the buffering layer.
inline yx::P<yx::IIOStream> openFile(yx::IFileSystem& files, yx::String const& path,
                                     yx::IIOStream::Access access) {
    return kelm::openVMDKFileStream(&files, uriOf(path), access);
}

inline int countExtents(kelm::CVMDKDisk& disk) {
    yx::TArray<yx::P<kelm::CVMDKExtentInfo>> extents;
    disk.getDescriptor()->getExtentEntries(extents);
    return extents.getSize();
}

/// Fills a block with content that is different for each seed: a third of it text that compresses,
/// a third that does not, the rest zeros.
inline void fillBlock(yx::TBuffer<unsigned char>& block, unsigned int seed) {
    int const third = block.getUsed() / 3;
    yx::initMemory(block.getData(), 0, static_cast<std::size_t>(block.getUsed()));
    unsigned int state = seed * 2654435761u + 1;
    for (int i = 0; i < third; ++i) {
        state = state * 1664525u + 1013904223u;
        block.getData()[i] = static_cast<unsigned char>("a small disk image "[i % 19]);
        block.getData()[third + i] = static_cast<unsigned char>(state >> 24);
    }
}

/// Makes a raw image of 24 MiB with holes, and returns its path.
inline yx::String makeSampleImage(yx::String const& path) {
    constexpr int kBlockSizeBytes = 1 << 20;
    constexpr unsigned int kBlocks = 24;
    yx::CNativeFileSystem files;
    yx::P<yx::IIOStream> const image = openFile(files, path, yx::IIOStream::ReadWrite);
    image->setLength(0);
    yx::TBuffer<unsigned char> block(kBlockSizeBytes, -1);
    for (unsigned int i = 0; i < kBlocks; i += 2) {
        fillBlock(block, i);
        image->seek(static_cast<__int64>(i) * kBlockSizeBytes);
        image->write(block.getData(), kBlockSizeBytes, nullptr);
    }
    image->setLength(static_cast<__int64>(kBlocks) * kBlockSizeBytes);
    image->flush();
    return path;
}

} // namespace example
