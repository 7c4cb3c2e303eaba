#include "host/transfer/digest_making.h"

#include <set>

#include "host/digest/disk_digests.h"
#include "host/disk/digest_file_name.h"
#include "host/disk/parent_link.h"
#include "tests/host/digest/digest_fixture.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

using kelm::host::ChainDigests;
using kelm::host::DigestFile;
using kelm::host::digestFileOf;
using kelm::host::DigestKeys;
using kelm::host::DigestMaking;
using kelm::host::DigestState;
using kelm::host::DiskDigests;
using kelm::host::GrainHasher;
using kelm::host::PresentContent;
using kelm::host::RawSource;

namespace test_support {
namespace digest_making_test {
namespace {

class DigestMakingTest : public HostTest {
protected:
    void import(SafeDisk& disk, Bytes const& image, bool withImage = false,
                PresentContent present = PresentContent::OfParent) {
        RawSource source(putImage("image", image), nullptr);
        DigestMaking digests(files.get(), disk);
        if (withImage)
            digests.addImage();
        importRaw(source, disk, {.threads = 3, .progress = {}, .cancel = nullptr}, {}, present,
                  &digests);
        kelm::host::setExactSizeBytes(disk, static_cast<__int64>(image.size()));
        digests.finish(static_cast<__int64>(image.size()), {});
    }

    /// Whether the digests are those of exactly the grains that the disk holds, as it reads.
    testing::AssertionResult haveTrueDigests(std::string const& name, char const* password) {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        DiskDigests const digests = DiskDigests::open(files.get(), *disk);
        if (!digests.areUpToDate())
            return testing::AssertionFailure() << "not up to date";
        GrainHasher hasher((DigestKeys(disk->getDisk())));
        __int64 count = 0;
        for (int grain = 0; grain < disk->getGrainCount(); ++grain) {
            auto const digest = digests.file->find(grain);
            if (digest.has_value() != disk->isGrainWrittenHere(grain))
                return testing::AssertionFailure() << "grain " << grain << " is held or is not";
            if (!digest)
                continue;
            ++count;
            Bytes const content = readGrain(*disk, grain);
            if (*digest != hasher.hash(grain, content.data(), kGrainBytes, kGrainBytes))
                return testing::AssertionFailure() << "grain " << grain;
        }
        if (count != digests.file->getHeader().grainCount)
            return testing::AssertionFailure() << count << " grains";
        return testing::AssertionSuccess();
    }

    /// A parent whose last grain is cut short.
    void putShortParent() {
        putExtent("short-s00000.vmdk", 200);
        putText("short.vmdk", "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                              "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                              "RW 25500 SPARSE \"short-s00000.vmdk\"\n" +
                                  std::string(600, '\0'));
    }

    DigestState stateOf(std::string const& name = "disk.vmdk", char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        return DiskDigests::open(files.get(), *disk).state;
    }
};

TEST_F(DigestMakingTest, ImportMakesThemForEveryKindOfDisk) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        Bytes const image = mixedContent();
        import(*createSafe(kind, name), image, true);
        EXPECT_TRUE(haveTrueDigests(name, kind.password));
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, kind.password);
        DiskDigests const digests = DiskDigests::open(files.get(), *disk);
        EXPECT_EQ(digests.file->getHeader().imageSizeBytes, 1200000);
        ASSERT_TRUE(digests.file->getHeader().imageDigest);
        EXPECT_EQ(toBytes(*digests.file->getHeader().imageDigest), sha256Of(image));
    }
}

TEST_F(DigestMakingTest, ImportMakesThoseOfAChildForWhatDiffers) {
    for (bool const compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes const parent = mixedContent();
        import(*createSafe({.compressed = compressed}, "parent.vmdk"), parent);
        Bytes child = mixedContent();
        child[5] ^= 1;
        // Zeros over the parent's data are stored; the parent's data behind the end go too.
        std::fill(child.begin() + 4 * kGrainBytes, child.begin() + 5 * kGrainBytes, 0);
        child.resize(18 * kGrainBytes + 7);
        import(*createSafe({.compressed = compressed}, "child.vmdk", "parent.vmdk"), child, true);
        EXPECT_TRUE(haveTrueDigests("child.vmdk", ""));
        std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly);
        DiskDigests const digests = DiskDigests::open(files.get(), *disk);
        EXPECT_TRUE(digests.file->find(0));
        EXPECT_EQ(toBytes(*digests.file->find(4)), sha256Of(zeros(kGrainBytes)));
        EXPECT_FALSE(digests.file->find(6));
        EXPECT_EQ(digests.file->getHeader().grainCount, 3);
        EXPECT_EQ(toBytes(*digests.file->getHeader().imageDigest), sha256Of(child));
    }
}

