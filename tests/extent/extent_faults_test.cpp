#include <set>

#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using kelm::IVMDKExtentFile;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::FileOperation;

/// The ways in which an extent reaches its file.
enum class Access {
    Bare,     ///< each operation of the extent is one of the file
    Buffered, ///< through the buffering layer
    OnDemand, ///< the file is made by the first write
};

constexpr Access kAccesses[] = {Access::Bare, Access::Buffered, Access::OnDemand};
constexpr char const* kAccessNames[] = {"bare", "buffered", "on demand"};

test_support::FileOperationKinds const kFailingKinds{
    FileOperation::Kind::Open, FileOperation::Kind::GetLength, FileOperation::Kind::Seek,
    FileOperation::Kind::Read, FileOperation::Kind::Write,     FileOperation::Kind::Flush};

/// A small history of an extent, in which each single operation on the file fails once.
class ExtentFaults : public ExtentTest {
protected:
    struct Step {
        char const* name;
        std::function<void(IVMDKExtentFile&)> run;
    };

    std::vector<Step> history(Kind const& kind) {
        Bytes const independent = FakeDataProvider::bytesAt(17 * 4096, 4096);
        provider->setPreparedGrain(preparedForm(kind, independent, 7));
        return {
            {"write over three grains",
             [](auto& extent) { writeAt(extent, 100, test_support::textPattern(9000, 1)); }},
            {"flush", [](auto& extent) { extent.flushChanges(); }},
            {"prepared write",
             [=](auto& extent) {
                 extent.seek(5 * 4096);
                 extent.writePreparedGrainData(
                     toBuffer(preparedForm(kind, test_support::textPattern(4096, 2), 5)));
             }},
            {"read",
             [](auto& extent) {
                 EXPECT_TRUE(
                     sameBytes(test_support::textPattern(9000, 1), readAt(extent, 100, 9000)));
             }},
            {"write that outgrows its slot",
             [](auto& extent) { writeAt(extent, 0, pattern(4096, 3)); }},
            {"making independent", [](auto& extent) { extent.makeGrainIndependentOfParent(7); }},
            {"prepared read",
             [=](auto& extent) {
                 extent.seek(0);
                 Buffer data;
                 extent.readPreparedGrainData(data);
                 Bytes const plain = kind.compressed
                                         ? test_support::takeApart(toBytes(data), 4096).plain
                                         : toBytes(data);
                 EXPECT_TRUE(sameBytes(pattern(4096, 3), plain));
             }},
            {"zeros over the provider",
             [](auto& extent) {
                 writeAt(extent, 9 * 4096, zeros(4096));
                 extent.seek(0);
             }},
            {"space report", [](auto& extent) { extent.gatherSpaceInfo(); }},
            {"small write", [](auto& extent) { writeAt(extent, 2 * 4096 + 1, pattern(10, 4)); }},
            {"question",
             [](auto& extent) {
                 extent.seek(5 * 4096);
                 EXPECT_TRUE(extent.isGrainWrittenAndIndependentOfParent());
             }},
            {"last flush", [](auto& extent) { extent.flushChanges(); }},
        };
    }

    /// What the extent holds in the end.
    static Bytes makeExpectedContent() {
        Bytes bytes = FakeDataProvider::bytesAt(10 * 4096, static_cast<int>(kCapacityBytes));
        auto const lay = [&bytes](std::ptrdiff_t position, Bytes const& part) {
            std::copy(part.begin(), part.end(), bytes.begin() + position);
        };
        lay(100, test_support::textPattern(9000, 1));
        lay(5 * 4096, test_support::textPattern(4096, 2));
        lay(0, pattern(4096, 3));
        lay(2 * 4096 + 1, pattern(10, 4));
        return bytes;
    }

    yx::P<IVMDKExtentFile> open(Kind const& kind, Access access, FaultyFileSystem& faulty) {
        auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        auto const key = cryptBuffer(kind.enciphered ? keyBytes() : Bytes());
        auto const ivBuffer = toBuffer(kind.enciphered ? iv : Bytes());
        krym::ICipher* const used = kind.enciphered ? cipher.get() : nullptr;
        if (access == Access::OnDemand) {
            return yx::makeObject<kelm::CVMDKOnDemandExtentFile>(
                &faulty, uri, IIOStream::ReadWrite, kStartGrainIndex, kGrainSizeSectors,
                kGrainCount * kGrainSizeSectors, 512, kind.compressed, 6, provider.get(),
                cache.get(), updater.get(), used, key, ivBuffer,
                toBuffer(kind.enciphered ? keyHash() : Bytes()));
        }
        unsigned int reserved = 0;
        yx::P<IIOStream> const stream =
            access == Access::Bare ? faulty.openFile(uri, IIOStream::ReadWrite, &reserved)
                                   : kelm::openVMDKFileStream(&faulty, uri, IIOStream::ReadWrite);
        return yx::makeObject<kelm::CVMDKSparseExtentFile>(
            stream.get(), IIOStream::ReadWrite, kStartGrainIndex, 6, cache.get(), provider.get(),
            updater.get(), used, key, ivBuffer);
    }

