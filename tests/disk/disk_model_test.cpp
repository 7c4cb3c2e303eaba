// Disks of every kind, and chains of three of a kind, against arrays of bytes. KELM_MODEL_ROUNDS
// multiplies the number of histories.

#include <map>
#include <random>

#include "tests/support/child_process.h"
#include "tests/support/disk_fixture.h"
#include "tests/support/extent_checker.h"
#include "tests/support/model_rounds.h"
#include "tests/support/temp_directory.h"

namespace test_support {
namespace {

constexpr int kGrains = static_cast<int>(kSmallestDiskBytes / kGrainBytes);

/// What a disk should read as, told by the rules of writing alone.
///
/// A grain that has no place in the disk's own files and is all zero when it is left gets none: it
/// then shows what lies below. That is what `leave` plays.
class Model {
public:
    explicit Model(Model const* below) : m_below(below), m_hasPlace(kGrains, false) {
        m_content.resize(static_cast<std::size_t>(kSmallestDiskBytes), 0);
        for (int grain = 0; grain < kGrains; ++grain)
            showBelow(grain);
    }

    Bytes const& content() const { return m_content; }

    void write(__int64 position, Bytes const& bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            auto const at = static_cast<std::size_t>(position) + done;
            int const grain = static_cast<int>(at / kGrainBytes);
            moveTo(grain);
            std::size_t const step =
                std::min(bytes.size() - done, static_cast<std::size_t>(kGrainBytes) -
                                                  at % static_cast<std::size_t>(kGrainBytes));
            std::copy_n(bytes.begin() + static_cast<long>(done), step,
                        m_content.begin() + static_cast<long>(at));
            m_dirty = true;
            done += step;
        }
    }

    void read(__int64 position, __int64 count) {
        for (int grain = static_cast<int>(position / kGrainBytes);
             grain <= static_cast<int>((position + count - 1) / kGrainBytes); ++grain)
            moveTo(grain);
    }

    void writePrepared(int grain, Bytes const& bytes) {
        moveTo(grain);
        std::copy(bytes.begin(), bytes.end(), grainBegin(grain));
        m_dirty = false;
        m_showsBelowOnceLeft = false;
        place(grain);
    }

    /// A grain that is left or flushed goes to the file.
    void leave() {
        if (!m_dirty)
            return;
        m_dirty = false;
        bool const isZero = std::all_of(grainBegin(m_current), grainBegin(m_current) + kGrainBytes,
                                        [](unsigned char byte) { return byte == 0; });
        m_showsBelowOnceLeft = isZero && !m_hasPlace[static_cast<std::size_t>(m_current)];
        if (!m_showsBelowOnceLeft)
            place(m_current);
    }

    /// The extent is left or reopened: nothing of a grain stays in memory.
    void close() {
        leave();
        moveTo(-1);
    }

private:
    Bytes::iterator grainBegin(int grain) {
        return m_content.begin() + static_cast<long>(grain) * static_cast<long>(kGrainBytes);
    }

    void place(int grain) { m_hasPlace[static_cast<std::size_t>(grain)] = true; }

    void showBelow(int grain) {
        if (m_below)
            std::copy_n(m_below->m_content.begin() +
                            static_cast<long>(grain) * static_cast<long>(kGrainBytes),
                        kGrainBytes, grainBegin(grain));
        else
            std::fill_n(grainBegin(grain), kGrainBytes, static_cast<unsigned char>(0));
    }

    void moveTo(int grain) {
        if (grain == m_current)
            return;
        leave();
        if (m_showsBelowOnceLeft)
            showBelow(m_current);
        m_showsBelowOnceLeft = false;
        m_current = grain;
    }

    Model const* m_below;
    Bytes m_content;
    std::vector<bool> m_hasPlace;
    int m_current = -1;
    bool m_dirty = false;
    bool m_showsBelowOnceLeft = false;
};

/// One disk of a chain and its model, driven by a seeded history.
class History {
public:
    History(yx::IFileSystem* files, yx::CURI const& uri, DiskKind const& kind, Model const* below,
            unsigned int seed)
        : m_files(files), m_uri(uri), m_kind(kind), m_model(below), m_random(seed) {}

    Model const& model() const { return m_model; }

    void run(int operations) {
        reopen();
        for (int i = 0; i < operations; ++i)
            step();
        m_disk->flushChanges();
        m_disk.reset();
        m_model.close();
    }

private:
    unsigned int draw(unsigned int below) { return static_cast<unsigned int>(m_random()) % below; }

