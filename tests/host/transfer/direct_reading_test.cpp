#include "host/transfer/direct_reading.h"

#include <atomic>
#include <random>
#include <thread>

#include "host/disk/chain_members.h"
#include "host/store/file_systems.h"
#include "host/store/stores.h"
#include "host/transfer/disk_readers.h"
#include "host/transfer/grain_place.h"
#include "tests/host/host_fixture.h"
#include "tests/support/filled_foreign_chain.h"
#include "tests/support/folder_store.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace {

using kelm::host::DirectReading;
using kelm::host::DiskReaders;

constexpr unsigned int kFirstSeed = 20310000;
constexpr unsigned int kUsualChains = 8;
constexpr int kReads = 300;
constexpr int kMapTables = 64;

/// On files of the operating system.
class DirectReadingTest : public testing::Test {
protected:
    /// Makes a disk with these grains, and returns what it reads as.
    Bytes putDisk(DiskKind const& kind, std::string const& name, std::string const& parent,
                  std::vector<int> const& grains, Bytes content = zeros(kSmallestDiskBytes)) {
        NewDisk request = requestFor(kind);
        if (!parent.empty())
            request.parent = folder.uri(parent);
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), true);
        guard->keep();
        std::unique_ptr<SafeDisk> const disk =
            SafeDisk::create(guard.get(), folder.uri(name), request);
        for (int const grain : grains) {
            Bytes const data = textPattern(kGrainBytes, static_cast<unsigned int>(++m_drawn));
            disk->write(grain * kGrainBytes, data.data(), static_cast<int>(data.size()));
            std::copy(data.begin(), data.end(), content.begin() + grain * kGrainBytes);
        }
        disk->flush();
        return content;
    }

    std::unique_ptr<SafeDisk> openDisk(std::string const& name, char const* password = "") {
        return std::make_unique<SafeDisk>(files.get(), folder.uri(name), kReadOnly, password);
    }

    std::unique_ptr<DirectReading> readDirectly(std::string const& name,
                                                char const* password = "") {
        return std::make_unique<DirectReading>(openDisk(name, password), kMapTables);
    }

    /// Readers of one disk, which read it directly where that can be.
    std::unique_ptr<DiskReaders> makeReaders(std::string const& name, char const* password = "") {
        auto readers = std::make_unique<DiskReaders>(
            openDisk(name, password), 2, [=, this] { return openDisk(name, password); });
        readers->useDirectReading(readDirectly(name, password));
        return readers;
    }

    struct Range {
        __int64 positionBytes;
        int bytes;
    };

    /// Small ones, at the ends of grains and of the disk too, and some of several grains.
    static Range drawRange(std::mt19937& random, __int64 diskBytes) {
        auto const below = [&random](__int64 limit) {
            return static_cast<__int64>(random() % static_cast<unsigned long long>(limit));
        };
        __int64 const sizes[] = {1, 511, 512, 4096, 4097, kGrainBytes, 5 * kGrainBytes / 2};
        __int64 const bytes = std::min(diskBytes, 1 + below(sizes[below(std::size(sizes))]));
        __int64 const last = diskBytes - bytes;
        switch (below(4)) {
        case 0:
            return {last, static_cast<int>(bytes)};
        case 1:
            return {std::min(last, below(diskBytes) / kGrainBytes * kGrainBytes),
                    static_cast<int>(bytes)};
        default:
            return {below(last + 1), static_cast<int>(bytes)};
        }
    }

    /// Returns how many of the reads were direct.
    static int checkReads(DirectReading& direct, Bytes const& expected, unsigned int seed) {
        std::mt19937 random(seed);
        int count = 0;
        for (int i = 0; i < kReads; ++i) {
            Range const range = drawRange(random, static_cast<__int64>(expected.size()));
            Bytes actual(static_cast<std::size_t>(range.bytes), 0xEE);
            if (!direct.tryRead(range.positionBytes, actual.data(), range.bytes))
                continue;
            ++count;
            EXPECT_TRUE(sameBytes(
                slice(expected, static_cast<std::size_t>(range.positionBytes), actual.size()),
                actual))
                << "seed " << seed << ": " << range.bytes << " bytes at " << range.positionBytes;
        }
        return count;
    }

    static Bytes tryRead(DirectReading& direct, __int64 positionBytes, int bytes) {
        Bytes content(static_cast<std::size_t>(bytes));
        return direct.tryRead(positionBytes, content.data(), bytes) ? content : Bytes();
    }

    /// The error of a read, with all that it says.
    static std::string errorOf(std::function<void()> const& read) {
        try {
            read();
        } catch (yx::CIOError const& error) {
            std::string text =
                std::to_string(error.getIOCode()) + " " + error.getMessage().toStdString();
            for (auto const& [name, value] : propsOf(error))
                text += " " + name + "=" + value;
            return text;
        }
        return "";
    }

    /// Expects that readers fail as the disk itself, and returns in which words.
    std::string expectSameError(std::string const& name, __int64 positionBytes, int bytes,
                                char const* password = "") {
        Bytes buffer(static_cast<std::size_t>(bytes));
        std::unique_ptr<SafeDisk> const disk = openDisk(name, password);
        std::string const expected =
            errorOf([&] { readWithGrainPlace(*disk, positionBytes, buffer.data(), bytes); });
        std::unique_ptr<DiskReaders> const readers = makeReaders(name, password);
        EXPECT_EQ(expected, errorOf([&] { readers->read(positionBytes, buffer.data(), bytes); }));
        return expected;
    }

    /// Overwrites what the file has there with noise.
    void damage(std::string const& name, __int64 positionBytes, int bytes) {
        std::fstream file(folder.path() / name, std::ios::in | std::ios::out | std::ios::binary);
        Bytes const noise = pattern(static_cast<std::size_t>(bytes), 99);
        file.seekp(positionBytes);
        file.write(reinterpret_cast<char const*>(noise.data()), bytes);
    }

    __int64 placeOf(std::string const& name, int grain, char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openDisk(name, password);
        return kelm::host::ChainMap::tryMake(disk->getFileSystem(), listChainMembers(*disk), 32)
                   ->find(grain)
                   ->posSectors *
               512;
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();

private:
    int m_drawn = 0;
};

