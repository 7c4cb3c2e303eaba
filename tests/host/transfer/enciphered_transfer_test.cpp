#include "host/transfer/held_grains.h"
#include "host/transfer/transfer.h"
#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace test_support {
namespace {

using kelm::host::GrainSet;
using kelm::host::holdGrains;
using kelm::host::RawSource;
using kelm::host::RawTarget;
using kelm::host::WorkOptions;

/// Transfers of encrypted disks, whose grains are enciphered and deciphered by the workers.
class EncipheredTransfer : public HostTest {
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

    /// Grains all over the disk, and an end within one.
    static Bytes scatteredContent() {
        Bytes content = padded(mixedContent(), kSmallestDiskBytes - 3000);
        Bytes const more = mixedContent(2000000, 9);
        std::copy(more.begin(), more.end(), content.end() - static_cast<long>(more.size()));
        return content;
    }

    void importImage(Bytes const& content, SafeDisk& disk) {
        RawSource source(putImage("in.raw", content));
        importRaw(source, disk, options);
    }

    Bytes exportImage(SafeDisk& disk) {
        RawTarget target(pathOf("out.raw"), true);
        exportRaw(disk, target, options);
        return readImage(pathOf("out.raw"));
    }

    yx::P<yx::CMemoryFileSystem> copyFiles() const {
        yx::P<yx::CMemoryFileSystem> const copy = yx::makeObject<yx::CMemoryFileSystem>();
        for (yx::CURI const& uri : files->listFiles())
            copy->putFile(uri, files->getFile(uri));
        return copy;
    }

    /// A file without what two openings draw for themselves: the content ID and what follows from
    /// it.
    static Bytes withoutDrawnTexts(Buffer const& file) {
        std::string text = toText(toBytes(file));
        auto const blank = [&text](std::string const& key, std::size_t sizeBytes) {
            std::size_t const at = text.find(key);
            if (at != std::string::npos)
                std::fill_n(text.begin() + static_cast<long>(at + key.size()), sizeBytes, '-');
        };
        blank("\nCID=", 8);
        blank("ddb.kelm.checksum = \"", 64);
        return fromText(text);
    }

    static WorkOptions withThreads(int threads) {
        WorkOptions options;
        options.threads = threads;
        return options;
    }

    WorkOptions options = withThreads(3);
};

TEST_F(EncipheredTransfer, ImportIsByteForByteWhatTheSameWritesMake) {
    Bytes const content = scatteredContent();
    for (DiskKind const& kind : encryptedKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        createSafe(kind);
        yx::P<yx::CMemoryFileSystem> const written = copyFiles();
        importImage(content, *openSafe("disk.vmdk", kReadWrite, "secret"));
        {
            SafeDisk disk(written.get(), uriOf("disk.vmdk"), kReadWrite, "secret", 1);
            for (std::size_t at = 0; at < content.size(); at += kGrainBytes) {
                Bytes const part = slice(content, at, kGrainBytes);
                // An import leaves zeros out.
                if (!yx::isAllZero(part.data(), part.size()))
                    writeTo(disk, static_cast<__int64>(at), part);
            }
            disk.flush();
        }
        ASSERT_EQ(written->listFiles().getSize(), files->listFiles().getSize());
        for (yx::CURI const& uri : files->listFiles()) {
            EXPECT_TRUE(sameBytes(withoutDrawnTexts(written->getFile(uri)),
                                  withoutDrawnTexts(files->getFile(uri))))
                << uri;
        }
        EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes),
                              exportImage(*openSafe("disk.vmdk", kReadOnly, "secret"))));
    }
}

