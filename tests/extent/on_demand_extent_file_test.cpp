#include "kelm/extent/on_demand_extent_file.h"

#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using kelm::CVMDKOnDemandExtentFile;
using test_support::FaultyFileSystem;
using test_support::FileOperation;
using Request = FakeDataProvider::Request;
using Requests = std::vector<Request>;

constexpr char kNotForWriting[] = "Internal error: VMDK extent file is about to be changed, but it "
                                  "was not opened for writing.";

class OnDemandExtentFile : public ExtentTest {
protected:
    yx::P<CVMDKOnDemandExtentFile> make(Kind const& kind = kPlain,
                                        IIOStream::Access access = IIOStream::ReadWrite,
                                        yx::IFileSystem* on = nullptr,
                                        __int64 grainSizeSectors = kGrainSizeSectors,
                                        __int64 extentSizeSectors = 128) {
        auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        return yx::makeObject<CVMDKOnDemandExtentFile>(
            on ? on : files.get(), uri, access, kStartGrainIndex, grainSizeSectors,
            extentSizeSectors, 512, kind.compressed, 6, provider.get(), cache.get(), updater.get(),
            kind.enciphered ? cipher.get() : nullptr,
            cryptBuffer(kind.enciphered ? keyBytes() : Bytes()),
            toBuffer(kind.enciphered ? iv : Bytes()),
            toBuffer(kind.enciphered ? keyHash() : Bytes()));
    }

    bool exists() { return memory->fileExists(uri); }
};

TEST_F(OnDemandExtentFile, ReturnsWhatItWasMadeWith) {
    yx::P<CVMDKOnDemandExtentFile> const extent = make(kCompressed);
    EXPECT_EQ(extent->getStartGrainIndex(), 10);
    EXPECT_EQ(extent->getGrainSizeSectors(), 8);
    EXPECT_TRUE(extent->getCompressed());
    EXPECT_EQ(extent->getURI(), uri);
    EXPECT_FALSE(make(kPlain)->getCompressed());
}

TEST_F(OnDemandExtentFile, NothingButWritingMakesTheFile) {
    for (auto const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        yx::P<CVMDKOnDemandExtentFile> const extent = make(kPlain, access);
        EXPECT_EQ(readAt(*extent, 4096, 100), FakeDataProvider::bytesAt(11 * 4096, 100));
        EXPECT_EQ(extent->getPosition(), 4196);
        extent->seek(kCapacityBytes);
        extent->flushChanges();
        extent->seek(4096);
        Buffer data;
        extent->readPreparedGrainData(data);
        EXPECT_TRUE(sameBytes(FakeDataProvider::bytesAt(11 * 4096, 4096), data));
        EXPECT_FALSE(extent->isGrainWritten());
        EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
        EXPECT_FALSE(extent->createDataPreparer()->doesAnything());
        yx::P<kelm::CVMDKSpaceInfo> const info = extent->gatherSpaceInfo();
        EXPECT_EQ(info->getHeaderSize() + info->getDeadSpaceSize() + info->getPayloadSize() +
                      info->getPayloadSizeInFile(),
                  0);
        EXPECT_FALSE(exists());
    }
    EXPECT_EQ(files->count({FileOperation::Kind::Open}), 0U);
}

TEST_F(OnDemandExtentFile, FirstWriteMakesTheFileAndGoesWhereTheCursorStands) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        if (exists())
            memory->deleteFile(uri, false);
        yx::P<CVMDKOnDemandExtentFile> extent = make(kind);
        extent->seek(4096);
        Bytes const source = pattern(512, 1);
        extent->write(source.data(), 512);
        EXPECT_EQ(extent->getPosition(), 4608);
        EXPECT_TRUE(exists());
        extent->flushChanges();
        EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), 4096);
        Bytes const grain = concat({source, FakeDataProvider::bytesAt(11 * 4096 + 512, 3584)});
        EXPECT_EQ(readAt(*extent, 4096, 4096), grain);
        // Grains that were never written mean what they meant before.
        EXPECT_EQ(readAt(*extent, 0, 4096), FakeDataProvider::bytesAt(10 * 4096, 4096));
        EXPECT_EQ(findings(), "");
        extent.reset();
        EXPECT_EQ(readAt(*openExtent(kind), 4096, 4096), grain);
        auto const report = test_support::checkExtent(memory->getFile(uri), kStartGrainIndex);
        EXPECT_EQ(report.capacitySectors, 128U);
        EXPECT_EQ(report.grainSizeSectors, 8U);
        EXPECT_EQ(report.compressed, kind.compressed);
        EXPECT_EQ(report.enciphered, kind.enciphered);
    }
}