TEST_F(DigestMakingTest, ImportThatGoesOnMakesThemForWhatWasThere) {
    for (bool const compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        {
            std::unique_ptr<SafeDisk> const disk = createSafe({.compressed = compressed});
            writeGrain(*disk, 0, slice(mixedContent(), 0, kGrainBytes));
            writeGrain(*disk, 3, pattern(kGrainBytes, 77));
            writeGrain(*disk, 90, pattern(kGrainBytes, 78));
        }
        import(*openSafe(), mixedContent(), false, PresentContent::Any);
        EXPECT_TRUE(haveTrueDigests("disk.vmdk", ""));
        // What was in the way of zeros is held still, and so is what was made zeros behind the end.
        EXPECT_TRUE(openSafe("disk.vmdk", kReadOnly)->isGrainWrittenHere(3));
        EXPECT_TRUE(openSafe("disk.vmdk", kReadOnly)->isGrainWrittenHere(90));
    }
}

TEST_F(DigestMakingTest, ConversionMakesThem) {
    import(*createSafe({}, "plain.vmdk"), mixedContent());
    import(*createSafe({.compressed = true}, "packed.vmdk"), mixedContent());
    for (std::string const from : {"plain.vmdk", "packed.vmdk"}) {
        for (DiskKind const& kind : allDiskKinds()) {
            for (auto const check :
                 {kelm::host::RecordCheck::Decode, kelm::host::RecordCheck::None}) {
                if (from == "plain.vmdk" && check == kelm::host::RecordCheck::None)
                    continue;
                SCOPED_TRACE(from + " to " + kind.name);
                std::string const name = "copy.vmdk";
                for (yx::CURI const& file : files->listFiles()) {
                    if (file.getName().toStdString().starts_with("copy"))
                        files->deleteFile(file, false);
                }
                {
                    std::unique_ptr<SafeDisk> const source = openSafe(from, kReadOnly);
                    std::unique_ptr<SafeDisk> const target = createSafe(kind, name);
                    DigestMaking digests(files.get(), *target);
                    convertDisk(*source, *target, {}, check, {&digests});
                    digests.finish(target->getSizeBytes(), {});
                }
                EXPECT_TRUE(haveTrueDigests(name, kind.password));
            }
        }
    }
}

TEST_F(DigestMakingTest, ConversionEndsAtAGrainThatDiffersFromItsDigest) {
    constexpr int kLastGrain = 18;
    ASSERT_EQ((mixedContent().size() - 1) / kGrainBytes, std::size_t{kLastGrain});
    for (char const* const from : {"plain", "encrypted"}) {
        DiskKind const source = kindNamed(from);
        for (bool const isParent : {false, true}) {
            files = yx::makeObject<yx::CMemoryFileSystem>();
            import(*createSafe(source, "disk.vmdk"), mixedContent());
            if (isParent) {
                std::unique_ptr<SafeDisk> const child =
                    createSafe(source, "child.vmdk", "disk.vmdk");
                DigestMaking(files.get(), *child).finish(child->getSizeBytes(), {});
            }
            // Behind the disk's back, in the grain that was stored last.
            Bytes file = toBytes(files->getFile(uriOf("disk.vmdk")));
            file[file.size() - 1000] ^= 1;
            files->putFile(uriOf("disk.vmdk"), toBuffer(file));
            std::string const name = isParent ? "child.vmdk" : "disk.vmdk";
            for (DiskKind const& kind : allDiskKinds()) {
                SCOPED_TRACE(name + ", " + from + " to " + kind.name);
                std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, source.password);
                std::unique_ptr<SafeDisk> const target =
                    createSafe(kind, std::string(kind.name) + "-copy.vmdk");
                std::unique_ptr<ChainDigests> const known =
                    ChainDigests::openOfDisk(files.get(), *disk, source.password);
                ASSERT_TRUE(known);
                DigestMaking digests(files.get(), *target);
                EXPECT_TRUE(throwsIOError(
                    yx::CIOError::CorruptData, "The content of the grain differs from its digest.",
                    {{"uri", uriOf("disk.vmdk").toString(true).toStdString()},
                     {"grain", "18"},
                     {"bytes", "1179648-1245183"}},
                    [&] {
                        convertDisk(*disk, *target, {}, kelm::host::RecordCheck::Decode,
                                    {&digests, known.get()});
                    }));
                // Without the digests, nothing tells of it.
                convertDisk(*disk, *target, {});
            }
        }
    }
}