TEST_F(EncipheredTransfer, HoldingIsByteForByteWhatOneGrainAfterAnotherMakes) {
    for (DiskKind const& kind : encryptedKinds()) {
        // A parent with another form too.
        for (bool const parentIsEncrypted : {true, false}) {
            SCOPED_TRACE(testing::Message() << kind.name << " " << parentIsEncrypted);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            DiskKind parentKind = kind;
            parentKind.password = parentIsEncrypted ? kind.password : "";
            importImage(scatteredContent(), *createSafe(parentKind, "parent.vmdk"));
            {
                std::unique_ptr<SafeDisk> const disk = createSafe(kind, "disk.vmdk", "parent.vmdk");
                writeTo(*disk, 4 * kGrainBytes, textPattern(kGrainBytes, 5));
                disk->flush();
            }
            yx::P<yx::CMemoryFileSystem> const single = copyFiles();
            GrainSet grains(kSmallestDiskBytes / kGrainBytes);
            // Of the disk, of the parent, of neither, of zeros, and the last one.
            for (__int64 const grain : {0, 1, 4, 6, 7, 10, 40, 127})
                grains.add(grain);
            holdGrains(*openSafe("disk.vmdk", kReadWrite, "secret"), grains, options);
            {
                SafeDisk disk(single.get(), uriOf("disk.vmdk"), kReadWrite, "secret", 1);
                for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
                     grain = grains.findNext(grain + 1))
                    disk.holdGrain(grain);
                disk.flush();
            }
            ASSERT_EQ(single->listFiles().getSize(), files->listFiles().getSize());
            for (yx::CURI const& uri : files->listFiles())
                EXPECT_TRUE(sameBytes(toBytes(single->getFile(uri)), toBytes(files->getFile(uri))))
                    << uri;
            std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, "secret");
            for (__int64 const grain : {0, 1, 4, 6, 7, 10, 40, 127})
                EXPECT_TRUE(disk->isGrainWrittenHere(grain)) << grain;
            Bytes expected = padded(scatteredContent(), kSmallestDiskBytes);
            Bytes const own = textPattern(kGrainBytes, 5);
            std::copy(own.begin(), own.end(), expected.begin() + 4 * kGrainBytes);
            EXPECT_TRUE(sameBytes(expected, exportImage(*disk)));
        }
    }
}

TEST_F(EncipheredTransfer, ImportToAChildIsByteForByteWhatTheSameWritesMake) {
    Bytes const content = scatteredContent();
    Bytes next = content;
    for (int const grain : {1, 4, 60, 126}) {
        Bytes const part = textPattern(kGrainBytes, static_cast<unsigned int>(grain));
        std::copy(part.begin(), part.end(), next.begin() + grain * kGrainBytes);
    }
    for (DiskKind const& kind : encryptedKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        importImage(content, *createSafe(kind, "parent.vmdk"));
        createSafe(kind, "disk.vmdk", "parent.vmdk");
        yx::P<yx::CMemoryFileSystem> const written = copyFiles();
        importImage(next, *openSafe("disk.vmdk", kReadWrite, "secret"));
        {
            SafeDisk disk(written.get(), uriOf("disk.vmdk"), kReadWrite, "secret", 1);
            for (int const grain : {1, 4, 60, 126})
                writeTo(disk, grain * kGrainBytes,
                        textPattern(kGrainBytes, static_cast<unsigned int>(grain)));
            disk.flush();
        }
        ASSERT_EQ(written->listFiles().getSize(), files->listFiles().getSize());
        for (yx::CURI const& uri : files->listFiles()) {
            EXPECT_TRUE(sameBytes(withoutDrawnTexts(written->getFile(uri)),
                                  withoutDrawnTexts(files->getFile(uri))))
                << uri;
        }
    }
}

