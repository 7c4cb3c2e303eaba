// Backs a raw image up into an encrypted, compressed disk that is split over several files,
// restores it, and compares.
//
//   backup_restore [IMAGE]
//
// Without an image it makes one of its own in the current directory.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "examples/example_files.h"
#include "kelm/kelm.h"

namespace {

constexpr int kChunkSizeBytes = 1 << 20;
constexpr __int64 kExtentFileLimitBytes = 16 << 20;
constexpr char kPassword[] = "correct horse battery staple";

/// Copies as many bytes as `from` has. Chunks of zeros are skipped: a new disk, and a new file that
/// gets its length at the end, read as zeros anyway.
void copyStream(yx::IIOStream& from, yx::IIOStream& to) {
    yx::TBuffer<unsigned char> chunk(kChunkSizeBytes, -1);
    from.seek(0);
    while (int const size = from.readLax(chunk.getData(), kChunkSizeBytes)) {
        if (!yx::isAllZero(chunk.getData(), static_cast<std::size_t>(size))) {
            to.seek(from.getPosition() - size);
            to.write(chunk.getData(), size, nullptr);
        }
    }
}

bool haveEqualContent(yx::IIOStream& left, yx::IIOStream& right, __int64 sizeBytes) {
    yx::TBuffer<unsigned char> leftChunk(kChunkSizeBytes, -1);
    yx::TBuffer<unsigned char> rightChunk(kChunkSizeBytes, -1);
    left.seek(0);
    right.seek(0);
    for (__int64 done = 0; done < sizeBytes; done += kChunkSizeBytes) {
        int const size = static_cast<int>(std::min<__int64>(kChunkSizeBytes, sizeBytes - done));
        left.read(leftChunk.getData(), size);
        right.read(rightChunk.getData(), size);
        if (std::memcmp(leftChunk.getData(), rightChunk.getData(),
                        static_cast<std::size_t>(size)) != 0)
            return false;
    }
    return true;
}

int run(yx::String const& imagePath) {
    yx::P<yx::CNativeFileSystem> const files = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<yx::IIOStream> const image =
        example::openFile(*files, imagePath, yx::IIOStream::ReadOnly);
    yx::CURI const diskURI = example::uriOf("backup.vmdk");
    __int64 const imageSizeBytes = image->getLength();

    {
        yx::P<kelm::CVMDKDisk> const disk = kelm::CVMDKDisk::create(
            files.get(), diskURI, imageSizeBytes, kPassword, /*compressed*/ true,
            /*compressionLevel*/ -1, kExtentFileLimitBytes, /*parentRelPath*/ "",
            /*parentContentID*/ 0xFFFFFFFF, /*createExtentFilesOnDemand*/ false);
        kelm::CVMDKDiskIOStream stream(disk.get());
        copyStream(*image, stream);
        // The destructor would flush too, but could not report a failure.
        disk->flushChanges();
        yx::P<kelm::CVMDKSpaceInfo> const space = disk->gatherSpaceInfo();
        std::printf("backed up %lld bytes in %lld bytes of grains, %d extents\n", imageSizeBytes,
                    space->getPayloadSizeInFile(), example::countExtents(*disk));
    }

    kelm::CVMDKDiskIOStream backup(files.get(), diskURI, yx::IIOStream::ReadOnly, kPassword);
    yx::P<yx::IIOStream> const restored =
        example::openFile(*files, "restored.img", yx::IIOStream::ReadWrite);
    restored->setLength(backup.getLength());
    copyStream(backup, *restored);
    // A disk is a whole number of grains; the image ends where it ended.
    restored->setLength(imageSizeBytes);
    restored->flush();

    bool const equal = haveEqualContent(*image, *restored, imageSizeBytes);
    std::printf("%s\n", equal ? "the restored image is equal" : "THE RESTORED IMAGE DIFFERS");
    return equal ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc > 1 ? yx::String(argv[1]) : example::makeSampleImage("sample.img"));
    } catch (std::exception const& error) {
        std::fprintf(stderr, "backup_restore: %s\n", error.what());
        return 1;
    }
}
