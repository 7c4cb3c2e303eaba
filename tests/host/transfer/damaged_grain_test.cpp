#include <string>

#include "host/disk/parent_link.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/raw_target.h"
#include "host/transfer/transfer.h"
#include "kelm/graindata/internal/grain_record.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"

namespace test_support {
namespace {

using kelm::host::RawTarget;
using kelm::host::RecordCheck;
using kelm::host::WorkOptions;

/// The index in the disk of the grain that is damaged.
constexpr __int64 kDamagedGrain = 2;
constexpr char kGrainText[] = "2";
constexpr char kBytesText[] = "131072-196607";

/// What is wrong with a record.
enum class Damage {
    Data,         ///< bytes that no decoder takes
    Checksum,     ///< data that decode to other bytes than were stored
    AnotherGrain, ///< the index of another grain
};

/// Compressed disks in which a grain is damaged, on every road that takes grains as records.
class DamagedGrain : public HostTest {
protected:
    /// Four compressed grains of text, and children as wanted.
    void makeParent(std::string const& name = "parent.vmdk") {
        writeTo(*createSafe({.compressed = true}, name), 0, textPattern(4 * kGrainBytes, 1));
    }

    void damage(std::string const& file, Damage kind) {
        Bytes bytes = toBytes(files->getFile(uriOf(file)));
        ExtentReport const report = checkExtent(files->getFile(uriOf(file)));
        auto const place =
            report.grains.at(static_cast<std::size_t>(kDamagedGrain)).posSectors * 512;
        unsigned char* const record = bytes.data() + place;
        unsigned int const dataBytes = kelm::loadGrainRecordCompressedSize(record);
        unsigned char* const data = record + kelm::kGrainRecordHeaderSizeBytes;
        if (kind == Damage::Data)
            std::fill_n(data, 20, static_cast<unsigned char>(0xFF));
        else if (kind == Damage::Checksum)
            data[dataBytes - 1] ^= 1;
        else
            kelm::storeGrainRecordLBA(record, 128);
        files->putFile(uriOf(file), toBuffer(bytes));
    }

    /// Whether `action` throws `CorruptData` with the place of the damaged grain as its last
    /// properties.
    static testing::AssertionResult failsAtTheGrain(std::string const& file,
                                                    std::function<void()> const& action) {
        try {
            action();
        } catch (yx::CIOError const& error) {
            Props props = propsOf(error);
            Props const place{
                {"uri", "mem:///disks/" + file}, {"grain", kGrainText}, {"bytes", kBytesText}};
            if (error.getIOCode() == yx::CIOError::CorruptData && props.size() >= 3 &&
                Props(props.end() - 3, props.end()) == place)
                return testing::AssertionSuccess();
            testing::AssertionResult failure = testing::AssertionFailure();
            failure << error.getIOCode() << " " << error.what();
            for (auto const& [name, value] : props)
                failure << "\n" << name << ": " << value;
            return failure;
        }
        return testing::AssertionFailure() << "threw nothing";
    }

    void convert(std::string const& from, bool toCompressed = true,
                 RecordCheck check = RecordCheck::Decode) {
        std::unique_ptr<SafeDisk> const source = openSafe(from, kReadOnly);
        yx::P<FileGuard> const guard = makeGuard(true);
        std::unique_ptr<SafeDisk> const target =
            SafeDisk::create(guard.get(), uriOf("copy.vmdk"),
                             requestFor({.compressed = toCompressed}, source->getSizeBytes()));
        convertDisk(*source, *target, options, check);
        guard->keep();
    }

    void exportImage(std::string const& from) {
        RawTarget target(pathOf("out.raw"), true);
        exportRaw(*openSafe(from, kReadOnly), target, options);
    }

    static WorkOptions withThreads(int threads) {
        WorkOptions options;
        options.threads = threads;
        return options;
    }

    WorkOptions options = withThreads(3);
};

constexpr Damage kAllDamages[] = {Damage::Data, Damage::Checksum, Damage::AnotherGrain};

TEST_F(DamagedGrain, IsNotCopiedBetweenCompressedDisks) {
    for (Damage const kind : kAllDamages) {
        SCOPED_TRACE(static_cast<int>(kind));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeParent();
        damage("parent.vmdk", kind);
        EXPECT_TRUE(failsAtTheGrain("parent.vmdk", [&] { convert("parent.vmdk"); }));
        EXPECT_FALSE(files->fileExists(uriOf("copy.vmdk")));
    }
}

TEST_F(DamagedGrain, OfAnotherIndexIsNamedInWords) {
    makeParent();
    damage("parent.vmdk", Damage::AnotherGrain);
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "The record of the grain names another grain.",
                              {{"recordLBA", "128"},
                               {"expectedLBA", "256"},
                               {"uri", "mem:///disks/parent.vmdk"},
                               {"grain", kGrainText},
                               {"bytes", kBytesText}},
                              [&] { convert("parent.vmdk"); }));
}

