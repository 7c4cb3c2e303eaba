// Fails every single operation of every phase of a disk's life, once or from then on, and looks
// whether the error arrives, the object stays usable, and everything that was flushed is there.

#include <algorithm>
#include <iostream>

#include "tests/crash/fault_phases.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/power_cut.h"

namespace test_support {
namespace single_fault_test {

namespace {

using Kind = FileOperation::Kind;

FileOperationKinds const kAllOperations{Kind::Open,  Kind::Exists,  Kind::Delete, Kind::GetLength,
                                        Kind::Seek,  Kind::Read,    Kind::Write,  Kind::SetLength,
                                        Kind::Flush, Kind::Barrier, Kind::Lock,   Kind::Close};

struct FaultKind {
    char const* name;
    FileOperationKinds kinds;
    yx::CIOError::Code code;
    Fault::Effect effect;
};

std::vector<FaultKind> const& faultKinds() {
    static std::vector<FaultKind> const kKinds{
        {"I/O error", kAllOperations, yx::CIOError::IOFailure, Fault::Effect::Refuse},
        {"no space",
         {Kind::Open, Kind::Write, Kind::SetLength, Kind::Flush},
         yx::CIOError::NoSpace,
         Fault::Effect::Refuse},
        {"half a write", {Kind::Write}, yx::CIOError::IOFailure, Fault::Effect::Tear},
        {"short read", {Kind::Read}, yx::CIOError::UnexpectedEnd, Fault::Effect::EndEarly},
    };
    return kKinds;
}

/// What happens after the fault.
enum class Sequel {
    RepeatAtOnce,     ///< one operation failed; the work is done again
    RepeatOnceMended, ///< all failed from then on until the device was mended
    AbandonAndReopen, ///< all failed until the disk was given up
};

constexpr Sequel kSequels[] = {Sequel::RepeatAtOnce, Sequel::RepeatOnceMended,
                               Sequel::AbandonAndReopen};

/// Of so many operations, one is failed.
constexpr int kEveryNthOperation = kIsSanitized ? 13 : 1;
constexpr int kFewestFaults = 5000 / kEveryNthOperation;

int& faultCount() {
    static int count = 0;
    return count;
}

std::vector<WayAndKind> waysAndKinds() {
    std::vector<WayAndKind> chosen;
    for (CrashKind const& kind : allCrashKinds()) {
        // Enciphering changes no operation, and stretching the password takes time. Of the
        // children, those with the most files add nothing new either.
        std::string const name = kind.name();
        bool const isSlow = kind.isChild && kind.disk.compressed && kind.disk.fileSizeLimit > 0;
        if (!isSlow && (!kind.isEncrypted() || name == "encrypted"))
            chosen.push_back({Way::Safe, kind});
    }
    for (char const* const name : {"plain", "compressedSplit", "encryptedSplitOnDemand"})
        chosen.push_back({Way::Bare, {kindNamed(name)}});
    return chosen;
}

class SingleFaults : public testing::TestWithParam<WayAndKind> {
protected:
    SingleFaults() {
        yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
        makeParent(kind(), files.get());
        m_parentOnly = imagesOf(*files);
        putImages(*files, {});
        makeDisk(kind(), files.get());
        {
            CrashDisk disk(Way::Safe, kind(), files.get(), kReadWrite);
            for (auto const& [grain, content] : flushedGrains())
                disk.write(grain * kGrainBytes, content);
            disk.flush();
        }
        m_images = imagesOf(*files);
    }

    Way way() const { return GetParam().way; }
    CrashKind const& kind() const { return GetParam().kind; }

    bool isSkipped(Phase const& phase) const {
        if (phase.onlyChildren && !kind().isChild)
            return true;
        // Making an enciphered disk stretches its password at full length.
        return phase.createsDisk && (way() == Way::Bare || kind().isEncrypted());
    }

    /// Children are the same but for what lies below them.
    bool isSkipped(FaultKind const& fault, Sequel sequel) const {
        return sequel != Sequel::RepeatAtOnce &&
               (kind().isChild || fault.kinds.size() < kAllOperations.size());
    }