TEST_F(DigestMakingTest, ConversionComparesWithWhatDigestsThereAre) {
    import(*createSafe({}, "full.vmdk"), mixedContent());
    {
        std::unique_ptr<SafeDisk> const child = createSafe({}, "child.vmdk", "full.vmdk");
        writeTo(*child, 3 * kGrainBytes, pattern(kGrainBytes, 5));
        child->flush();
        DigestMaking(files.get(), *child).finish(child->getSizeBytes(), {});
    }
    files->deleteFile(digestFileOf(uriOf("full.vmdk")), false);
    EXPECT_FALSE(ChainDigests::open(files.get(), *createSafe({}, "new.vmdk", "child.vmdk"), ""));
    std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk", kReadOnly);
    std::unique_ptr<ChainDigests> const known = ChainDigests::openOfDisk(files.get(), *child, "");
    ASSERT_TRUE(known);
    EXPECT_TRUE(known->find(3).isKnown);
    EXPECT_EQ(known->find(3).holder, 0);
    EXPECT_EQ(toBytes(known->find(3).digest), sha256Of(pattern(kGrainBytes, 5)));
    EXPECT_FALSE(known->find(4).isKnown);
    {
        std::unique_ptr<SafeDisk> const copy = createSafe({}, "copy.vmdk");
        DigestMaking digests(files.get(), *copy);
        convertDisk(*child, *copy, {}, kelm::host::RecordCheck::Decode, {&digests, known.get()});
        digests.finish(copy->getSizeBytes(), {});
    }
    EXPECT_TRUE(haveTrueDigests("copy.vmdk", ""));
}

TEST_F(DigestMakingTest, WhatDidNotComeIsRead) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, name);
            writeTo(*disk, 0, mixedContent());
        }
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, kind.password);
        DigestMaking(files.get(), *disk).finish(disk->getSizeBytes(), {});
        EXPECT_TRUE(haveTrueDigests(name, kind.password));
    }
}

TEST_F(DigestMakingTest, AreOutOfDateAfterTheNextChange) {
    import(*createSafe({}), mixedContent());
    EXPECT_EQ(stateOf(), DigestState::UpToDate);
    { openSafe(); }
    EXPECT_EQ(stateOf(), DigestState::UpToDate);
    writeTo(*openSafe(), 100, Bytes{1});
    EXPECT_EQ(stateOf(), DigestState::OutOfDate);
}

TEST_F(DigestMakingTest, AreOutOfDateAfterAChangeOfTheSameOpening) {
    std::unique_ptr<SafeDisk> disk = createSafe({});
    import(*disk, mixedContent());
    // The content ID of the digests is on the device; the one of the change comes before it.
    writeTo(*disk, 100, Bytes{1});
    disk.reset();
    EXPECT_EQ(stateOf(), DigestState::OutOfDate);
}

TEST_F(DigestMakingTest, AreNoneUntilTheyAreFinished) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    writeTo(*disk, 0, mixedContent());
    disk->flush();
    { DigestMaking const digests(files.get(), *disk); }
    EXPECT_TRUE(files->fileExists(uriOf("disk.vmdk.digests")));
    EXPECT_EQ(DiskDigests::open(files.get(), *disk).state, DigestState::Missing);
}

TEST_F(DigestMakingTest, GoBeforeADiskGetsGrainsThatTheyDoNotName) {
    import(*createSafe({}, "parent.vmdk"), mixedContent());
    writeGrain(*createSafe({}, "child.vmdk", "parent.vmdk"), 0, pattern(kGrainBytes, 5));
    std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
    DigestMaking(files.get(), *child).finish(child->getSizeBytes(), {});
    std::unique_ptr<DigestFile> const former =
        std::move(DiskDigests::open(files.get(), *child).file);
    ASSERT_TRUE(former);
    child->makeGrainIndependentOfParent(0);
    EXPECT_TRUE(files->fileExists(uriOf("child.vmdk.digests")));
    child->makeGrainIndependentOfParent(1);
    EXPECT_FALSE(files->fileExists(uriOf("child.vmdk.digests")));
}

