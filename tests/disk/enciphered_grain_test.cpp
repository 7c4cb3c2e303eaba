#include <random>

#include "tests/support/disk_fixture.h"

namespace test_support {
namespace {

constexpr int kDiskGrains = 128;

class EncipheredGrains : public DiskTest {
protected:
    static std::vector<DiskKind> encryptedKinds() {
        std::vector<DiskKind> kinds = {
            {"encryptedSplit", false, kSplitLimit, "secret", false},
            {"encryptedCompressedSplitOnDemand", true, kCompressedSplitLimit, "secret", true},
        };
        for (DiskKind const& kind : allDiskKinds()) {
            if (*kind.password)
                kinds.push_back(kind);
        }
        return kinds;
    }

    yx::P<yx::CMemoryFileSystem> copyFiles() const {
        yx::P<yx::CMemoryFileSystem> const copy = yx::makeObject<yx::CMemoryFileSystem>();
        for (yx::CURI const& uri : files->listFiles())
            copy->putFile(uri, files->getFile(uri));
        return copy;
    }

    static yx::P<kelm::CVMDKDisk> openIn(yx::IFileSystem* fileSystem) {
        auto disk = yx::makeObject<kelm::CVMDKDisk>(fileSystem, uriOf("disk.vmdk"),
                                                    yx::IIOStream::ReadWrite, "secret", 1, nullptr,
                                                    nullptr);
        // It would be drawn.
        disk->setContentIDUpdatesEnabled(false);
        return disk;
    }

    static Buffer encipheredFor(kelm::CVMDKDisk& disk, int grain, Bytes const& plain) {
        Buffer source = toBuffer(plain);
        Buffer aux;
        Buffer target;
        disk.createGrainCipher()->encipher(
            *disk.createDataPreparer()->prepareGrainData(&source, grain, &aux), grain, target);
        return target;
    }

    static bool tryRead(kelm::CVMDKDisk& disk, int grain, Buffer& data) {
        disk.seek(grain * kGrainBytes);
        return disk.tryReadEncipheredGrainData(data);
    }
};

TEST_F(EncipheredGrains, AreStoredByteForByteAsWritesStoreThem) {
    constexpr unsigned int kSeed = 20;
    for (DiskKind const& kind : encryptedKinds()) {
        SCOPED_TRACE(testing::Message() << kind.name << ", seed " << kSeed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create(kind);
        yx::P<yx::CMemoryFileSystem> const other = copyFiles();
        {
            yx::P<kelm::CVMDKDisk> const written = openIn(files.get());
            yx::P<kelm::CVMDKDisk> const stored = openIn(other.get());
            std::mt19937 random(kSeed);
            for (unsigned int step = 0; step < 200; ++step) {
                int const grain = static_cast<int>(random() % kDiskGrains);
                // Of all sizes, so that records outgrow their slots.
                std::size_t const noiseBytes = 1 + random() % kGrainBytes;
                Bytes const plain =
                    concat({pattern(noiseBytes, step), zeros(kGrainBytes - noiseBytes)});
                writeAt(*written, grain * kGrainBytes, plain);
                stored->seek(grain * kGrainBytes);
                stored->writeEncipheredGrainData(encipheredFor(*stored, grain, plain));
                EXPECT_EQ((grain + 1) * kGrainBytes, stored->getPosition());
            }
            written->flushChanges();
            stored->flushChanges();
        }
        ASSERT_EQ(files->listFiles().getSize(), other->listFiles().getSize());
        for (yx::CURI const& uri : files->listFiles())
            EXPECT_TRUE(sameBytes(files->getFile(uri), other->getFile(uri))) << uri;
    }
}

TEST_F(EncipheredGrains, AreReadAsTheyAreStored) {
    for (DiskKind const& kind : encryptedKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create(kind);
        yx::P<kelm::CVMDKDisk> const disk = openIn(files.get());
        for (int const grain : {0, 60, kDiskGrains - 1}) {
            Bytes const plain = textPattern(kGrainBytes, static_cast<unsigned int>(grain));
            writeAt(*disk, grain * kGrainBytes, plain);
            Buffer data;
            ASSERT_TRUE(tryRead(*disk, grain, data));
            EXPECT_EQ((grain + 1) * kGrainBytes, disk->getPosition());
            Buffer prepared;
            disk->createGrainCipher()->decipher(data, grain, prepared);
            Buffer aux;
            EXPECT_TRUE(
                sameBytes(plain, *disk->createDataPreparer()->unprepareGrainData(&prepared, &aux)));
        }
        Buffer data;
        EXPECT_FALSE(tryRead(*disk, 1, data)) << "not held";
        EXPECT_EQ(kGrainBytes, disk->getPosition());
    }
}

TEST_F(EncipheredGrains, OfAParentAreNotTakenForThoseOfTheDisk) {
    unsigned int parentID = 0;
    {
        yx::P<kelm::CVMDKDisk> const parent =
            create({"", false, -1, "secret"}, "parent.vmdk", kSmallestDiskBytes);
        writeAt(*parent, 0, pattern(2 * kGrainBytes, 1));
        parentID = parent->getDescriptor()->getContentID();
    }
    yx::P<kelm::CVMDKDisk> const child =
        create({"", false, -1, "secret"}, "disk.vmdk", kSmallestDiskBytes, "parent.vmdk", parentID);
    writeAt(*child, kGrainBytes, pattern(kGrainBytes, 2));
    Buffer data;
    EXPECT_FALSE(tryRead(*child, 0, data));
    EXPECT_EQ(0, child->getPosition());
    EXPECT_TRUE(tryRead(*child, 1, data));
}

TEST_F(EncipheredGrains, OfADiskThatIsNotEncryptedThereAreNone) {
    yx::P<kelm::CVMDKDisk> const disk = create({});
    writeAt(*disk, 0, pattern(kGrainBytes, 1));
    Buffer data;
    EXPECT_FALSE(tryRead(*disk, 0, data));
    EXPECT_TRUE(throwsError("VMDK is not encrypted",
                            Props{{"mainFileURI", "mem:///disks/disk.vmdk"}},
                            [&] { disk->createGrainCipher(); }));
}

TEST_F(EncipheredGrains, AreRefusedWherePreparedOnesAre) {
    create({"", false, -1, "secret"});
    yx::P<kelm::CVMDKDisk> const readOnly = open(yx::IIOStream::ReadOnly, "secret");
    Buffer data = toBuffer(zeros(kGrainBytes));
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::writeEncipheredGrainData was called, but "
                            "the disk was not opened for writing.",
                            {}, [&] { readOnly->writeEncipheredGrainData(data); }));
    readOnly->seek(512);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAligned,
        "Prepared grain read in VMDK disk can only be done on a grain "
        "boundary.",
        {{"mainFileURI", "mem:///disks/disk.vmdk"}, {"position", "512"}, {"grainSize", "65536"}},
        [&] { readOnly->tryReadEncipheredGrainData(data); }));
    readOnly->seek(kSmallestDiskBytes);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "Prepared grain read exceeds VMDK disk size.",
                              {{"mainFileURI", "mem:///disks/disk.vmdk"},
                               {"position", "8388608"},
                               {"grainSize", "65536"},
                               {"diskSize", "8388608"}},
                              [&] { readOnly->tryReadEncipheredGrainData(data); }));
}

} // namespace
} // namespace test_support