TEST_F(DamagedGrain, IsCopiedAsItIsWithoutTheCheck) {
    for (Damage const kind : kAllDamages) {
        SCOPED_TRACE(static_cast<int>(kind));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeParent();
        damage("parent.vmdk", kind);
        convert("parent.vmdk", true, RecordCheck::None);
        Buffer original;
        Buffer copy;
        ASSERT_TRUE(
            openSafe("parent.vmdk", kReadOnly)->tryReadPreparedGrain(kDamagedGrain, original));
        ASSERT_TRUE(openSafe("copy.vmdk", kReadOnly)->tryReadPreparedGrain(kDamagedGrain, copy));
        kelm::storeGrainRecordLBA(original.getData(), 256);
        EXPECT_TRUE(sameBytes(original, copy));
    }
}

TEST_F(DamagedGrain, IsNamedWhereverGrainsAreDecoded) {
    makeParent("disk.vmdk");
    std::string const file = "disk.vmdk";
    damage(file, Damage::Checksum);
    EXPECT_TRUE(failsAtTheGrain(file, [&] { convert(file); }));
    EXPECT_TRUE(failsAtTheGrain(file, [&] { convert(file, false); }));
    EXPECT_TRUE(failsAtTheGrain(file, [&] { exportImage(file); }));
    EXPECT_FALSE(std::filesystem::exists(pathOf("out.raw")));
}

TEST_F(DamagedGrain, OfAParentIsNamedByTheParentsFile) {
    makeParent();
    { createSafe({.compressed = true}, "middle.vmdk", "parent.vmdk"); }
    { createSafe({.compressed = true}, "child.vmdk", "middle.vmdk"); }
    damage("parent.vmdk", Damage::Checksum);
    EXPECT_TRUE(failsAtTheGrain("parent.vmdk", [&] { convert("child.vmdk"); }));
    EXPECT_TRUE(failsAtTheGrain("parent.vmdk", [&] { exportImage("child.vmdk"); }));
}

TEST_F(DamagedGrain, OfAParentIsNotMadeTheChildsOwn) {
    for (Damage const kind : kAllDamages) {
        for (bool const childIsCompressed : {true, false}) {
            if (kind == Damage::AnotherGrain && !childIsCompressed)
                continue; // A plain child takes the bytes, for which the index is of no account.
            SCOPED_TRACE(testing::Message() << static_cast<int>(kind) << childIsCompressed);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            makeParent();
            { createSafe({.compressed = childIsCompressed}, "child.vmdk", "parent.vmdk"); }
            Buffer const parent = files->getFile(uriOf("parent.vmdk"));
            damage("parent.vmdk", kind);
            EXPECT_TRUE(failsAtTheGrain(
                "parent.vmdk", [&] { makeIndependentOfParent(*openSafe("child.vmdk"), options); }));
            EXPECT_FALSE(openSafe("child.vmdk", kReadOnly)->isGrainWrittenHere(kDamagedGrain));

            // With the parent as it was, the work can be done again.
            files->putFile(uriOf("parent.vmdk"), parent);
            makeIndependentOfParent(*openSafe("child.vmdk"), options);
            kelm::host::dropParentLink(*openSafe("child.vmdk"));
            EXPECT_EQ(4U, countStoredGrains("child.vmdk"));
            EXPECT_TRUE(sameBytes(padded(textPattern(4 * kGrainBytes, 1), kSmallestDiskBytes),
                                  contentAfterReopening("child.vmdk")));
        }
    }
}

TEST_F(DamagedGrain, PlaceDoesNotReplaceAFileThatTheErrorNames) {
    makeParent();
    std::unique_ptr<SafeDisk> const disk = openSafe("parent.vmdk", kReadOnly);
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::IOFailure, "No.",
                      {{"uri", "mem:///x"}, {"grain", "127"}, {"bytes", "8323072-8388607"}}, [&] {
                          kelm::host::withGrainPlace(*disk, 127, [] {
                              throw yx::CIOError(yx::CIOError::IOFailure, "No.",
                                                 yx::CProps().add("uri", "mem:///x"), nullptr);
                          });
                      }));
}

} // namespace
} // namespace test_support