TEST_F(DigestMakingTest, KeepsWhatAFormerFileHas) {
    import(*createSafe({}), mixedContent(), true);
    std::unique_ptr<DigestFile> former;
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
        former = std::move(DiskDigests::open(files.get(), *disk).file);
    }
    Bytes const digest = toBytes(*former->find(4));
    // Damaged meanwhile, behind the disk's back.
    Bytes file = toBytes(files->getFile(uriOf("disk.vmdk")));
    Bytes const grain = slice(mixedContent(), 4 * kGrainBytes, 64);
    auto const at = std::search(file.begin(), file.end(), grain.begin(), grain.end());
    ASSERT_NE(at, file.end());
    *at ^= 1;
    files->putFile(uriOf("disk.vmdk"), toBuffer(file));
    std::unique_ptr<SafeDisk> const disk = openSafe();
    DigestMaking making(files.get(), *disk);
    making.keep(*former, nullptr);
    making.finish(1200000, {});
    DiskDigests const digests = DiskDigests::open(files.get(), *disk);
    ASSERT_TRUE(digests.areUpToDate());
    EXPECT_EQ(toBytes(*digests.file->find(4)), digest);
    EXPECT_EQ(digests.file->getHeader().imageDigest, former->getHeader().imageDigest);
}

/// Imports of children whose parents have digests.
class QuickIncremental : public DigestMakingTest {
protected:
    /// Imports an image as the child of a disk. Returns whether the parents' digests were used.
    bool importChild(DiskKind const& kind, std::string const& name, std::string const& parent,
                     Bytes const& image, bool withDigests = true) {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, name, parent);
        RawSource source(putImage("image", image), nullptr);
        std::unique_ptr<ChainDigests> const chain =
            ChainDigests::open(files.get(), *disk, kind.password);
        std::optional<DigestMaking> digests;
        if (withDigests)
            digests.emplace(files.get(), *disk);
        importRaw(source, *disk, {.threads = 2, .progress = {}, .cancel = nullptr}, {},
                  PresentContent::OfParent, digests ? &*digests : nullptr, chain.get());
        if (digests)
            digests->finish(static_cast<__int64>(image.size()), {});
        return chain != nullptr;
    }

    std::set<int> heldGrains(std::string const& name, char const* password) {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        std::set<int> held;
        for (int grain = 0; grain < disk->getGrainCount(); ++grain) {
            if (disk->isGrainWrittenHere(grain))
                held.insert(grain);
        }
        return held;
    }

    Bytes fullImage() { return padded(mixedContent(), kSmallestDiskBytes); }
};

TEST_F(QuickIncremental, StoresExactlyWhatDiffers) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        import(*createSafe(kind, "full.vmdk"), fullImage());
        Bytes monday = fullImage();
        monday[5] ^= 1;
        std::fill(monday.begin() + 4 * kGrainBytes, monday.begin() + 5 * kGrainBytes, 0);
        monday[100 * kGrainBytes] = 3;
        EXPECT_TRUE(importChild(kind, "mon.vmdk", "full.vmdk", monday));
        EXPECT_EQ(heldGrains("mon.vmdk", kind.password), (std::set<int>{0, 4, 100}));
        EXPECT_TRUE(sameBytes(monday, contentAfterReopening("mon.vmdk", kind.password)));
        EXPECT_TRUE(haveTrueDigests("mon.vmdk", kind.password));
        // What is as the grandparent has it, but not as the parent does, differs too.
        Bytes tuesday = fullImage();
        tuesday[100 * kGrainBytes] = 3;
        tuesday[6 * kGrainBytes] = 9;
        EXPECT_TRUE(importChild(kind, "tue.vmdk", "mon.vmdk", tuesday));
        EXPECT_EQ(heldGrains("tue.vmdk", kind.password), (std::set<int>{0, 4, 6}));
        EXPECT_TRUE(sameBytes(tuesday, contentAfterReopening("tue.vmdk", kind.password)));
        EXPECT_TRUE(haveTrueDigests("tue.vmdk", kind.password));
        EXPECT_TRUE(importChild(kind, "same.vmdk", "tue.vmdk", tuesday, false));
        EXPECT_EQ(heldGrains("same.vmdk", kind.password), std::set<int>());
    }
}

TEST_F(QuickIncremental, AShortImageLeavesWhatTheParentHasBehindIt) {
    import(*createSafe({}, "full.vmdk"), fullImage());
    Bytes const image = slice(fullImage(), 0, 10 * kGrainBytes + 200);
    EXPECT_TRUE(importChild({}, "mon.vmdk", "full.vmdk", image));
    EXPECT_EQ(heldGrains("mon.vmdk", ""), std::set<int>());
    EXPECT_TRUE(sameBytes(fullImage(), contentAfterReopening("mon.vmdk")));
}

