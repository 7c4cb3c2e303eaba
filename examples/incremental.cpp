// A full backup and two incremental ones: child disks that hold only what changed since. Any day's
// state is read back by opening that day's disk, which falls through to the days before it.

#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "examples/example_files.h"
#include "kelm/kelm.h"

namespace {

constexpr int kBlockSizeBytes = 65536;
constexpr int kBlocks = 256;
constexpr __int64 kDiskSizeBytes = static_cast<__int64>(kBlocks) * kBlockSizeBytes;

/// The machine that is backed up: the seed of each block's content, 0 for an empty block.
using Machine = std::vector<unsigned int>;

struct Change {
    int block;
    unsigned int seed;
};

yx::CURI diskOf(int day) {
    return example::uriOf("day" + yx::toString(day) + ".vmdk");
}

void writeBlock(kelm::CVMDKDisk& disk, kelm::CVMDKDataPreparer& preparer, int block,
                unsigned int seed) {
    yx::TBuffer<unsigned char> content(kBlockSizeBytes, -1);
    yx::TBuffer<unsigned char> aux;
    if (seed == 0)
        yx::initMemory(content.getData(), 0, kBlockSizeBytes);
    else
        example::fillBlock(content, seed);
    disk.seek(static_cast<__int64>(block) * kBlockSizeBytes);
    // A block of this disk's grain size goes in as a prepared grain: `write` would leave a block
    // that has become empty to the parent, and the parent's old data would come back.
    disk.writePreparedGrainData(*preparer.prepareGrainData(&content, block, &aux));
}

void backUp(yx::IFileSystem& files, int day, std::vector<Change> const& changes) {
    yx::String parentName;
    unsigned int parentContentID = 0xFFFFFFFF;
    if (day > 0) {
        parentName = diskOf(day - 1).getName();
        kelm::CVMDKDisk parent(&files, diskOf(day - 1), yx::IIOStream::ReadOnly, "", -1, nullptr,
                               nullptr);
        parentContentID = parent.getDescriptor()->getContentID();
    }
    yx::P<kelm::CVMDKDisk> const disk = kelm::CVMDKDisk::create(
        &files, diskOf(day), kDiskSizeBytes, /*password*/ "", /*compressed*/ true,
        /*compressionLevel*/ -1, /*fileSizeLimit*/ -1, parentName, parentContentID,
        /*createExtentFilesOnDemand*/ false);
    yx::P<kelm::CVMDKDataPreparer> const preparer = disk->createDataPreparer();
    for (Change const& change : changes)
        writeBlock(*disk, *preparer, change.block, change.seed);
    disk->flushChanges();
    std::printf("day %d: %lld bytes of grains\n", day,
                disk->gatherSpaceInfo()->getPayloadSizeInFile());
}

bool dayEquals(yx::IFileSystem& files, int day, Machine const& machine) {
    kelm::CVMDKDisk disk(&files, diskOf(day), yx::IIOStream::ReadOnly, "", -1, nullptr, nullptr);
    yx::TBuffer<unsigned char> expected(kBlockSizeBytes, -1);
    yx::TBuffer<unsigned char> actual(kBlockSizeBytes, -1);
    for (unsigned int const seed : machine) {
        if (seed == 0)
            yx::initMemory(expected.getData(), 0, kBlockSizeBytes);
        else
            example::fillBlock(expected, seed);
        disk.read(actual.getData(), kBlockSizeBytes);
        if (std::memcmp(expected.getData(), actual.getData(), kBlockSizeBytes) != 0)
            return false;
    }
    return true;
}

int run() {
    yx::CNativeFileSystem files;
    Machine machine(kBlocks, 0);
    std::vector<Change> fullBackup;
    for (int block = 0; block < kBlocks; block += 3)
        fullBackup.push_back({block, static_cast<unsigned int>(block) + 1});
    std::vector<std::vector<Change>> const days = {
        fullBackup,
        {{0, 1001}, {7, 1002}, {9, 0}}, // block 9 is emptied
        {{7, 2001}, {12, 0}, {255, 2002}},
    };

    std::vector<Machine> states;
    for (int day = 0; day < static_cast<int>(days.size()); ++day) {
        std::vector<Change> const& changes = days[static_cast<std::size_t>(day)];
        backUp(files, day, changes);
        for (Change const& change : changes)
            machine[static_cast<std::size_t>(change.block)] = change.seed;
        states.push_back(machine);
    }
    for (int day = 0; day < static_cast<int>(states.size()); ++day) {
        if (!dayEquals(files, day, states[static_cast<std::size_t>(day)])) {
            std::printf("DAY %d DIFFERS\n", day);
            return 1;
        }
        std::printf("day %d reads back as it was\n", day);
    }
    return 0;
}

} // namespace

int main() {
    try {
        return run();
    } catch (std::exception const& error) {
        std::fprintf(stderr, "incremental: %s\n", error.what());
        return 1;
    }
}