TEST_F(OnDemandExtentFile, EveryWayOfWritingMakesTheFile) {
    struct {
        char const* name;
        std::function<void(CVMDKOnDemandExtentFile&)> operation;
    } const cases[] = {
        {"write", [](auto& extent) { extent.write("x", 1); }},
        {"write of no bytes", [](auto& extent) { extent.write("", 0); }},
        {"prepared", [](auto& extent) { extent.writePreparedGrainData(toBuffer(zeros(4096))); }},
        {"independent",
         [](auto& extent) { EXPECT_EQ(extent.makeGrainIndependentOfParent(3), 4096); }},
    };
    for (auto const& [name, operation] : cases) {
        SCOPED_TRACE(name);
        memory->deleteFile(uri, true);
        yx::P<CVMDKOnDemandExtentFile> const readOnly = make(kPlain, IIOStream::ReadOnly);
        EXPECT_TRUE(throwsError(kNotForWriting, {{"uri", kExtentURI}},
                                [&, &operation = operation] { operation(*readOnly); }));
        EXPECT_FALSE(exists());
        yx::P<CVMDKOnDemandExtentFile> const extent = make();
        operation(*extent);
        EXPECT_TRUE(exists());
        EXPECT_EQ(findings(), "");
    }
}

TEST_F(OnDemandExtentFile, ExistingFileIsOpenedFromTheStart) {
    createExtent(kPlain);
    {
        yx::P<kelm::CVMDKSparseExtentFile> const extent = openExtent(kPlain);
        writeAt(*extent, 0, pattern(4096, 1));
    }
    yx::P<CVMDKOnDemandExtentFile> extent = make(kPlain, IIOStream::ReadOnly);
    EXPECT_EQ(readAt(*extent, 0, 4096), pattern(4096, 1));
    EXPECT_TRUE(extent->gatherSpaceInfo()->getPayloadSize() == 4096);
    // It is this class that refuses, and not the extent inside.
    EXPECT_TRUE(throwsError(kNotForWriting, {{"uri", kExtentURI}}, [&] { extent->write("x", 1); }));
    extent = make();
    extent->seek(4096);
    extent->write("x", 1);
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, 0, 4096), pattern(4096, 1));
}

TEST_F(OnDemandExtentFile, ExistingFileThatIsRefusedLeavesNoObject) {
    setContent(zeros(512));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Invalid magic number in VMDK sparse header", {{"num", "0"}},
                              [&] { make(); }));
}

TEST_F(OnDemandExtentFile, FileThatSomebodyElseMadeMeanwhileIsOpenedAsItStands) {
    yx::P<CVMDKOnDemandExtentFile> const extent = make();
    EXPECT_EQ(readAt(*extent, 0, 10), FakeDataProvider::bytesAt(40960, 10));
    createExtent(kPlain);
    {
        yx::P<kelm::CVMDKSparseExtentFile> const theirs = openExtent(kPlain);
        writeAt(*theirs, 8192, pattern(4096, 1));
    }
    // Not seen as long as nothing is written.
    EXPECT_EQ(readAt(*extent, 8192, 10), FakeDataProvider::bytesAt(12 * 4096, 10));
    extent->seek(0);
    extent->write("x", 1);
    EXPECT_EQ(readAt(*extent, 8192, 4096), pattern(4096, 1));
}

TEST_F(OnDemandExtentFile, NewProviderGoesOnToTheFileThatIsMadeLater) {
    yx::P<CVMDKOnDemandExtentFile> const extent = make();
    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 0, 10), zeros(10));
    extent->write("x", 1);
    EXPECT_EQ(readAt(*extent, 0, 12), concat({zeros(10), fromText("x"), zeros(1)}));
    extent->setFallbackDataProvider(provider.get());
    EXPECT_EQ(readAt(*extent, 4096, 10), FakeDataProvider::bytesAt(11 * 4096, 10));
}

TEST_F(OnDemandExtentFile, PreparersAreTheSameBeforeAndAfter) {
    for (Kind const& kind : {kPlain, kCompressed}) {
        memory->deleteFile(uri, true);
        yx::P<CVMDKOnDemandExtentFile> const extent = make(kind);
        auto const before = extent->createDataPreparer();
        extent->write("x", 1);
        auto const after = extent->createDataPreparer();
        EXPECT_NE(before, after);
        EXPECT_EQ(before->doesAnything(), after->doesAnything());
        EXPECT_EQ(before->getWorstCaseGrainSizeSectors(), after->getWorstCaseGrainSizeSectors());
    }
}

TEST_F(OnDemandExtentFile, GrainCountIsRoundedDown) {
    yx::P<CVMDKOnDemandExtentFile> const extent =
        make(kPlain, IIOStream::ReadWrite, nullptr, 8, 41);
    extent->seek(40 * 512);
    EXPECT_EQ(read(*extent, 512), FakeDataProvider::bytesAt(15 * 4096, 512));
    extent->seek(40 * 512);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                              {{"uri", kExtentURI}, {"position", "20480"}, {"bytesToWrite", "1"}},
                              [&] { extent->write("x", 1); }));
    EXPECT_EQ(test_support::checkExtent(memory->getFile(uri)).capacitySectors, 40U);
}

TEST_F(OnDemandExtentFile, GrainSizeThatNoFileCanHaveIsRefused) {
    struct {
        __int64 sizeSectors;
        char const* message;
    } const cases[] = {{0, "Invalid grain size: 0"}, {-1, "Invalid grain size: -1"}};
    for (auto const& [sizeSectors, message] : cases) {
        yx::P<CVMDKOnDemandExtentFile> const extent =
            make(kPlain, IIOStream::ReadWrite, nullptr, sizeSectors,
                 std::numeric_limits<__int64>::min());
        EXPECT_TRUE(throwsInvalidArg("createEmptyVMDKSparseExtentFile", message,
                                     {{"uri", kExtentURI}}, [&] { extent->write("x", 1); }));
        EXPECT_FALSE(exists());
    }
}

