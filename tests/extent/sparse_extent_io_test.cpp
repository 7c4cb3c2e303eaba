#include <algorithm>
#include <limits>

#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using kelm::CVMDKSparseExtentFile;
using Request = FakeDataProvider::Request;
using Requests = std::vector<Request>;
using test_support::textPattern;

constexpr char kSeek[] = "CVMDKSparseExtentFile::seek";

class SparseExtentIO : public ExtentTest {
protected:
    static Bytes readPrepared(kelm::IVMDKExtentFile& extent) {
        Buffer data;
        extent.readPreparedGrainData(data);
        return toBytes(data);
    }

    static Bytes plainForm(Kind const& kind, Bytes const& prepared) {
        return kind.compressed ? test_support::takeApart(prepared, 4096).plain : prepared;
    }

    /// One grain of 8 sectors and then 4 of the next one.
    void createPartialExtent(Kind const& kind) {
        createExtent(kind, 2);
        setHeaderField(kCapacityOffset, 12, 8);
    }
};

TEST_F(SparseExtentIO, SeekRefusesWhatLiesOutside) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    extent->seek(100);
    struct {
        __int64 position;
        char const* message;
    } const cases[] = {
        {-1, "Invalid position: -1"},
        {kCapacityBytes + 1, "Invalid position: 65537"},
        {std::numeric_limits<__int64>::max(), "Invalid position: 9223372036854775807"},
        {std::numeric_limits<__int64>::min(), "Invalid position: -9223372036854775808"},
    };
    for (auto const& [position, message] : cases) {
        EXPECT_TRUE(throwsInvalidArg(kSeek, message, {{"uri", kExtentURI}},
                                     [&, position = position] { extent->seek(position); }));
        EXPECT_EQ(extent->getPosition(), 100);
    }
    extent->seek(kCapacityBytes);
    EXPECT_EQ(extent->getPosition(), kCapacityBytes);
}

TEST_F(SparseExtentIO, SeekBehindTheLastGrainFailsIfNoTableHasAnEntryForIt) {
    // 512 grains fill their one table.
    createExtent(kPlain, 512, 1);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    extent->seek(511 * 512 + 7);
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrainDirectory::getGrainTable", "invalid table index: 1",
                                 {{"uri", kExtentURI}}, [&] { extent->seek(512 * 512); }));
    EXPECT_EQ(extent->getPosition(), 511 * 512 + 7);
    // Reading up to that end needs no such seek.
    EXPECT_EQ(read(*extent, 505), zeros(505));
    EXPECT_EQ(extent->getPosition(), 512 * 512);
    EXPECT_NO_THROW(read(*extent, 0));
}

TEST_F(SparseExtentIO, ReadReachesTheCapacityAndNoFurther) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    EXPECT_EQ(readAt(*extent, kCapacityBytes - 10, 10),
              FakeDataProvider::bytesAt(26 * 4096 - 10, 10));
    EXPECT_EQ(extent->getPosition(), kCapacityBytes);
    extent->seek(kCapacityBytes - 10);
    provider->requests().clear();
    Bytes target(11, 0xEE);
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd,
                              "Unexpected end of data reading from VMDK sparse extent file.",
                              {{"uri", kExtentURI}, {"position", "65526"}, {"bytesToRead", "11"}},
                              [&] { extent->read(target.data(), 11); }));
    EXPECT_EQ(target, Bytes(11, 0xEE));
    EXPECT_TRUE(provider->requests().empty());
    EXPECT_EQ(extent->getPosition(), kCapacityBytes - 10);
}

TEST_F(SparseExtentIO, WriteReachesTheCapacityAndNoFurther) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    extent->seek(kCapacityBytes - 10);
    Bytes const source = pattern(11, 1);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                              {{"uri", kExtentURI}, {"position", "65526"}, {"bytesToWrite", "11"}},
                              [&] { extent->write(source.data(), 11); }));
    EXPECT_EQ(extent->getPosition(), kCapacityBytes - 10);
    extent->write(source.data(), 10);
    EXPECT_EQ(extent->getPosition(), kCapacityBytes);
    EXPECT_EQ(readAt(*extent, kCapacityBytes - 11, 11), concat({{0}, slice(source, 0, 10)}));
}

TEST_F(SparseExtentIO, RangeIsCheckedBeforeAccessAndUpdater) {
    createExtent(kPlain);
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    CVMDKSparseExtentFile extent(openStream({IIOStream::ReadOnly}).get(), IIOStream::ReadOnly, 0, 6,
                                 cache.get(), nullptr, nullptr, nullptr, cryptBuffer({}), Buffer());
    extent.seek(kCapacityBytes - 1);
    unsigned char const two[2] = {1, 2};
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                              {{"uri", kExtentURI}, {"position", "65535"}, {"bytesToWrite", "2"}},
                              [&] { extent.write(two, 2); }));
    // The updater is missed before the access is looked at.
    EXPECT_TRUE(throwsError("Internal error: VMDK sparse extent file is about to be changed, but "
                            "it does not have a content ID updater.",
                            {{"uri", kExtentURI}}, [&] { extent.write(two, 1); }));
    extent.seek(0);
    EXPECT_TRUE(throwsError("Internal error: VMDK sparse extent file is about to be changed, but "
                            "it does not have a content ID updater.",
                            {{"uri", kExtentURI}},
                            [&] { extent.writePreparedGrainData(toBuffer(zeros(4096))); }));
    EXPECT_EQ(extent.getPosition(), 0);
}