TEST_F(DirectReadingTest, ReadsEveryKindOfDiskAndChain) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        Bytes const base = putDisk(kind, "base.vmdk", "", {0, 1, 2, 3, 50, 51, 52, 100, 127});
        Bytes const child = putDisk(kind, "child.vmdk", "base.vmdk", {2, 51, 60, 61, 126}, base);
        Bytes const top = putDisk(kind, "top.vmdk", "child.vmdk", {0, 3, 61, 127}, child);
        EXPECT_EQ(checkReads(*readDirectly("base.vmdk", kind.password), base, 1), kReads);
        EXPECT_EQ(checkReads(*readDirectly("child.vmdk", kind.password), child, 2), kReads);
        EXPECT_EQ(checkReads(*readDirectly("top.vmdk", kind.password), top, 3), kReads);
        for (std::filesystem::path const& file : std::filesystem::directory_iterator(folder.path()))
            std::filesystem::remove(file);
    }
}

TEST_F(DirectReadingTest, ReadsAChainOfSeveralKinds) {
    Bytes const base = putDisk(kindNamed("plain"), "base.vmdk", "", {0, 1, 2, 3, 50, 127});
    Bytes const child = putDisk(kindNamed("compressed"), "1.vmdk", "base.vmdk", {1, 51}, base);
    Bytes const top = putDisk(kindNamed("splitOnDemand"), "2.vmdk", "1.vmdk", {2, 100}, child);
    EXPECT_EQ(checkReads(*readDirectly("2.vmdk"), top, 4), kReads);
}

TEST_F(DirectReadingTest, ReadsADiskThatWasRenamed) {
    for (char const* const kind : {"plain", "compressed"}) {
        SCOPED_TRACE(kind);
        Bytes const content = putDisk(kindNamed(kind), "disk.vmdk", "", {0, 1, 127});
        std::filesystem::rename(folder.path() / "disk.vmdk", folder.path() / "other.vmdk");
        EXPECT_EQ(checkReads(*readDirectly("other.vmdk"), content, 5), kReads);
    }
}

