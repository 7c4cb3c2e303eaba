// Moves grains in prepared form, the form in which a compressed disk stores them: once by preparing
// them on several threads, and once by copying them from disk to disk without unpacking.

#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>
#include <vector>

#include "examples/example_files.h"
#include "kelm/kelm.h"

namespace {

constexpr int kThreads = 4;
constexpr int kGrains = 256;

using Buffer = yx::P<yx::TBuffer<unsigned char>>;

yx::P<kelm::CVMDKDisk> createDisk(yx::IFileSystem& files, char const* name) {
    constexpr __int64 kGrainSizeBytes = 65536;
    return kelm::CVMDKDisk::create(&files, example::uriOf(name), kGrains * kGrainSizeBytes,
                                   /*password*/ "", /*compressed*/ true, /*compressionLevel*/ 6,
                                   /*fileSizeLimit*/ -1, /*parentRelPath*/ "",
                                   /*parentContentID*/ 0xFFFFFFFF,
                                   /*createExtentFilesOnDemand*/ false);
}

/// Prepares every grain. A disk serves one thread, but each preparer is an object of its own, so
/// the threads share nothing.
std::vector<Buffer> prepareOnSeveralThreads(kelm::CVMDKDisk& disk) {
    std::vector<yx::P<kelm::CVMDKDataPreparer>> preparers(kThreads);
    for (yx::P<kelm::CVMDKDataPreparer>& preparer : preparers)
        preparer = disk.createDataPreparer();
    int const grainSizeBytes = static_cast<int>(disk.getGrainSizeBytes());

    std::vector<Buffer> prepared(kGrains);
    auto const work = [&](int thread) {
        yx::TBuffer<unsigned char> grain(grainSizeBytes, -1);
        for (int index = thread; index < kGrains; index += kThreads) {
            example::fillBlock(grain, static_cast<unsigned int>(index));
            Buffer const aux = yx::makeObject<yx::TBuffer<unsigned char>>();
            prepared[static_cast<std::size_t>(index)] =
                preparers[static_cast<std::size_t>(thread)]->prepareGrainData(&grain, index,
                                                                              aux.get());
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(work, i);
    for (std::thread& thread : threads)
        thread.join();
    return prepared;
}

void copyPrepared(kelm::CVMDKDisk& from, kelm::CVMDKDisk& to) {
    yx::TBuffer<unsigned char> grain;
    from.seek(0);
    while (from.getPosition() < from.getSizeBytes()) {
        // Copying a grain that is nowhere would store a grain of zeros.
        if (!from.isGrainWritten()) {
            from.seek(from.getPosition() + from.getGrainSizeBytes());
            continue;
        }
        to.seek(from.getPosition());
        from.readPreparedGrainData(grain);
        to.writePreparedGrainData(grain);
    }
}

bool holdsAllGrains(kelm::CVMDKDisk& disk) {
    int const grainSizeBytes = static_cast<int>(disk.getGrainSizeBytes());
    yx::TBuffer<unsigned char> expected(grainSizeBytes, -1);
    yx::TBuffer<unsigned char> actual(grainSizeBytes, -1);
    disk.seek(0);
    for (int index = 0; index < kGrains; ++index) {
        example::fillBlock(expected, static_cast<unsigned int>(index));
        disk.read(actual.getData(), grainSizeBytes);
        if (std::memcmp(expected.getData(), actual.getData(),
                        static_cast<std::size_t>(grainSizeBytes)) != 0)
            return false;
    }
    return true;
}

int run() {
    yx::CNativeFileSystem files;
    yx::P<kelm::CVMDKDisk> const source = createDisk(files, "source.vmdk");
    source->seek(0);
    for (Buffer const& grain : prepareOnSeveralThreads(*source))
        source->writePreparedGrainData(*grain);
    source->flushChanges();
    std::printf("wrote %d grains prepared on %d threads\n", kGrains, kThreads);

    yx::P<kelm::CVMDKDisk> const target = createDisk(files, "target.vmdk");
    copyPrepared(*source, *target);
    target->flushChanges();
    bool const equal = holdsAllGrains(*source) && holdsAllGrains(*target);
    std::printf("%s\n", equal ? "both disks hold every grain" : "A GRAIN DIFFERS");
    return equal ? 0 : 1;
}

} // namespace

int main() {
    try {
        return run();
    } catch (std::exception const& error) {
        std::fprintf(stderr, "grain_copy: %s\n", error.what());
        return 1;
    }
}