TEST_F(SparseExtentIO, ReadOnlyExtentRefusesEveryWrite) {
    createExtent(kPlain);
    Bytes const before = content();
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {IIOStream::ReadOnly});
    char const message[] = "Internal error: VMDK sparse extent file is about to be changed, but "
                           "it was not opened for writing.";
    Props const props{{"uri", kExtentURI}};
    EXPECT_TRUE(throwsError(message, props, [&] { extent->write("x", 1); }));
    EXPECT_TRUE(throwsError(message, props, [&] { extent->write("", 0); }));
    EXPECT_TRUE(throwsError(message, props,
                            [&] { extent->writePreparedGrainData(toBuffer(zeros(4096))); }));
    EXPECT_TRUE(throwsError(message, props, [&] { extent->makeGrainIndependentOfParent(0); }));
    extent->flushChanges();
    EXPECT_EQ(extent->gatherSpaceInfo()->getDeadSpaceSize(), 0);
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(content(), before);
}

TEST_F(SparseExtentIO, AccessThatIsNeitherReadsAndDoesNotWrite) {
    createExtent(kPlain);
    Bytes const before = content();
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    CVMDKSparseExtentFile extent(openStream({}).get(), IIOStream::Access(2), 0, 6, cache.get(),
                                 nullptr, updater.get(), nullptr, cryptBuffer({}), Buffer());
    files->clear();
    EXPECT_TRUE(throwsError("Internal error: VMDK sparse extent file is about to be changed, but "
                            "it was not opened for writing.",
                            {{"uri", kExtentURI}}, [&] { extent.write("x", 1); }));
    // The flush asks for exactly read-only, and so goes its way here.
    extent.flushChanges();
    EXPECT_EQ(files->count({test_support::FileOperation::Kind::Flush}), 2U);
    EXPECT_EQ(content(), before);
}

TEST_F(SparseExtentIO, ReadsAreCutAtGrains) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    EXPECT_EQ(readAt(*extent, 2048, 10240), FakeDataProvider::bytesAt(40960 + 2048, 10240));
    EXPECT_EQ(provider->requests(), (Requests{{Request::Data, 43008, 2048, false},
                                              {Request::Data, 45056, 4096, false},
                                              {Request::Data, 49152, 4096, false}}));
    EXPECT_EQ(extent->getPosition(), 12288);
}

TEST_F(SparseExtentIO, WholeGrainsReadInSequenceAreWhatWasWritten) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind.name);
        createExtent(kind);
        Bytes const written = pattern(10 * 4096, 2);
        yx::P<CVMDKSparseExtentFile> const extent =
            openExtent(kind, {.provider = provider.get(), .bare = true});
        writeAt(*extent, 2 * 4096, written);
        extent->flushChanges();
        Bytes const expected = concat({FakeDataProvider::bytesAt(40960, 2 * 4096), written,
                                       FakeDataProvider::bytesAt(40960 + 12 * 4096, 4 * 4096)});
        for (__int64 const requestBytes : {4096, 2 * 4096, 8 * 4096, 3000}) {
            extent->seek(0);
            Bytes all;
            while (extent->getPosition() < kCapacityBytes) {
                Bytes const piece =
                    read(*extent, std::min(requestBytes, kCapacityBytes - extent->getPosition()));
                all.insert(all.end(), piece.begin(), piece.end());
            }
            EXPECT_TRUE(sameBytes(expected, all)) << requestBytes;
        }
        // Back into the grain that the last read ended with.
        EXPECT_EQ(readAt(*extent, 3 * 4096, 2 * 4096), slice(expected, 3 * 4096, 2 * 4096));
        EXPECT_EQ(readAt(*extent, 4 * 4096 + 100, 200), slice(expected, 4 * 4096 + 100, 200));
    }
}

TEST_F(SparseExtentIO, GrainThatAReadEndsWithStaysInMemory) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    writeAt(*extent, 0, pattern(3 * 4096, 2));
    extent->flushChanges();
    extent->seek(0);
    files->clear();
    EXPECT_EQ(read(*extent, 3 * 4096), pattern(3 * 4096, 2));
    EXPECT_EQ(
        files->lines(test_support::kTransfers),
        (std::vector<std::string>{"read extent.vmdk 8192+8192", "read extent.vmdk 16384+4096"}));
    EXPECT_EQ(readAt(*extent, 2 * 4096, 4096), slice(pattern(3 * 4096, 2), 2 * 4096, 4096));
    EXPECT_EQ(files->count({test_support::FileOperation::Kind::Read}), 2U);
}

TEST_F(SparseExtentIO, GrainsThatLieTogetherAreReadTogether) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    Bytes expected = zeros(kCapacityBytes);
    // In the file: 0 1 2 3 7 6 8 9, and grains 4 and 5 nowhere.
    for (__int64 const grain : {0, 1, 2, 3, 7, 6, 8, 9}) {
        Bytes const bytes = pattern(4096, static_cast<unsigned int>(grain) + 1);
        std::copy(bytes.begin(), bytes.end(), expected.begin() + grain * 4096);
        writeAt(*extent, grain * 4096, bytes);
    }
    extent->flushChanges();
    extent->seek(0);
    files->clear();
    EXPECT_TRUE(sameBytes(slice(expected, 0, 10 * 4096 + 5), read(*extent, 10 * 4096 + 5)));
    EXPECT_EQ(extent->getPosition(), 10 * 4096 + 5);
    EXPECT_EQ(
        files->lines(test_support::kTransfers),
        (std::vector<std::string>{"read extent.vmdk 8192+16384", "read extent.vmdk 28672+4096",
                                  "read extent.vmdk 24576+4096", "read extent.vmdk 32768+8192"}));
    EXPECT_TRUE(sameBytes(slice(expected, 10 * 4096 + 5, 100), read(*extent, 100)));
}