    /// Whether `action` fails; only a failure of the file, or a file that seems to end, will do.
    static bool fails(std::function<void()> const& action) {
        static std::set<std::string> const kMessages{
            "Injected failure.", "Unexpected end of the stream.",
            "Slot size directory not found in compressed VMDK."};
        try {
            action();
        } catch (yx::CError const& error) {
            EXPECT_TRUE(kMessages.contains(error.getMessage().toStdString())) << error.what();
            return true;
        }
        return false;
    }

    /// Runs the history with one failure; returns whether the failure came to pass.
    bool runWithFault(Kind const& kind, Access access, Fault const& fault) {
        memory->deleteFile(uri, true);
        if (access != Access::OnDemand)
            createExtent(kind);
        auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
        faulty->add(fault);
        test_support::LogCapture log;
        test_support::IgnoredExceptionCapture ignored;
        int failures = 0;
        yx::P<IVMDKExtentFile> extent;
        while (fails([&] { extent = open(kind, access, *faulty); }))
            ++failures;
        for (Step const& step : history(kind)) {
            SCOPED_TRACE(step.name);
            while (failures < 3 && fails([&] { step.run(*extent); })) {
                ++failures;
                // The start of a step is a place that was sought, or a grain's start.
                __int64 const position = extent->getPosition();
                EXPECT_TRUE(position % 4096 == 0 || position == 100 || position == 9100 ||
                            position == 2 * 4096 + 1 || position == 2 * 4096 + 11)
                    << position;
            }
        }
        // What failed once is done by the repeat.
        EXPECT_LE(failures, 1);
        bool const hit = faulty->hits() > 0;
        faulty->clear();
        EXPECT_TRUE(sameBytes(expectedContent, readAt(*extent, 0, kCapacityBytes)));
        extent.reset();
        EXPECT_EQ(findings(), "");
        EXPECT_TRUE(
            sameBytes(expectedContent,
                      readAt(*openExtent(kind, {.provider = provider.get()}), 0, kCapacityBytes)));
        return hit;
    }

    Bytes const expectedContent = makeExpectedContent();
};

TEST_F(ExtentFaults, EachOperationThatFailsOnceIsReportedAndItsRepeatSucceeds) {
    using Operation = FileOperation::Kind;
    struct {
        Fault::Effect effect;
        test_support::FileOperationKinds kinds;
        int least; ///< how many such operations the shortest history has at least
    } const cases[] = {
        {Fault::Effect::Refuse, kFailingKinds, 30},
        {Fault::Effect::Tear, {Operation::Write}, 5},
        {Fault::Effect::Lie, {Operation::Write, Operation::Flush}, 8},
        {Fault::Effect::EndEarly, {Operation::Read}, 3},
    };
    for (Kind const& kind : kAllKinds) {
        for (Access const access : kAccesses) {
            for (auto const& [effect, kinds, least] : cases) {
                int nth = 0;
                bool hit = true;
                while (hit && !HasFailure()) {
                    ++nth;
                    SCOPED_TRACE(kind.name + std::string(", ") +
                                 kAccessNames[static_cast<int>(access)] + ", effect " +
                                 std::to_string(static_cast<int>(effect)) + ", operation " +
                                 std::to_string(nth));
                    hit =
                        runWithFault(kind, access, {.kinds = kinds, .nth = nth, .effect = effect});
                }
                EXPECT_GT(nth, least);
            }
        }
    }
}

TEST_F(ExtentFaults, FullDeviceLosesNothingThatWasFlushed) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createExtent(kind);
        Bytes const first = test_support::textPattern(3 * 4096, 1);
        {
            auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
            yx::P<IVMDKExtentFile> extent = open(kind, Access::Buffered, *faulty);
            writeAt(*extent, 0, first);
            extent->flushChanges();
            faulty->add({.kinds = {FileOperation::Kind::Write},
                         .sticky = true,
                         .code = yx::CIOError::NoSpace});
            // Other grains, so that nothing flushed is to be overwritten.
            writeAt(*extent, 8 * 4096, pattern(4096, 2));
            for (int attempt = 0; attempt < 2; ++attempt) {
                EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.",
                                          {{"uri", kExtentURI}}, [&] { extent->flushChanges(); }));
            }
            EXPECT_EQ(readAt(*extent, 8 * 4096, 4096), pattern(4096, 2));
            test_support::IgnoredExceptionCapture ignored;
            extent.reset();
            EXPECT_FALSE(ignored.entries().empty());
        }
        test_support::LogCapture log;
        EXPECT_EQ(readAt(*openExtent(kind, {IIOStream::ReadOnly}), 0, 3 * 4096), first);
    }
}

} // namespace

} // namespace extent_test