    void reopen() {
        m_disk.reset();
        m_model.close();
        m_disk = yx::makeObject<kelm::CVMDKDisk>(m_files, m_uri, yx::IIOStream::ReadWrite,
                                                 m_kind.password, 1, nullptr, nullptr);
        m_preparer = m_disk->createDataPreparer();
    }

    Bytes drawContent(std::size_t size) {
        switch (draw(3)) {
        case 0:
            return zeros(size);
        case 1:
            return textPattern(size, draw(1000));
        default:
            return pattern(size, draw(1000));
        }
    }

    void step() {
        unsigned int const choice = draw(100);
        if (choice < 45)
            write();
        else if (choice < 75)
            read();
        else if (choice < 90)
            writePrepared();
        else if (choice < 97)
            flush();
        else
            reopen();
    }

    void drawRange(__int64& position, std::size_t& size) {
        size = draw(4) == 0 ? static_cast<std::size_t>(kGrainBytes) : draw(150000) + 1;
        position = draw(static_cast<unsigned int>(kSmallestDiskBytes));
        if (draw(2) == 0)
            position -= position % kGrainBytes;
        size = std::min(size, static_cast<std::size_t>(kSmallestDiskBytes - position));
    }

    void write() {
        __int64 position = 0;
        std::size_t size = 0;
        drawRange(position, size);
        Bytes const bytes = drawContent(size);
        m_disk->seek(position);
        m_disk->write(bytes.data(), static_cast<int>(size));
        m_model.write(position, bytes);
    }

    void read() {
        __int64 position = 0;
        std::size_t size = 0;
        drawRange(position, size);
        Bytes actual(size);
        m_disk->seek(position);
        m_disk->read(actual.data(), static_cast<int>(size));
        // The model moves first: what it leaves may show what lies below.
        m_model.read(position, static_cast<__int64>(size));
        ASSERT_TRUE(
            sameBytes(slice(m_model.content(), static_cast<std::size_t>(position), size), actual));
    }

    void writePrepared() {
        int const grain = static_cast<int>(draw(kGrains));
        Bytes const bytes = drawContent(static_cast<std::size_t>(kGrainBytes));
        Buffer plain = toBuffer(bytes);
        Buffer aux;
        m_disk->seek(grain * kGrainBytes);
        m_disk->writePreparedGrainData(*m_preparer->prepareGrainData(&plain, grain, &aux));
        m_model.writePrepared(grain, bytes);
    }

    void flush() {
        m_disk->flushChanges();
        m_model.leave();
    }