    /// Fails the `nth` operation; false if there were fewer.
    bool runOne(Phase const& phase, FaultKind const& fault, Sequel sequel, int nth) {
        IgnoredExceptionCapture const ignored;
        LogCapture const log;
        Scene scene(way(), kind(), phase.createsDisk ? m_parentOnly : m_images);
        phase.prepare(scene);
        std::size_t const firstEntry = scene.files->entries().size();
        scene.faulty->add({.kinds = fault.kinds,
                           .nth = nth,
                           .sticky = sequel != Sequel::RepeatAtOnce,
                           .code = fault.code,
                           .effect = fault.effect});
        bool const hasThrown = actAndCatch(phase, fault, scene);
        if (scene.faulty->hits() == 0)
            return false;
        ++faultCount();
        SCOPED_TRACE(toText(firstFailed(scene, firstEntry)));
        if (!hasThrown) {
            EXPECT_TRUE(mayBeSwallowed(phase, fault, scene, firstEntry))
                << "nobody heard of the fault";
        }
        if (phase.createsDisk && hasThrown && sequel == Sequel::RepeatAtOnce) {
            // A lock file that stays blocks no one.
            FileImages left = imagesOf(*scene.memory);
            std::erase_if(left, [](auto const& file) { return file.first.ends_with(".lock"); });
            EXPECT_TRUE(left == m_parentOnly) << "something half made is left";
        }
        if (sequel == Sequel::AbandonAndReopen) {
            scene.disk.reset();
            scene.faulty->clear();
            verify(scene, phase, false);
        } else {
            scene.faulty->clear();
            if (way() == Way::Safe && hasFailedSync(scene, firstEntry))
                startAnewAfterFailedSync(phase, scene);
            repeat(phase, scene, hasThrown);
            verify(scene, phase, true);
        }
        return true;
    }

private:
    /// Whether the work threw; a wrong error is a failure of the test.
    static bool actAndCatch(Phase const& phase, FaultKind const& fault, Scene& scene) {
        try {
            phase.act(scene);
            return false;
        } catch (yx::CLockFileError const& error) {
            EXPECT_TRUE(error.getCause()) << error.what();
        } catch (yx::CIOError const& error) {
            bool const isShortRead = fault.effect == Fault::Effect::EndEarly;
            if (!isShortRead) {
                EXPECT_EQ(fault.code, error.getIOCode()) << error.what();
                EXPECT_STREQ("Injected failure.", error.what());
            }
        } catch (yx::CError const& error) {
            // A file that seems to end early may be noticed by what is missing in it.
            EXPECT_EQ(Fault::Effect::EndEarly, fault.effect) << error.what();
        }
        return true;
    }

    /// The operation that the fault hit; of a short read that nobody minded, the last one.
    static FileOperation firstFailed(Scene const& scene, std::size_t firstEntry) {
        std::vector<RecordingFileSystem::Entry> const& entries = scene.files->entries();
        auto const failed =
            std::find_if(entries.begin() + static_cast<long>(firstEntry), entries.end(),
                         [](auto const& entry) { return entry.failed; });
        return failed != entries.end() ? failed->operation : entries.back().operation;
    }

    /// Errors that no caller can get, or that do not matter.
    static bool mayBeSwallowed(Phase const& phase, FaultKind const& fault, Scene const& scene,
                               std::size_t firstEntry) {
        if (std::string(phase.name) == "close" || fault.effect == Fault::Effect::EndEarly)
            return true;
        std::vector<RecordingFileSystem::Entry> const& entries = scene.files->entries();
        for (std::size_t i = firstEntry; i < entries.size(); ++i) {
            FileOperation const& operation = entries[i].operation;
            bool const isMinor =
                operation.kind == Kind::Close || operation.uri.getExtension() == ".lock" ||
                (operation.kind == Kind::Flush && !hasSomethingToFlush(entries, i)) ||
                wasRepeated(entries, i);
            if (entries[i].failed && !isMinor)
                return false;
        }
        return true;
    }

    /// Whether a read, or the seek before it, was done once more by itself, and well: what cannot be
    /// read in one go is read sector by sector.
    static bool wasRepeated(std::vector<RecordingFileSystem::Entry> const& entries,
                            std::size_t failed) {
        FileOperation const& first = entries[failed].operation;
        if (first.kind != Kind::Seek && first.kind != Kind::Read)
            return false;
        return std::any_of(entries.begin() + static_cast<std::ptrdiff_t>(failed) + 1, entries.end(),
                           [&](RecordingFileSystem::Entry const& entry) {
                               FileOperation const& again = entry.operation;
                               return !entry.failed && again.kind == first.kind &&
                                      again.opening == first.opening &&
                                      again.position == first.position;
                           });
    }

    /// Whether anything was written through the stream of a flush since its last good one.
    static bool hasSomethingToFlush(std::vector<RecordingFileSystem::Entry> const& entries,
                                    std::size_t flush) {
        for (std::size_t i = flush; i-- > 0;) {
            FileOperation const& operation = entries[i].operation;
            if (operation.opening != entries[flush].operation.opening)
                continue;
            if (operation.kind == Kind::Write || operation.kind == Kind::SetLength)
                return true;
            if (operation.kind == Kind::Flush && !entries[i].failed)
                return false;
        }
        return false;
    }