TEST_F(SparseExtentIO, GrainsOfTwoTablesAreReadApart) {
    // 512 grains of one sector fill a table.
    createExtent(kPlain, 600, 1);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    Bytes const content = pattern(600 * 512, 4);
    writeAt(*extent, 0, content);
    extent->flushChanges();
    extent->seek(510 * 512);
    files->clear();
    EXPECT_TRUE(sameBytes(slice(content, 510 * 512, 10 * 512), read(*extent, 10 * 512)));
    EXPECT_EQ(files->count({test_support::FileOperation::Kind::Read}), 3U);
}

TEST_F(SparseExtentIO, FileThatEndsAmidGrainsThatLieTogetherFailsAtTheOneThatIsCut) {
    createExtent(kPlain);
    {
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
        writeAt(*extent, 0, pattern(8 * 4096, 5));
        extent->flushChanges();
    }
    for (int const keptGrains : {3, 1, 0}) {
        Bytes file = content();
        file.resize(8192 + static_cast<std::size_t>(keptGrains) * 4096 + 100);
        setContent(file);
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
        Bytes target(8 * 4096, 0xEE);
        std::string const position = std::to_string(8192 + keptGrains * 4096);
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                          {{"uri", kExtentURI}, {"position", position}, {"bytesToRead", "4096"}},
                          [&] { extent->read(target.data(), static_cast<int>(target.size())); }));
        EXPECT_EQ(extent->getPosition(), keptGrains * 4096);
        EXPECT_TRUE(sameBytes(slice(pattern(8 * 4096, 5), 0, keptGrains * 4096),
                              slice(target, 0, keptGrains * 4096)));
    }
}

TEST_F(SparseExtentIO, GrainThatCannotBeReadFailsAloneAmidThoseThatLieTogether) {
    createExtent(kPlain);
    Bytes const bytes = pattern(8 * 4096, 5);
    writeAt(*openExtent(kPlain), 0, bytes);
    for (int const badGrain : {0, 3, 7}) {
        long long const badPosition = 8192 + badGrain * 4096 + 100;
        int failures = 0;
        auto const broken = yx::makeObject<test_support::HookedFileSystem>(
            files.get(), [&](test_support::FileOperation& operation, auto const& proceed) {
                if (operation.kind == test_support::FileOperation::Kind::Read &&
                    operation.position <= badPosition &&
                    operation.position + operation.length > badPosition) {
                    ++failures;
                    throw yx::CIOError(yx::CIOError::IOFailure,
                                       "Broken at " + yx::toString(operation.position),
                                       yx::CProps(), nullptr);
                }
                proceed();
            });
        yx::P<CVMDKSparseExtentFile> const extent =
            openExtent(kPlain, {.bare = true, .through = broken.get()});
        Bytes target(10 * 4096, 0xEE);
        std::string const message = "Broken at " + std::to_string(8192 + badGrain * 4096);
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, message.c_str(), {}, [&] {
            extent->read(target.data(), static_cast<int>(target.size()));
        }));
        EXPECT_GT(failures, 1);
        EXPECT_EQ(extent->getPosition(), badGrain * 4096);
        EXPECT_TRUE(sameBytes(slice(bytes, 0, badGrain * 4096), slice(target, 0, badGrain * 4096)));
    }
}

TEST_F(SparseExtentIO, FailureThatDoesNotComeAgainIsReportedAllTheSame) {
    createExtent(kPlain);
    writeAt(*openExtent(kPlain), 0, pattern(8 * 4096, 5));
    auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(files.get());
    yx::P<CVMDKSparseExtentFile> const extent =
        openExtent(kPlain, {.bare = true, .through = faulty.get()});
    extent->seek(0);
    faulty->add({.kinds = {test_support::FileOperation::Kind::Read}});
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Injected failure.", {{"uri", kExtentURI}},
                              [&] { read(*extent, 10 * 4096); }));
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_TRUE(sameBytes(pattern(8 * 4096, 5), read(*extent, 8 * 4096)));
}

TEST_F(SparseExtentIO, TableThatCannotBeReadAmidGrainsThatLieTogetherFailsAtItsGrain) {
    createExtent(kPlain);
    Bytes const bytes = pattern(8 * 4096, 5);
    writeAt(*openExtent(kPlain), 0, bytes);
    // Each look at a grain's place reads the table anew.
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(0);
    for (bool const continues : {false, true}) {
        for (int badGrain = continues ? 2 : 1; badGrain < 8; ++badGrain) {
            SCOPED_TRACE(testing::Message() << badGrain << (continues ? ", continued" : ""));
            int loads = -1;
            auto const broken = yx::makeObject<test_support::HookedFileSystem>(
                files.get(), [&](test_support::FileOperation& operation, auto const& proceed) {
                    bool const isTable =
                        operation.kind == test_support::FileOperation::Kind::Read &&
                        operation.position < 8192;
                    // Once only, so that it shows if the table is asked again.
                    if (isTable && loads >= 0 && loads++ == badGrain - 1)
                        throw yx::CIOError(yx::CIOError::IOFailure, "Table lost.", yx::CProps(),
                                           nullptr);
                    proceed();
                });
            yx::P<CVMDKSparseExtentFile> const extent =
                openExtent(kPlain, {.cache = cache.get(), .bare = true, .through = broken.get()});
            extent->seek(0);
            loads = 0;
            Bytes target(8 * 4096, 0xEE);
            auto const position = [&] { return static_cast<std::size_t>(extent->getPosition()); };
            if (continues)
                extent->read(target.data(), 4096);
            EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Table lost.", {}, [&] {
                extent->read(target.data() + position(), static_cast<int>(8 * 4096 - position()));
            }));
            EXPECT_EQ(extent->getPosition(), badGrain * 4096);
            EXPECT_TRUE(sameBytes(
                concat({slice(bytes, 0, position()), Bytes(target.size() - position(), 0xEE)}),
                target));
            extent->read(target.data() + position(), static_cast<int>(8 * 4096 - position()));
            EXPECT_TRUE(sameBytes(bytes, target));
        }
    }
}