    yx::IFileSystem* m_files;
    yx::CURI m_uri;
    DiskKind m_kind;
    Model m_model;
    std::mt19937 m_random;
    yx::P<kelm::CVMDKDisk> m_disk;
    yx::P<kelm::CVMDKDataPreparer> m_preparer;
};

void createDisk(yx::IFileSystem* files, yx::CURI const& uri, DiskKind const& kind,
                yx::CURI const& parent) {
    yx::String parentName;
    unsigned int parentID = kNoParentID;
    if (!parent.isEmpty()) {
        parentName = parent.getName();
        parentID = kelm::CVMDKDisk(files, parent, yx::IIOStream::ReadOnly, kind.password, 1,
                                   nullptr, nullptr)
                       .getDescriptor()
                       ->getContentID();
    }
    kelm::CVMDKDisk::create(files, uri, kSmallestDiskBytes, kind.password, kind.compressed, 1,
                            kind.fileSizeLimit, parentName, parentID, kind.onDemand);
}

/// Whether every extent file of a disk is sound.
testing::AssertionResult extentsAreSound(yx::IFileSystem& files, yx::CURI const& uri,
                                         DiskKind const& kind) {
    kelm::CVMDKDisk disk(&files, uri, yx::IIOStream::ReadOnly, kind.password, 1, nullptr, nullptr);
    yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
    disk.getDescriptor()->getExtentEntries(infos);
    __int64 startSector = 0;
    for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
        yx::CURI const extent = uri.getParent() << info->getFilename();
        if (files.fileExists(extent)) {
            ExtentReport const report = checkExtent(toBuffer(readFile(files, extent)),
                                                    static_cast<std::uint64_t>(startSector) / 128);
            if (!report.findings.empty())
                return testing::AssertionFailure() << extent << ":\n" << report.text();
        }
        startSector += info->getSizeSectors();
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult readsAs(yx::IFileSystem& files, yx::CURI const& uri, DiskKind const& kind,
                                 Bytes const& expected) {
    kelm::CVMDKDisk disk(&files, uri, yx::IIOStream::ReadOnly, kind.password, 1, nullptr, nullptr);
    Bytes actual(expected.size());
    disk.read(actual.data(), static_cast<int>(actual.size()));
    return sameBytes(expected, actual);
}

class DiskModel : public testing::TestWithParam<DiskKind> {};

void runHistoryInMemory(DiskKind const& kind, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const uri("mem:///d/disk.vmdk");
    createDisk(files.get(), uri, kind, yx::CURI());
    History history(files.get(), uri, kind, nullptr, seed);
    ASSERT_NO_FATAL_FAILURE(history.run(400));
    EXPECT_TRUE(readsAs(*files, uri, kind, history.model().content()));
    EXPECT_TRUE(extentsAreSound(*files, uri, kind));
}

void runChainInMemory(DiskKind const& kind, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    std::vector<std::unique_ptr<History>> chain;
    yx::CURI parent;
    for (unsigned int level = 0; level < 3; ++level) {
        yx::CURI const uri(
            yx::String::fromUTF8("mem:///d/level" + std::to_string(level) + ".vmdk"));
        createDisk(files.get(), uri, kind, parent);
        chain.push_back(std::make_unique<History>(files.get(), uri, kind,
                                                  chain.empty() ? nullptr : &chain.back()->model(),
                                                  seed + level));
        ASSERT_NO_FATAL_FAILURE(chain.back()->run(120));
        EXPECT_TRUE(readsAs(*files, uri, kind, chain.back()->model().content())) << uri;
        EXPECT_TRUE(extentsAreSound(*files, uri, kind));
        parent = uri;
    }
}

TEST_P(DiskModel, HistoriesReadBackInMemory) {
    for (unsigned int round = 0; round < modelRounds() && !HasFailure(); ++round)
        runHistoryInMemory(GetParam(), 20240601 + round);
}

TEST_P(DiskModel, ChainsOfThreeReadBack) {
    // Each disk of a chain has a seed of its own.
    for (unsigned int round = 0; round < modelRounds() && !HasFailure(); ++round)
        runChainInMemory(GetParam(), 4711 + 3 * round);
}

TEST_P(DiskModel, HistoriesOnTheNativeFileSystemReadBackInAnotherProcess) {
    DiskKind const kind = GetParam();
    TempDirectory const directory;
    yx::CNativeFileSystem files(yx::NativeFlush::ToSystem);
    yx::CURI const uri = directory.uri("disk.vmdk");
    createDisk(&files, uri, kind, yx::CURI());
    History history(&files, uri, kind, nullptr, 99);
    ASSERT_NO_FATAL_FAILURE(history.run(100));
    ChildProcess child([&](Line const&) {
        return readsAs(files, uri, kind, history.model().content()) &&
                       extentsAreSound(files, uri, kind)
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, child.wait());
}

INSTANTIATE_TEST_SUITE_P(EveryKind, DiskModel, testing::ValuesIn(allDiskKinds()),
                         [](testing::TestParamInfo<DiskKind> const& parameter) {
                             return std::string(parameter.param.name);
                         });

TEST(DiskChain, ChildMayBeLargerThanItsParent) {
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const parentURI("mem:///d/parent.vmdk");
    yx::CURI const childURI("mem:///d/child.vmdk");
    Bytes const content = pattern(1000, 1);
    unsigned int id = 0;
    {
        yx::P<kelm::CVMDKDisk> const parent = kelm::CVMDKDisk::create(
            files.get(), parentURI, kSmallestDiskBytes, "", true, 1, -1, "", kNoParentID, false);
        parent->seek(kSmallestDiskBytes - 1000);
        parent->write(content.data(), 1000);
        id = parent->getDescriptor()->getContentID();
    }
    yx::P<kelm::CVMDKDisk> const child =
        kelm::CVMDKDisk::create(files.get(), childURI, kSmallestDiskBytes + kGrainBytes, "", true,
                                1, -1, "parent.vmdk", id, false);
    Bytes actual(3000);
    child->seek(kSmallestDiskBytes - 1000);
    child->read(actual.data(), 3000);
    EXPECT_TRUE(sameBytes(concat({content, zeros(2000)}), actual));
    Buffer prepared;
    child->seek(kSmallestDiskBytes);
    child->readPreparedGrainData(prepared);
    // The record behind the parent's end is that of the child's grain 128, sector 16384.
    EXPECT_TRUE(sameBytes(fromHex("0040000000000000"), slice(toBytes(prepared), 0, 8)));
}

} // namespace
} // namespace test_support