TEST_F(QuickIncremental, DoesNotReadTheDataOfTheParents) {
    import(*createSafe({}, "full.vmdk"), fullImage());
    // Nobody who reads the parent's data overlooks that.
    Bytes file = toBytes(files->getFile(uriOf("full.vmdk")));
    Bytes const grain = slice(fullImage(), 4 * kGrainBytes, 64);
    auto const at = std::search(file.begin(), file.end(), grain.begin(), grain.end());
    ASSERT_NE(at, file.end());
    *at ^= 1;
    files->putFile(uriOf("full.vmdk"), toBuffer(file));
    EXPECT_TRUE(importChild({}, "mon.vmdk", "full.vmdk", fullImage()));
    EXPECT_EQ(heldGrains("mon.vmdk", ""), std::set<int>());
    files->deleteFile(uriOf("full.vmdk.digests"), false);
    EXPECT_FALSE(importChild({}, "tue.vmdk", "full.vmdk", fullImage()));
    EXPECT_EQ(heldGrains("tue.vmdk", ""), std::set<int>{4});
}

TEST_F(QuickIncremental, ReadsThemWhereDigestsAreOutOfDate) {
    import(*createSafe({}, "full.vmdk"), fullImage());
    writeTo(*openSafe("full.vmdk"), 4 * kGrainBytes, Bytes{1, 2, 3});
    EXPECT_FALSE(importChild({}, "mon.vmdk", "full.vmdk", fullImage()));
    EXPECT_EQ(heldGrains("mon.vmdk", ""), std::set<int>{4});
    EXPECT_TRUE(sameBytes(fullImage(), contentAfterReopening("mon.vmdk")));
}

TEST_F(QuickIncremental, ReadsThemWhereTheDigestsOfOneAreDamaged) {
    import(*createSafe({}, "full.vmdk"), fullImage());
    EXPECT_TRUE(importChild({}, "mon.vmdk", "full.vmdk", fullImage()));
    Bytes digests = toBytes(files->getFile(uriOf("full.vmdk.digests")));
    digests[20] ^= 1;
    files->putFile(uriOf("full.vmdk.digests"), toBuffer(digests));
    LogCapture const log;
    EXPECT_FALSE(importChild({}, "tue.vmdk", "mon.vmdk", fullImage()));
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].message, "The digests of a disk cannot be used.");
    EXPECT_EQ(heldGrains("tue.vmdk", ""), std::set<int>());
}

TEST_F(QuickIncremental, ReadsThemWhereAPartOfTheDigestsIsDamaged) {
    import(*createSafe({}, "full.vmdk"), fullImage());
    Bytes digests = toBytes(files->getFile(uriOf("full.vmdk.digests")));
    digests[512 + 2048 + 7] ^= 1;
    files->putFile(uriOf("full.vmdk.digests"), toBuffer(digests));
    Bytes monday = fullImage();
    monday[5] ^= 1;
    std::fill(monday.begin() + 4 * kGrainBytes, monday.begin() + 5 * kGrainBytes, 0);
    LogCapture const log;
    EXPECT_TRUE(importChild({}, "mon.vmdk", "full.vmdk", monday));
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].message, "A part of the digests of a disk cannot be used.");
    EXPECT_EQ(heldGrains("mon.vmdk", ""), (std::set<int>{0, 4}));
    EXPECT_TRUE(sameBytes(monday, contentAfterReopening("mon.vmdk")));
    EXPECT_TRUE(haveTrueDigests("mon.vmdk", ""));
}

TEST_F(QuickIncremental, ReadsThemWhereGrainsHaveOtherSizes) {
    putShortParent();
    std::unique_ptr<SafeDisk> const parent = openSafe("short.vmdk", kReadOnly);
    DigestMaking(files.get(), *parent).finish(parent->getSizeBytes(), {});
    std::unique_ptr<SafeDisk> const child = createSafe({}, "child.vmdk", "short.vmdk");
    EXPECT_FALSE(ChainDigests::open(files.get(), *child, ""));
}

TEST_F(QuickIncremental, HasNoChainWithoutAParent) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    EXPECT_FALSE(ChainDigests::open(files.get(), *disk, ""));
}

TEST(ImageHasher, PrintsTheLineOfTheCommonTool) {
    kelm::host::ImageHasher image;
    image.add("abc", 3);
    EXPECT_EQ(kelm::host::formatImageDigest(image.finish()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  -\n");
}

TEST(ImageHasher, TakesZerosOfAnyLength) {
    kelm::host::ImageHasher image;
    image.addZeros(65537);
    image.addZeros(0);
    image.addZeros(1);
    EXPECT_EQ(image.getBytes(), 65538);
    EXPECT_EQ(toBytes(image.finish()), sha256Of(zeros(65538)));
}

} // namespace
} // namespace digest_making_test
} // namespace test_support