TEST_F(DirectReadingTest, ReadersReadChainsOfOtherSoftware) {
    for (unsigned int i = 0; i < kUsualChains * modelRounds() && !HasFailure(); ++i) {
        unsigned int const seed = kFirstSeed + i;
        TempDirectory const place;
        FilledForeignChain chain(*files, place.uri(), seed);
        SCOPED_TRACE(testing::Message() << "seed " << seed << chain);
        std::size_t const top = chain.getLength() - 1;
        Bytes const& expected = chain.content(top);
        auto const open = [&] {
            return std::make_unique<SafeDisk>(files.get(), place.uri(chain.disk(top).name),
                                              kReadOnly, kForeignPassword);
        };
        DiskReaders readers(open(), 2, open);
        readers.useDirectReading(std::make_unique<DirectReading>(open(), kMapTables));
        std::unique_ptr<SafeDisk> const plain = open();
        for (int read = 0; read < kReads; ++read) {
            Range const range = drawRange(chain.random(), static_cast<__int64>(expected.size()));
            Bytes actual(static_cast<std::size_t>(range.bytes), 0xEE);
            readers.read(range.positionBytes, actual.data(), range.bytes);
            ASSERT_TRUE(sameBytes(
                slice(expected, static_cast<std::size_t>(range.positionBytes), actual.size()),
                actual))
                << range.bytes << " bytes at " << range.positionBytes;
        }
        for (__int64 grain = 0; grain < plain->getGrainCount(); ++grain)
            EXPECT_EQ(plain->isGrainWritten(grain), readers.isGrainWritten(grain)) << grain;
    }
}

TEST_F(DirectReadingTest, ServesManyThreads) {
    for (char const* const kind : {"plain", "compressedSplit", "encryptedCompressed"}) {
        SCOPED_TRACE(kind);
        std::string const name = std::string(kind) + ".vmdk";
        Bytes const content = putDisk(kindNamed(kind), name, "", {0, 1, 2, 40, 64, 65, 66, 127});
        std::unique_ptr<DirectReading> const direct = readDirectly(name, kindNamed(kind).password);
        std::atomic<int> count = 0;
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] { count += checkReads(*direct, content, 10 + i); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(count, 4 * kReads);
    }
}

TEST_F(DirectReadingTest, DecodesAGrainOnceForThoseWhoReadItPieceByPiece) {
    Bytes const content = putDisk(kindNamed("compressed"), "disk.vmdk", "", {0, 5});
    std::unique_ptr<DirectReading> const direct = readDirectly("disk.vmdk");
    constexpr int kPiece = 4096;
    EXPECT_EQ(tryRead(*direct, 5 * kGrainBytes, kPiece), slice(content, 5 * kGrainBytes, kPiece));
    damage("disk.vmdk", placeOf("disk.vmdk", 5), 600);
    for (int at = kPiece; at < kGrainBytes; at += kPiece) {
        EXPECT_EQ(tryRead(*direct, 5 * kGrainBytes + at, kPiece),
                  slice(content, static_cast<std::size_t>(5 * kGrainBytes + at), kPiece));
    }
}

TEST_F(DirectReadingTest, ReadsNothingOutsideOfTheDisk) {
    putDisk(kindNamed("plain"), "disk.vmdk", "", {127});
    std::unique_ptr<DirectReading> const direct = readDirectly("disk.vmdk");
    unsigned char buffer[2] = {};
    EXPECT_TRUE(direct->tryRead(kSmallestDiskBytes - 1, buffer, 1));
    EXPECT_TRUE(direct->tryRead(kSmallestDiskBytes, buffer, 0));
    EXPECT_FALSE(direct->tryRead(kSmallestDiskBytes - 1, buffer, 2));
    EXPECT_FALSE(direct->tryRead(-1, buffer, 1));
    EXPECT_FALSE(direct->tryRead(0, buffer, -1));
    EXPECT_FALSE(direct->isGrainWritten(128).has_value());
    EXPECT_NE(expectSameError("disk.vmdk", kSmallestDiskBytes - 1, 2), "");
}