TEST_F(SparseExtentIO, DataThatCannotBeReadFailsBeforeATableBehindIt) {
    createExtent(kPlain);
    writeAt(*openExtent(kPlain), 0, pattern(8 * 4096, 5));
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(0);
    int loads = -1;
    auto const broken = yx::makeObject<test_support::HookedFileSystem>(
        files.get(), [&](test_support::FileOperation& operation, auto const& proceed) {
            bool const isRead = operation.kind == test_support::FileOperation::Kind::Read;
            bool const isTable = isRead && operation.position < 8192;
            if (isTable && loads >= 0 && loads++ == 4)
                throw yx::CIOError(yx::CIOError::IOFailure, "Table lost.", yx::CProps(), nullptr);
            // Grain 2 lies there.
            if (isRead && !isTable && operation.position + operation.length > 8192 + 2 * 4096)
                throw yx::CIOError(yx::CIOError::IOFailure, "Grain lost.", yx::CProps(), nullptr);
            proceed();
        });
    yx::P<CVMDKSparseExtentFile> const extent =
        openExtent(kPlain, {.cache = cache.get(), .bare = true, .through = broken.get()});
    extent->seek(0);
    loads = 0;
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Grain lost.", {},
                              [&] { read(*extent, 8 * 4096); }));
    EXPECT_EQ(extent->getPosition(), 2 * 4096);
}

TEST_F(SparseExtentIO, GrainThatARequestPassesReadsLikeAnyOther) {
    Bytes const bytes = concat({pattern(4096, 1), zeros(4096), textPattern(4096, 2)});
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind.name);
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kind);
        writeAt(*extent, 0, slice(bytes, 0, 4096));
        writeAt(*extent, 2 * 4096, slice(bytes, 2 * 4096, 4096));
        extent->flushChanges();
        for (__int64 const grain : {0, 1}) {
            EXPECT_TRUE(sameBytes(slice(bytes, static_cast<std::size_t>(grain) * 4096, 4097),
                                  readAt(*extent, grain * 4096, 4097)));
            EXPECT_TRUE(sameBytes(slice(bytes, static_cast<std::size_t>(grain) * 4096, 4096),
                                  readAt(*extent, grain * 4096, 4096)));
        }
    }
}

TEST_F(SparseExtentIO, GrainThatARequestPassesShowsUnflushedChanges) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind.name);
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kind);
        writeAt(*extent, 0, pattern(2 * 4096, 1));
        extent->flushChanges();
        Bytes const changed = textPattern(4096, 3);
        writeAt(*extent, 0, changed);
        EXPECT_TRUE(sameBytes(concat({changed, slice(pattern(2 * 4096, 1), 4096, 1)}),
                              readAt(*extent, 0, 4097)));
    }
}

TEST_F(SparseExtentIO, GrainInASlotThatIsTooSmallIsRefusedAmidThoseThatLieTogether) {
    // A file with slot sizes whose grains are not compressed.
    createExtent(kCompressed);
    Bytes file = content();
    file.at(kFlagsOffset + 2) &= 0xFC;
    setContent(file);
    Bytes const bytes = pattern(4 * 4096, 6);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    writeAt(*extent, 0, bytes);
    extent->flushChanges();
    {
        yx::P<IIOStream> const stream = openStream({});
        kelm::CVMDKSparseExtentHeader header;
        yx::CDataInStream in(stream.get());
        header.load(in);
        kelm::CVMDKGrainDirectory directory(
            stream.get(), IIOStream::ReadWrite,
            static_cast<__int64>(header.getGrainDirectoryOffsetSectors()),
            static_cast<__int64>(header.getRedundantGrainDirectoryOffsetSectors()),
            static_cast<__int64>(header.getCapacitySectors()), kGrainSizeSectors, 512, false,
            yx::makeObject<kelm::CVMDKGrainTableCache>().get());
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        directory.getGrainInfo(2, posSectors, slotSizeSectors);
        EXPECT_EQ(slotSizeSectors, kGrainSizeSectors);
        directory.setGrainInfo(2, posSectors, kGrainSizeSectors - 1);
        directory.flushChangesToStream();
    }
    yx::P<CVMDKSparseExtentFile> const reopened = openExtent(kPlain);
    reopened->seek(0);
    EXPECT_THROW(read(*reopened, 4 * 4096), yx::CInvalidArgError);
    EXPECT_EQ(reopened->getPosition(), 2 * 4096);
}

TEST_F(SparseExtentIO, GrainThatStaysOpenIsReadForTheNextOneAndNoneTogetherWithIt) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    Bytes const bytes = pattern(8 * 4096, 7);
    writeAt(*extent, 0, bytes);
    extent->flushChanges();
    extent->makeGrainIndependentOfParent(2);
    ASSERT_EQ(extent->getPosition(), 3 * 4096);
    // Without a provider the call leaves the grain open at its beginning.
    EXPECT_TRUE(sameBytes(concat({slice(bytes, 2 * 4096, 4096), slice(bytes, 4 * 4096, 2 * 4096)}),
                          read(*extent, 3 * 4096)));
}

TEST_F(SparseExtentIO, FailureAmidAReadLeavesThePositionAtTheFailedStep) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    writeAt(*extent, 0, pattern(4096, 1));
    extent->seek(96);
    provider->setFailing(true);
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Scripted provider failure.", {},
                              [&] { read(*extent, 8192); }));
    EXPECT_EQ(extent->getPosition(), 4096);
    provider->setFailing(false);
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(45056, 10));
}