    /// Whether a file of the disk could not be synced, though there was something to sync.
    static bool hasFailedSync(Scene const& scene, std::size_t firstEntry) {
        std::vector<RecordingFileSystem::Entry> const& entries = scene.files->entries();
        for (std::size_t i = firstEntry; i < entries.size(); ++i) {
            if (entries[i].failed && entries[i].operation.kind == Kind::Flush)
                return true;
        }
        return false;
    }

    /// An open disk of which a file could not be synced never says that all is on the device. What
    /// is to be stored is written again after it has been opened anew.
    static void startAnewAfterFailedSync(Phase const& phase, Scene& scene) {
        if (!scene.disk)
            return;
        EXPECT_THROW(scene.disk->flush(), yx::CIOError);
        scene.disk.reset();
        phase.prepare(scene);
    }

    /// Does the work again, which must succeed.
    void repeat(Phase const& phase, Scene& scene, bool hasThrown) {
        try {
            if (!phase.createsDisk) {
                if (phase.opensDisk)
                    scene.disk.reset();
                phase.act(scene);
            } else if (hasThrown) {
                // A device that fails for good also keeps what was made from being taken away.
                scene.create(true);
            }
            if (scene.disk)
                scene.disk->flush();
        } catch (yx::CError const& error) {
            ADD_FAILURE() << "the repeat failed: " << error.what();
        }
        scene.disk.reset();
    }

    void verify(Scene& scene, Phase const& phase, bool isDone) {
        if (!isDone && phase.createsDisk)
            scene.create(true);
        CrashDisk disk(way(), kind(), scene.memory.get(), kReadWrite);
        for (int const grain : {0, 1, 2, 3, 4, 5, 40, 41, 100, 127}) {
            Bytes const& before = contentIn(phase.before, grain);
            Bytes const& after = contentIn(phase.after, grain);
            Bytes content(kGrainBytes);
            try {
                disk.read(grain * kGrainBytes, content.data(), kGrainBytes);
                if (isDone || before == after) {
                    EXPECT_TRUE(sameBytes(after, content)) << "grain " << grain;
                } else {
                    EXPECT_TRUE(mayBeLeft(before, after, content)) << "grain " << grain;
                }
            } catch (yx::CError const& error) {
                EXPECT_TRUE(!isDone && before != after && kind().disk.compressed)
                    << "grain " << grain << ": " << error.what();
            }
        }
    }

    Bytes const& contentIn(Grains const& grains, int grain) const {
        auto const found = grains.find(grain);
        if (found != grains.end())
            return found->second;
        return grainBelow(kind(), grain);
    }

    /// Whether a grain that was being rewritten may be so.
    bool mayBeLeft(Bytes const& before, Bytes const& after, Bytes const& content) const {
        if (content == before || content == after)
            return true;
        if (kind().disk.compressed)
            return false;
        if (kind().isEncrypted())
            return true;
        for (std::size_t start = 0; start < content.size(); start += 512) {
            Bytes const sector = slice(content, start, 512);
            if (sector != slice(before, start, 512) && sector != slice(after, start, 512))
                return false;
        }
        return true;
    }

    FileImages m_parentOnly;
    FileImages m_images;
};

TEST_P(SingleFaults, ArriveAndLoseNothing) {
    for (Phase const& phase : phases()) {
        if (isSkipped(phase))
            continue;
        for (FaultKind const& fault : faultKinds()) {
            for (Sequel const sequel : kSequels) {
                if (isSkipped(fault, sequel))
                    continue;
                for (int nth = 1;; nth += kEveryNthOperation) {
                    SCOPED_TRACE(std::string(phase.name) + ", " + fault.name + ", sequel " +
                                 std::to_string(static_cast<int>(sequel)) + ", operation " +
                                 std::to_string(nth));
                    if (!runOne(phase, fault, sequel, nth))
                        break;
                    if (HasFailure())
                        return;
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryKind, SingleFaults, testing::ValuesIn(waysAndKinds()),
                         testing::PrintToStringParamName());

class FaultCount : public testing::Environment {
public:
    void TearDown() override {
        std::cout << "single faults: " << faultCount() << "\n";
        testing::UnitTest const& tests = *testing::UnitTest::GetInstance();
        if (tests.test_to_run_count() == tests.total_test_count() && tests.Passed()) {
            EXPECT_GE(faultCount(), kFewestFaults);
        }
    }
};

testing::Environment* const kFaultCount = testing::AddGlobalTestEnvironment(new FaultCount);

} // namespace

} // namespace single_fault_test
} // namespace test_support