TEST_F(OnDemandExtentFile, FailedCreationLeavesNoFileAndIsTriedAgain) {
    auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
    yx::P<CVMDKOnDemandExtentFile> const extent = make(kPlain, IIOStream::ReadWrite, faulty.get());
    extent->seek(4096);
    faulty->add({.kinds = {FileOperation::Kind::Write}, .code = yx::CIOError::NoSpace});
    test_support::LogCapture log;
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.", {{"uri", kExtentURI}},
                              [&] { extent->write("x", 1); }));
    ASSERT_FALSE(log.entries().empty());
    EXPECT_EQ(log.entries()[0].message,
              "Error in CVMDKDisk::createEmptySparseExtentFile ('mem:/d/extent.vmdk'). Deleting "
              "file and letting error through.");
    EXPECT_FALSE(exists());
    EXPECT_EQ(extent->getPosition(), 4096);
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(11 * 4096, 10));
    extent->seek(4096);
    extent->write("x", 1);
    EXPECT_EQ(readAt(*extent, 4096, 1), fromText("x"));
}

TEST_F(OnDemandExtentFile, FileThatAFailedCreationLeftBehindIsOpenedAsItStands) {
    auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
    yx::P<CVMDKOnDemandExtentFile> const extent = make(kPlain, IIOStream::ReadWrite, faulty.get());
    extent->seek(4096);
    faulty->add({.kinds = {FileOperation::Kind::Write, FileOperation::Kind::Delete},
                 .sticky = true,
                 .code = yx::CIOError::NoSpace});
    {
        test_support::LogCapture const log;
        test_support::IgnoredExceptionCapture const ignored;
        EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.", {{"uri", kExtentURI}},
                                  [&] { extent->write("x", 1); }));
    }
    faulty->clear();
    ASSERT_TRUE(exists());
    Bytes const left = content();
    // It is not made anew.
    EXPECT_THROW(extent->write("x", 1), yx::CIOError);
    EXPECT_EQ(content(), left);
    EXPECT_EQ(extent->getPosition(), 4096);
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(11 * 4096, 10));
}

TEST_F(OnDemandExtentFile, FailedOpeningKeepsTheOldObjectAndTheNextWriteOpensTheFile) {
    auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
    yx::P<CVMDKOnDemandExtentFile> const extent = make(kPlain, IIOStream::ReadWrite, faulty.get());
    extent->seek(4096);
    // The first opening is that of the creation.
    faulty->add({.kinds = {FileOperation::Kind::Open}, .nth = 2});
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Injected failure.", {{"uri", kExtentURI}},
                              [&] { extent->write("x", 1); }));
    EXPECT_TRUE(exists());
    EXPECT_EQ(extent->getPosition(), 4096);
    EXPECT_EQ(extent->gatherSpaceInfo()->getHeaderSize(), 0);
    extent->write("x", 1);
    EXPECT_EQ(extent->gatherSpaceInfo()->getHeaderSize(), 8192);
    EXPECT_EQ(readAt(*extent, 4096, 1), fromText("x"));
}

TEST_F(OnDemandExtentFile, FileThatIsRefusedLaterKeepsTheOldObject) {
    yx::P<CVMDKOnDemandExtentFile> const extent = make();
    extent->seek(100);
    setContent(zeros(600));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Invalid magic number in VMDK sparse header", {{"num", "0"}},
                              [&] { extent->write("x", 1); }));
    EXPECT_EQ(content(), zeros(600));
    EXPECT_EQ(extent->getPosition(), 100);
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(40960 + 100, 10));
}

TEST_F(OnDemandExtentFile, FailedSeekAfterTheChangeLeavesTheNewObjectAtItsStart) {
    // 512 grains fill their one table, so a new file refuses to be sought to its very end.
    yx::P<CVMDKOnDemandExtentFile> const extent =
        make(kPlain, IIOStream::ReadWrite, nullptr, 1, 512);
    extent->seek(512 * 512);
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrainDirectory::getGrainTable", "invalid table index: 1",
                                 {{"uri", kExtentURI}}, [&] { extent->write("", 0); }));
    EXPECT_EQ(extent->getPosition(), 0);
    extent->write("x", 1);
    EXPECT_EQ(readAt(*extent, 0, 1), fromText("x"));
}

TEST_F(OnDemandExtentFile, LastReleaseBringsTheChangesToTheFile) {
    yx::P<CVMDKOnDemandExtentFile> extent = make(kCompressed);
    extent->seek(0);
    extent->write(pattern(4096, 1).data(), 4096);
    extent.reset();
    EXPECT_EQ(readAt(*openExtent(kCompressed), 0, 4096), pattern(4096, 1));
    EXPECT_EQ(findings(), "");
}

} // namespace

} // namespace extent_test