TEST_F(SparseExtentIO, FailureAmidAWriteKeepsTheEarlierSteps) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    provider->setFailing(true);
    Bytes const source = pattern(5000, 3);
    extent->seek(0);
    // The second grain is changed in part, and so needs its old content.
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Scripted provider failure.", {},
                              [&] { extent->write(source.data(), 5000); }));
    EXPECT_EQ(extent->getPosition(), 4096);
    provider->setFailing(false);
    extent->write(source.data() + 4096, 904);
    EXPECT_EQ(readAt(*extent, 0, 8192),
              concat({source, FakeDataProvider::bytesAt(40960 + 5000, 3192)}));
}

TEST_F(SparseExtentIO, ZeroByteOperationsTouchNothing) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    files->clear();
    for (int const count : {0, -1, std::numeric_limits<int>::min()}) {
        extent->read(nullptr, count);
        extent->write(nullptr, count);
    }
    EXPECT_TRUE(files->lines().empty());
    EXPECT_EQ(extent->getPosition(), 0);
    extent->seek(kCapacityBytes);
    extent->read(nullptr, 0);
    extent->write(nullptr, 0);
    EXPECT_EQ(extent->getPosition(), kCapacityBytes);
}

TEST_F(SparseExtentIO, SmallWritesIntoOneGrainCostOneGrainWrite) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    extent->seek(0);
    files->clear();
    for (int i = 0; i < 8; ++i)
        extent->write(pattern(512, 5).data(), 512);
    EXPECT_TRUE(files->lines().empty());
    extent->flushChanges();
    EXPECT_EQ(files->lines(test_support::kChanges),
              (std::vector<std::string>{"write extent.vmdk 8192+4096", "flush extent.vmdk",
                                        "write extent.vmdk 3584+2048",
                                        "write extent.vmdk 1024+2048", "flush extent.vmdk"}));
}

TEST_F(SparseExtentIO, SeekWithinTheCurrentGrainReachesNoFile) {
    createExtent(kPlain);
    // A cache that keeps nothing: each look into the directory shows as a read.
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(0);
    yx::P<CVMDKSparseExtentFile> const extent =
        openExtent(kPlain, {.cache = cache.get(), .bare = true});
    writeAt(*extent, 5 * 4096, pattern(4096, 1));
    files->clear();
    // From the end of the grain, and within it.
    extent->seek(5 * 4096 + 4095);
    extent->seek(5 * 4096);
    EXPECT_EQ(read(*extent, 4096), pattern(4096, 1));
    extent->write("x", 0);
    EXPECT_TRUE(files->lines().empty());
    extent->seek(4 * 4096);
    EXPECT_FALSE(files->lines().empty());
}

TEST_F(SparseExtentIO, GrainIsWrittenOutByTheNextAccessBehindIt) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.bare = true});
    extent->seek(5 * 4096);
    files->clear();
    extent->write(pattern(4096, 1).data(), 4096);
    EXPECT_EQ(extent->getPosition(), 6 * 4096);
    EXPECT_TRUE(files->lines().empty());
    EXPECT_EQ(read(*extent, 1), zeros(1));
    EXPECT_EQ(files->lines(test_support::kChanges),
              (std::vector<std::string>{"write extent.vmdk 8192+4096"}));
    extent->flushChanges();
    EXPECT_EQ(findings(), "");
}

TEST_F(SparseExtentIO, FlushAtTheEndOfAGrainWritesItAndKeepsItOpen) {
    createExtent(kCompressed);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed, {.bare = true});
    writeAt(*extent, 5 * 4096, pattern(4096, 1));
    extent->flushChanges();
    EXPECT_EQ(findings(), "");
    files->clear();
    extent->seek(5 * 4096);
    EXPECT_EQ(read(*extent, 4096), pattern(4096, 1));
    EXPECT_TRUE(files->lines().empty());
    extent->flushChanges();
    EXPECT_EQ(files->lines(), (std::vector<std::string>{"flush extent.vmdk", "flush extent.vmdk"}));
}

TEST_F(SparseExtentIO, FlushWritesDataThenTrailThenTables) {
    createExtent(kCompressed);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed, {.bare = true});
    // A grain of one value takes one sector.
    writeAt(*extent, 0, Bytes(4096, 7));
    files->clear();
    extent->flushChanges();
    EXPECT_EQ(files->lines(test_support::kChanges),
              (std::vector<std::string>{
                  "write extent.vmdk 12288+512", "write extent.vmdk 12800+1536",
                  "flush extent.vmdk", "write extent.vmdk 5632+2048", "write extent.vmdk 2048+2048",
                  "write extent.vmdk 9216+1024", "flush extent.vmdk"}));
    EXPECT_EQ(findings(), "");
}

TEST_F(SparseExtentIO, DataIsOnTheDeviceBeforeATablePointsToItBehindTheBufferingLayerToo) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kind);
        writeAt(*extent, 0, pattern(3 * 4096, 7));
        files->clear();
        extent->flushChanges();
        std::vector<std::string> const lines = files->lines(test_support::kChanges);
        auto const firstFlush = std::find(lines.begin(), lines.end(), "flush extent.vmdk");
        ASSERT_NE(firstFlush, lines.end());
        __int64 const overheadBytes = kind.compressed ? 12288 : 8192;
        for (auto line = lines.begin(); line != lines.end(); ++line) {
            if (line->starts_with("write ")) {
                bool const isData = std::stoll(line->substr(18)) >= overheadBytes;
                EXPECT_EQ(isData, line < firstFlush) << *line;
            }
        }
        EXPECT_EQ(lines.back(), "flush extent.vmdk");
    }
}