TEST_F(DirectReadingTest, LeavesFilesInMemoryToTheDisk) {
    yx::P<yx::CMemoryFileSystem> const memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const uri("mem:///disk.vmdk");
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(memory.get(), false);
        guard->keep();
        std::unique_ptr<SafeDisk> const disk = SafeDisk::create(guard.get(), uri, requestFor({}));
        writeGrain(*disk, 1, textPattern(kGrainBytes, 1));
        disk->flush();
    }
    DirectReading direct(std::make_unique<SafeDisk>(memory.get(), uri, kReadOnly, ""), kMapTables);
    EXPECT_EQ(tryRead(direct, kGrainBytes, 10), Bytes());
    EXPECT_EQ(tryRead(direct, 0, 10), zeros(10));
    EXPECT_EQ(direct.isGrainWritten(1), true);
    EXPECT_EQ(direct.isGrainWritten(0), false);
}

TEST_F(DirectReadingTest, ReadsFilesOfAStoreThatOffersIt) {
    auto const store = yx::makeObject<FolderStore>(folder.path().string());
    kelm::host::AddedStore const added("test", store);
    auto const stores = yx::makeObject<kelm::host::FileSystems>();
    for (char const* const kind : {"plain", "compressedSplit", "encryptedCompressed"}) {
        SCOPED_TRACE(kind);
        char const* const password = kindNamed(kind).password;
        std::string const name = std::string(kind) + ".vmdk";
        Bytes const content = putDisk(kindNamed(kind), name, "", {0, 1, 2, 40, 64, 65, 66, 127});
        auto const open = [&] {
            return std::make_unique<SafeDisk>(stores.get(), yx::CURI(("test:/" + name).c_str()),
                                              kReadOnly, password);
        };
        DirectReading direct(open(), kMapTables);
        std::atomic<int> count = 0;
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] { count += checkReads(direct, content, 20 + i); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(count, 4 * kReads);
    }
}

TEST_F(DirectReadingTest, FailsInTheWordsOfTheDiskWhereAGrainWasCutOff) {
    for (char const* const kind : {"plain", "compressed", "encrypted", "encryptedCompressed"}) {
        SCOPED_TRACE(kind);
        std::string const name = std::string(kind) + ".vmdk";
        char const* const password = kindNamed(kind).password;
        putDisk(kindNamed(kind), name, "", {0, 1});
        __int64 const place = placeOf(name, 1, password);
        std::filesystem::resize_file(folder.path() / name,
                                     static_cast<std::uintmax_t>(place + 512));
        Bytes first(512);
        EXPECT_FALSE(readDirectly(name, password)->tryRead(kGrainBytes, first.data(), 512));
        std::string const words = expectSameError(name, kGrainBytes, 512, password);
        EXPECT_NE(words.find("grain=1 bytes=65536-131071"), std::string::npos) << words;
        EXPECT_TRUE(readDirectly(name, password)->tryRead(0, first.data(), 512));
    }
}

TEST_F(DirectReadingTest, FailsInTheWordsOfTheDiskWhereARecordIsDamaged) {
    putDisk(kindNamed("compressed"), "disk.vmdk", "", {0, 1});
    damage("disk.vmdk", placeOf("disk.vmdk", 1) + 12, 400);
    std::string const words = expectSameError("disk.vmdk", kGrainBytes + 100, 10);
    EXPECT_NE(words.find("grain=1 bytes=65536-131071"), std::string::npos) << words;
    damage("disk.vmdk", placeOf("disk.vmdk", 0), 12);
    EXPECT_NE(expectSameError("disk.vmdk", 100, 10), "");
}

TEST_F(DirectReadingTest, ReadsNothingWhereAParentIsMissing) {
    putDisk(kindNamed("plain"), "base.vmdk", "", {0});
    Bytes const content = putDisk(kindNamed("plain"), "child.vmdk", "base.vmdk", {1});
    std::filesystem::remove(folder.path() / "base.vmdk");
    LogCapture const log;
    EXPECT_FALSE(readDirectly("child.vmdk")->isGrainWritten(1).has_value());
    std::unique_ptr<DiskReaders> const readers = makeReaders("child.vmdk");
    Bytes buffer(100);
    readers->read(kGrainBytes, buffer.data(), 100);
    EXPECT_EQ(buffer, slice(content, kGrainBytes, 100));
    EXPECT_NE(expectSameError("child.vmdk", 0, 100), "");
}

} // namespace
} // namespace test_support
