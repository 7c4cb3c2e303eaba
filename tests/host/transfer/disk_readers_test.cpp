#include "host/transfer/disk_readers.h"

#include <atomic>
#include <latch>
#include <thread>

#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace {

using kelm::host::DiskReaders;

constexpr int kGrainsRead = 60;

class DiskReadersTest : public HostTest {
protected:
    void putDisk(DiskKind const& kind) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        m_kind = kind;
        std::unique_ptr<SafeDisk> const disk = createSafe(kind);
        for (int grain = 0; grain < kGrainsRead; grain += 2)
            writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
    }

    static Bytes contentOf(int grain) {
        return grain % 2 == 0 ? textPattern(kGrainBytes, static_cast<unsigned int>(grain))
                              : zeros(kGrainBytes);
    }

    std::unique_ptr<SafeDisk> openReader() {
        ++openings;
        return openSafe("disk.vmdk", kReadOnly, m_kind.password);
    }

    static Bytes readGrain(SafeDisk& disk, int grain) {
        Bytes bytes(kGrainBytes);
        disk.read(static_cast<__int64>(grain) * kGrainBytes, bytes.data(), kGrainBytes);
        return bytes;
    }

    /// Holds so many readers at once, each on a thread of its own.
    static void useAtOnce(DiskReaders& readers, int threads) {
        std::latch all(threads);
        std::vector<std::thread> running;
        for (int i = 0; i < threads; ++i)
            running.emplace_back([&] { readers.use([&](SafeDisk&) { all.arrive_and_wait(); }); });
        for (std::thread& thread : running)
            thread.join();
    }

    std::atomic<int> openings = 0;

private:
    DiskKind m_kind;
};

TEST_F(DiskReadersTest, ManyThreadsReadWhatTheDiskHolds) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        putDisk(kind);
        openings = 0;
        DiskReaders readers(openReader(), 3, [this] { return openReader(); });
        std::atomic<int> right = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 5; ++i) {
            threads.emplace_back([&, i] {
                for (int grain = 0; grain < kGrainsRead; ++grain) {
                    int const wanted = (grain * 7 + i) % kGrainsRead;
                    if (readers.use([=](SafeDisk& disk) { return readGrain(disk, wanted); }) ==
                        contentOf(wanted))
                        ++right;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(right, 5 * kGrainsRead);
        EXPECT_LE(openings, 3);
    }
}

TEST_F(DiskReadersTest, OpensTheDiskAgainWhileAllAreInUse) {
    putDisk({});
    DiskReaders readers(openReader(), 3, [this] { return openReader(); });
    useAtOnce(readers, 1);
    EXPECT_EQ(openings, 1);
    useAtOnce(readers, 3);
    EXPECT_EQ(openings, 3);
    useAtOnce(readers, 3);
    EXPECT_EQ(openings, 3);
}

TEST_F(DiskReadersTest, OneReaderServesOneAfterTheOther) {
    putDisk({});
    DiskReaders readers(openReader(), 1, [this] { return openReader(); });
    std::atomic<int> inside = 0;
    std::atomic<bool> isAlone = true;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int grain = 0; grain < kGrainsRead; ++grain) {
                readers.use([&](SafeDisk& disk) {
                    if (++inside != 1)
                        isAlone = false;
                    readGrain(disk, grain);
                    --inside;
                });
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(isAlone);
    EXPECT_EQ(openings, 1);
}

TEST_F(DiskReadersTest, GoOnWithWhatThereIsWhereNoMoreCanBeOpened) {
    putDisk({});
    LogCapture const log;
    std::latch held(2);
    std::latch failed(1);
    DiskReaders readers(openReader(), 3, [&]() -> std::unique_ptr<SafeDisk> {
        if (openings < 2)
            return openReader();
        failed.count_down();
        throw yx::CIOError(yx::CIOError::IOFailure, "Too many files.", yx::CProps(), nullptr);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            readers.use([&](SafeDisk&) {
                held.count_down();
                failed.wait();
            });
        });
    }
    held.wait();
    EXPECT_EQ(contentOf(4), readers.use([](SafeDisk& disk) { return readGrain(disk, 4); }));
    for (std::thread& thread : threads)
        thread.join();
    useAtOnce(readers, 2);
    EXPECT_EQ(openings, 2);
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].message,
              "The disk cannot be opened once more, so fewer read it at once.");
}

TEST_F(DiskReadersTest, FailureOfTheUserLeavesTheReader) {
    putDisk({});
    DiskReaders readers(openReader(), 1, [this] { return openReader(); });
    EXPECT_THROW(readers.use([](SafeDisk&) { throw std::runtime_error("mine"); }),
                 std::runtime_error);
    EXPECT_EQ(contentOf(4), readers.use([](SafeDisk& disk) { return readGrain(disk, 4); }));
    EXPECT_EQ(openings, 1);
}

} // namespace
} // namespace test_support