TEST_F(SparseExtentIO, PreparedGrainsTravelBothWays) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> extent = openExtent(kind);
        Bytes const plain = test_support::textPattern(4096, 9);
        Bytes const prepared = preparedForm(kind, plain, 3);
        extent->seek(3 * 4096);
        extent->writePreparedGrainData(toBuffer(prepared));
        EXPECT_EQ(extent->getPosition(), 4 * 4096);
        EXPECT_EQ(readAt(*extent, 3 * 4096, 4096), plain);
        extent->seek(3 * 4096);
        EXPECT_EQ(plainForm(kind, readPrepared(*extent)), plain);
        EXPECT_EQ(extent->getPosition(), 4 * 4096);
        extent.reset();
        extent = openExtent(kind, {IIOStream::ReadOnly});
        extent->seek(3 * 4096);
        EXPECT_EQ(plainForm(kind, readPrepared(*extent)), plain);
        EXPECT_EQ(findings(), "");
    }
}

TEST_F(SparseExtentIO, PreparedGrainsAreRefusedPastTheEndBeforeOffABoundary) {
    createPartialExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    struct {
        __int64 position;
        char const* text;
    } const pastTheEnd[] = {{4096, "4096"}, {4097, "4097"}, {6144, "6144"}};
    for (auto const& [position, text] : pastTheEnd) {
        extent->seek(position);
        Props const props{
            {"uri", kExtentURI}, {"position", text}, {"grainSize", "4096"}, {"extentSize", "6144"}};
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "Prepared grain read exceeds VMDK extent size.", props,
                                  [&] { readPrepared(*extent); }));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "Prepared grain write exceeds VMDK extent size.", props,
                                  [&] { extent->writePreparedGrainData(toBuffer(zeros(4096))); }));
        EXPECT_EQ(extent->getPosition(), position);
    }
    extent->seek(512);
    Props const props{{"uri", kExtentURI}, {"position", "512"}, {"grainSize", "4096"}};
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAligned,
        "Prepared grain read in VMDK extent file can only be done on a grain boundary.", props,
        [&] { readPrepared(*extent); }));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAligned,
        "Prepared grain write in VMDK extent file can only be done on a grain boundary.", props,
        [&] { extent->writePreparedGrainData(toBuffer(zeros(4096))); }));
    EXPECT_EQ(extent->getPosition(), 512);
}

TEST_F(SparseExtentIO, PartialLastGrainIsReadAndWrittenUpToTheCapacity) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createPartialExtent(kind);
        yx::P<CVMDKSparseExtentFile> extent = openExtent(kind);
        writeAt(*extent, 4000, pattern(2144, 1));
        EXPECT_EQ(extent->getPosition(), 6144);
        EXPECT_THROW(extent->write("x", 1), yx::CIOError);
        extent->seek(6144);
        EXPECT_THROW(read(*extent, 1), yx::CIOError);
        extent.reset();
        extent = openExtent(kind, {IIOStream::ReadOnly});
        EXPECT_EQ(readAt(*extent, 0, 6144), concat({zeros(4000), pattern(2144, 1)}));
        EXPECT_EQ(findings(), "");
    }
}

/// An extent whose seek goes to another position.
class MisledExtent : public CVMDKSparseExtentFile {
public:
    using CVMDKSparseExtentFile::CVMDKSparseExtentFile;

    void seek(__int64 position) override {
        if (offsetBytes >= 0)
            CVMDKSparseExtentFile::seek(position + offsetBytes);
    }

    /// Added to each position; below 0 the seek does nothing.
    __int64 offsetBytes = -1;
};

TEST_F(SparseExtentIO, SeekThatLeavesNoBytesIsAnInternalError) {
    createExtent(kPlain);
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    MisledExtent extent(openStream({}).get(), IIOStream::ReadWrite, 0, 6, cache.get(), nullptr,
                        updater.get(), nullptr, cryptBuffer({}), Buffer());
    char const message[] =
        "Internal error. After seeking to grain at position 0 there are still no bytes left in "
        "the grain.";
    Props const props{{"uri", kExtentURI}};
    EXPECT_TRUE(throwsError(message, props, [&] { read(extent, 1); }));
    EXPECT_TRUE(throwsError(message, props, [&] { extent.write("x", 1); }));
    EXPECT_TRUE(throwsError(message, props, [&] { extent.isGrainWritten(); }));
    EXPECT_TRUE(
        throwsError(message, props, [&] { extent.isGrainWrittenAndIndependentOfParent(); }));
}

TEST_F(SparseExtentIO, PreparedGrainThatIsNotUnderTheCursorIsAnInternalError) {
    createExtent(kPlain);
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    struct {
        std::function<void(MisledExtent&)> operation;
        char const* message;
    } const cases[] = {
        {[](MisledExtent& extent) { readPrepared(extent); },
         "Internal error: CVMDKSparseExtentFile::beginIOOp in "
         "CVMDKSparseExtentFile::tryReadPreparedGrainData returned less than the grain size."},
        {[](MisledExtent& extent) { extent.writePreparedGrainData(toBuffer(zeros(4096))); },
         "Internal error: CVMDKSparseExtentFile::beginIOOp in "
         "CVMDKSparseExtentFile::writePreparedGrainData returned less than the grain size."},
    };
    for (auto const& [operation, message] : cases) {
        MisledExtent extent(openStream({}).get(), IIOStream::ReadWrite, 0, 6, cache.get(), nullptr,
                            updater.get(), nullptr, cryptBuffer({}), Buffer());
        extent.offsetBytes = 96;
        EXPECT_TRUE(throwsError(message,
                                {{"uri", kExtentURI},
                                 {"position", "96"},
                                 {"grainSize", "4096"},
                                 {"toWrite", "4000"},
                                 {"extentSize", "65536"}},
                                [&, &operation = operation] { operation(extent); }));
    }
}