TEST_F(EncipheredTransfer, GrainsOfEachDiskOfAChainAreDecipheredWithItsKey) {
    constexpr int kDisks = 3;
    for (bool const compressed : {false, true}) {
        for (int firstEncrypted = 0; firstEncrypted < kDisks; ++firstEncrypted) {
            SCOPED_TRACE(testing::Message() << compressed << " " << firstEncrypted);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            Bytes content = padded(mixedContent(), kSmallestDiskBytes);
            std::string name;
            for (int number = 0; number < kDisks; ++number) {
                std::string const parent = name;
                name = std::to_string(number) + ".vmdk";
                DiskKind const kind{"", compressed, -1, number >= firstEncrypted ? "secret" : ""};
                std::unique_ptr<SafeDisk> const disk = createSafe(kind, name, parent);
                Bytes const part = textPattern(3 * kGrainBytes, static_cast<unsigned int>(number));
                std::copy(part.begin(), part.end(), content.begin() + (2 + number) * kGrainBytes);
                importImage(content, *disk);
            }
            EXPECT_TRUE(sameBytes(content, exportImage(*openSafe(name, kReadOnly, "secret"))));
            std::unique_ptr<SafeDisk> const flat =
                createSafe({"", compressed, -1, "secret"}, "flat.vmdk");
            convertDisk(*openSafe(name, kReadOnly, "secret"), *flat, options);
            EXPECT_TRUE(sameBytes(content, exportImage(*flat)));
        }
    }
}

TEST_F(EncipheredTransfer, FailureOfAnyWriteOrReadReachesTheCaller) {
    std::string const image = putImage("in.raw", mixedContent());
    for (bool const compressed : {false, true}) {
        DiskKind const kind{"", compressed, -1, "secret"};
        files = yx::makeObject<yx::CMemoryFileSystem>();
        createSafe(kind, "empty.vmdk");
        yx::P<yx::CMemoryFileSystem> const empty = copyFiles();
        importImage(mixedContent(), *openSafe("empty.vmdk", kReadWrite, "secret"));
        yx::P<yx::CMemoryFileSystem> const full = copyFiles();
        auto const failsAt = [&](FileOperation::Kind operation, int nth) {
            files = yx::makeObject<yx::CMemoryFileSystem>();
            bool const isRead = operation == FileOperation::Kind::Read;
            for (yx::CURI const& uri : empty->listFiles())
                files->putFile(uri, (isRead ? full : empty)->getFile(uri));
            yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            SafeDisk disk(faulty.get(), uriOf("empty.vmdk"), isRead ? kReadOnly : kReadWrite,
                          "secret");
            faulty->add({.kinds = {operation}, .nth = nth, .sticky = isRead});
            bool failed = false;
            try {
                if (isRead) {
                    exportImage(disk);
                } else {
                    RawSource source(image);
                    importRaw(source, disk, options);
                }
            } catch (yx::CIOError const& error) {
                failed = true;
                EXPECT_EQ("Injected failure.", error.getMessage().toStdString());
            }
            EXPECT_EQ(faulty->hits() > 0, failed);
            faulty->clear();
            return failed;
        };
        for (auto const operation :
             {FileOperation::Kind::Write, FileOperation::Kind::Read, FileOperation::Kind::Flush}) {
            SCOPED_TRACE(testing::Message() << compressed << static_cast<int>(operation));
            EXPECT_TRUE(failsAt(operation, 1));
            for (int nth = 2; failsAt(operation, nth); ++nth)
                ASSERT_LT(nth, 1000);
        }
    }
}

TEST_F(EncipheredTransfer, CancelledImportStopsAndLeavesADiskThatCanBeFilled) {
    for (bool const compressed : {false, true}) {
        DiskKind const kind{compressed ? "c.vmdk" : "p.vmdk", compressed, -1, "secret"};
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, kind.name);
        kelm::host::CancelFlag cancel;
        options.cancel = &cancel;
        cancel.set();
        EXPECT_THROW(importImage(mixedContent(), *disk), kelm::host::CancelledError);
        options.cancel = nullptr;
        importImage(mixedContent(), *disk);
        EXPECT_TRUE(sameBytes(padded(mixedContent(), kSmallestDiskBytes), exportImage(*disk)));
    }
}

} // namespace
} // namespace test_support