TEST_F(SparseExtentIO, GrainIndependenceWithoutAProviderMovesThePositionAlone) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    writeAt(*extent, 2 * 4096, pattern(4096, 1));
    writeAt(*extent, 3 * 4096, pattern(4096, 2));
    EXPECT_EQ(extent->makeGrainIndependentOfParent(2), 0);
    EXPECT_EQ(extent->getPosition(), 3 * 4096);
    // The grain still stands at the start of grain 2, which the next operation meets.
    EXPECT_EQ(read(*extent, 4096), pattern(4096, 1));
    EXPECT_EQ(extent->makeGrainIndependentOfParent(2), 0);
    // A seek puts both cursors right.
    EXPECT_EQ(readAt(*extent, 3 * 4096, 4096), pattern(4096, 2));
}

TEST_F(SparseExtentIO, GrainIndependenceStoresWhatTheProviderHas) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> extent = openExtent(kind, {.provider = provider.get()});
        Bytes const plain = FakeDataProvider::bytesAt(12 * 4096, 4096);
        Bytes const prepared = preparedForm(kind, plain, 2);
        provider->setPreparedGrain(prepared);
        provider->requests().clear();
        EXPECT_EQ(extent->makeGrainIndependentOfParent(2), static_cast<__int64>(prepared.size()));
        EXPECT_EQ(provider->requests(),
                  (Requests{{Request::PreparedGrain, 12 * 4096, 4096, kind.compressed}}));
        EXPECT_EQ(extent->getPosition(), 3 * 4096);
        EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
        extent->seek(2 * 4096);
        EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
        // A second time there is nothing to do.
        provider->requests().clear();
        EXPECT_EQ(extent->makeGrainIndependentOfParent(2), 4096);
        EXPECT_EQ(extent->getPosition(), 3 * 4096);
        EXPECT_TRUE(provider->requests().empty());
        extent.reset();
        EXPECT_EQ(readAt(*openExtent(kind), 2 * 4096, 4096), plain);
        EXPECT_EQ(findings(), "");
    }
}

TEST_F(SparseExtentIO, GrainIndependenceDropsUnwrittenChangesOfAGrainWithoutAPlace) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    writeAt(*extent, 2 * 4096, pattern(4096, 1));
    EXPECT_EQ(extent->makeGrainIndependentOfParent(2), 4096);
    EXPECT_EQ(readAt(*extent, 2 * 4096, 4096), FakeDataProvider::bytesAt(12 * 4096, 4096));
}

TEST_F(SparseExtentIO, GrainIndependenceNeedsNoUpdater) {
    createExtent(kPlain);
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    CVMDKSparseExtentFile extent(openStream({}).get(), IIOStream::ReadWrite, 0, 6, cache.get(),
                                 provider.get(), nullptr, nullptr, cryptBuffer({}), Buffer());
    EXPECT_EQ(extent.makeGrainIndependentOfParent(0), 4096);
    EXPECT_EQ(readAt(extent, 0, 4096), FakeDataProvider::bytesAt(0, 4096));
}

TEST_F(SparseExtentIO, GrainIndependenceOutsideTheExtentIsABadPosition) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    extent->seek(7);
    struct {
        __int64 grainIndex;
        char const* message;
    } const cases[] = {
        {-1, "Invalid position: -4096"},
        {17, "Invalid position: 69632"},
        {std::numeric_limits<__int64>::max(), "Invalid position: 9223372036854775807"},
        {std::numeric_limits<__int64>::min(), "Invalid position: -9223372036854775808"},
    };
    for (auto const& [grainIndex, message] : cases) {
        EXPECT_TRUE(
            throwsInvalidArg(kSeek, message, {{"uri", kExtentURI}}, [&, grainIndex = grainIndex] {
                extent->makeGrainIndependentOfParent(grainIndex);
            }));
        EXPECT_EQ(extent->getPosition(), 7);
    }
}

TEST_F(SparseExtentIO, SaysWhichGrainsAreWritten) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    extent->seek(2 * 4096 + 100);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_EQ(provider->requests(), (Requests{{Request::IsWritten, 12 * 4096, 0, false}}));
    provider->setWritten(true);
    EXPECT_TRUE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(extent->getPosition(), 2 * 4096 + 100);
    provider->setWritten(false);
    extent->write("x", 1);
    EXPECT_TRUE(extent->isGrainWritten());
    EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(extent->getPosition(), 2 * 4096 + 101);
    // At a grain's end it is the next grain that is meant.
    extent->seek(2 * 4096);
    read(*extent, 4096);
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(extent->getPosition(), 3 * 4096);
}

TEST_F(SparseExtentIO, ReplacedProviderIsTheOneThatIsAsked) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
    EXPECT_EQ(readAt(*extent, 0, 10), zeros(10));
    extent->setFallbackDataProvider(provider.get());
    EXPECT_EQ(readAt(*extent, 0, 10), FakeDataProvider::bytesAt(40960, 10));
    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 0, 10), zeros(10));
    EXPECT_EQ(provider->requests().size(), 1U);
}

TEST_F(SparseExtentIO, ZerosOverTheProviderShowItsDataAgainOnceLeft) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {.provider = provider.get()});
    writeAt(*extent, 0, zeros(4096));
    EXPECT_EQ(readAt(*extent, 0, 4096), zeros(4096));
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, 0, 4096), zeros(4096));
    extent->seek(4096);
    EXPECT_EQ(readAt(*extent, 0, 4096), FakeDataProvider::bytesAt(40960, 4096));
}

TEST_F(SparseExtentIO, GrainThatCannotBeOpenedIsTriedAgainByTheNextSeek) {
    createExtent(kCompressed);
    {
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed);
        writeAt(*extent, 0, Bytes(4096, 1));
        writeAt(*extent, 4096, Bytes(4096, 2));
    }
    Bytes bytes = content();
    put(bytes, 18 * 512 + 2, 0, 2); // the slot size of grain 1
    setContent(bytes);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed);
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100, 1));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open",
                                     "Invalid slot size for allocated compressed grain: 0 sectors",
                                     {}, [&] { extent->seek(4096 + 7); }));
        EXPECT_EQ(extent->getPosition(), 100);
    }
    // The grain is closed now, though it was the current one; seeking and reading open it again.
    EXPECT_EQ(read(*extent, 50), Bytes(50, 1));
    EXPECT_THROW(extent->seek(4096), yx::CInvalidArgError);
    extent->seek(50);
    EXPECT_EQ(read(*extent, 4046), Bytes(4046, 1));
    EXPECT_EQ(extent->getPosition(), 4096);
}

TEST_F(SparseExtentIO, DiskGrainIndexThatNoNumberCanHoldIsRefused) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const extent =
        openExtent(kPlain, {.startGrainIndex = std::numeric_limits<__int64>::max()});
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open",
                                 "Invalid disk grain index: 9223372036854775807", {},
                                 [&] { readAt(*extent, 4096, 1); }));
}

TEST_F(SparseExtentIO, SpaceOfAnEmptyExtent) {
    createExtent(kPlain);
    yx::P<kelm::CVMDKSpaceInfo> info = openExtent(kPlain)->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSize(), 0);
    EXPECT_EQ(info->getPayloadSizeInFile(), 0);
    EXPECT_EQ(info->getHeaderSize(), 8192);
    EXPECT_EQ(info->getDeadSpaceSize(), 0);
    createExtent(kCompressed);
    info = openExtent(kCompressed, {IIOStream::ReadOnly})->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSizeInFile(), 0);
    EXPECT_EQ(info->getHeaderSize(), 12288);
    EXPECT_EQ(info->getDeadSpaceSize(), 1536);
}

TEST_F(SparseExtentIO, SpaceCountsSlotsAndWhatTheyLeave) {
    createExtent(kCompressed);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed);
    writeAt(*extent, 0, Bytes(4096, 1));        // 1 sector
    writeAt(*extent, 4096, Bytes(4096, 2));     // 1 sector
    writeAt(*extent, 5 * 4096, Bytes(4096, 3)); // 1 sector
    extent->seek(0);
    yx::P<kelm::CVMDKSpaceInfo> info = extent->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSize(), 3 * 4096);
    EXPECT_EQ(info->getPayloadSizeInFile(), 3 * 512);
    EXPECT_EQ(info->getDeadSpaceSize(), 1536);
    // One that outgrows its slot leaves it behind and takes the largest that there is.
    writeAt(*extent, 0, pattern(4096, 9));
    info = extent->gatherSpaceInfo();
    auto const report = test_support::checkExtent(memory->getFile(uri), kStartGrainIndex);
    EXPECT_EQ(report.text(), "");
    EXPECT_EQ(info->getPayloadSize(), 3 * 4096);
    EXPECT_EQ(info->getPayloadSizeInFile(),
              static_cast<__int64>(2 + report.grains.at(0).sizeSectors) * 512);
    EXPECT_EQ(info->getDeadSpaceSize(), 1536 + 512);
    EXPECT_EQ(extent->getPosition(), 4096);

    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const plain = openExtent(kPlain);
    writeAt(*plain, 4096, Bytes(1, 1));
    info = plain->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSize(), 4096);
    EXPECT_EQ(info->getPayloadSizeInFile(), 4096);
    EXPECT_EQ(info->getDeadSpaceSize(), 0);
}

TEST_F(SparseExtentIO, CutFileHasNoDeadSpaceAndWarns) {
    createExtent(kPlain);
    {
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain);
        writeAt(*extent, 0, pattern(8192, 1));
    }
    setContent(slice(content(), 0, 12288));
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {IIOStream::ReadOnly});
    test_support::LogCapture log;
    yx::P<kelm::CVMDKSpaceInfo> const info = extent->gatherSpaceInfo();
    EXPECT_EQ(info->getDeadSpaceSize(), 0);
    EXPECT_EQ(info->getPayloadSizeInFile(), 8192);
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].level, yx::LogLevel::Warning);
    EXPECT_EQ(log.entries()[0].message,
              "Calculated negative dead space value for VMDK extent file 'mem:/d/extent.vmdk' "
              "(deadSpace: -4096, headerSize: 8192, payloadSize: 8192, payloadSizeInFile: 8192)");
}

TEST_F(SparseExtentIO, OneCacheServesExtentsSideBySide) {
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(1);
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> const first = openExtent(kPlain, {.cache = cache.get()});
    writeAt(*first, 0, pattern(4096, 1));
    first->flushChanges();
    yx::P<CVMDKSparseExtentFile> const second =
        openExtent(kPlain, {IIOStream::ReadOnly, nullptr, cache.get()});
    EXPECT_EQ(readAt(*second, 0, 4096), pattern(4096, 1));
    EXPECT_EQ(readAt(*first, 0, 4096), pattern(4096, 1));
    EXPECT_EQ(cache->getCachedTableCount(), 1);
}

} // namespace

} // namespace extent_test
