// Grain tables: looking a grain up, loading a run of tables, eviction and flushing.
//
//   bench_metadata [Google Benchmark's options]
//
// The file has the metadata of a disk of 32 GiB: 1,024 tables of 512 entries. It lies in the
// system's temporary directory and stays in the page cache; nothing is synced to the device, so the
// figures are about the way of the tables through memory and system calls.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/metadata/grain_directory.h"
#include "yx/native_file_system.h"
#include "yx/optimizing_io_stream.h"

namespace {

constexpr int kTableCount = 1024;
constexpr int kEntriesPerTable = kelm::kGrainTableEntryCount;
constexpr int kRunTables = 32;
constexpr int kGrainSizeSectors = 128;
constexpr __int64 kGrainCount = __int64{kTableCount} * kEntriesPerTable;
constexpr int kNoLimit = kelm::CVMDKGrainTableCache::kNoLimit;

/// Behind the header and the directory.
constexpr __int64 kFirstTableBytes = 9 * kelm::kSectorSizeBytes;

/// An open extent file that holds nothing but its directory and its empty tables.
class BenchExtent {
public:
    BenchExtent(bool compressed, int cacheLimit)
        : m_path(std::filesystem::temp_directory_path() /
                 ("bench_metadata_" + std::to_string(getpid()))),
          m_cache(yx::makeObject<kelm::CVMDKGrainTableCache>(cacheLimit)) {
        yx::CURI const uri(yx::TPathImpl<yx::CUnixPathTraits>(m_path.string().c_str(), true, false),
                           false);
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const file =
            yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem)
                ->openFile(uri, yx::IIOStream::ReadWrite, &reserved);
        m_stream = yx::makeObject<yx::COptimizingIOStream>(file.get());
        writeTables(compressed);
        m_directory = yx::makeObject<kelm::CVMDKGrainDirectory>(
            m_stream.get(), yx::IIOStream::ReadWrite, 1, 0, kGrainCount * kGrainSizeSectors,
            kGrainSizeSectors, kEntriesPerTable, compressed, m_cache.get());
    }
    BenchExtent(BenchExtent const&) = delete;
    BenchExtent& operator=(BenchExtent const&) = delete;
    ~BenchExtent() { std::filesystem::remove(m_path); }

    kelm::CVMDKGrainDirectory& directory() { return *m_directory; }
    kelm::CVMDKGrainTableCache& cache() { return *m_cache; }
    yx::IIOStream& stream() { return *m_stream; }

    void loadAllTables() {
        for (int table = 0; table < kTableCount; ++table)
            m_directory->getGrainTable(table);
    }

    /// Changes one entry in each of the first tables.
    void changeTables(int count, __int64 posSectors) {
        for (int table = 0; table < count; ++table) {
            m_directory->setGrainInfo(__int64{table} * kEntriesPerTable, posSectors,
                                      kGrainSizeSectors);
        }
    }

private:
    void writeTables(bool compressed) {
        yx::TBuffer<unsigned char> zeros(kelm::kGrainTableSizeBytes, -1);
        yx::initMemory(zeros.getData(), 0, kelm::kGrainTableSizeBytes);
        yx::CDataOutStream out(m_stream.get());
        out.seek(kelm::kSectorSizeBytes);
        kelm::writeEmptyVMDKGrainDirectoryAndTables(out, kTableCount, zeros, compressed);
        if (compressed) {
            kelm::writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, kTableCount,
                                                                                zeros);
        }
        m_stream->flush();
    }

    std::filesystem::path m_path;
    yx::P<kelm::CVMDKGrainTableCache> m_cache;
    yx::P<yx::IIOStream> m_stream;
    yx::P<kelm::CVMDKGrainDirectory> m_directory;
};

/// Grains anywhere in the extent, all tables in memory.
void lookupHitScattered(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    std::mt19937_64 random(1);
    std::vector<__int64> grains(4096);
    for (__int64& grain : grains)
        grain = static_cast<__int64>(random() % kGrainCount);
    std::size_t next = 0;
    for (auto _ : state) {
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        extent.directory().getGrainInfo(grains[next++ % grains.size()], posSectors,
                                        slotSizeSectors);
        benchmark::DoNotOptimize(posSectors + slotSizeSectors);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(lookupHitScattered);

/// One grain after the other, all tables in memory.
void lookupHitSequential(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    __int64 grain = 0;
    for (auto _ : state) {
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        extent.directory().getGrainInfo(grain, posSectors, slotSizeSectors);
        grain = (grain + 1) % kGrainCount;
        benchmark::DoNotOptimize(posSectors + slotSizeSectors);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(lookupHitSequential);

/// A lookup that loads a run of 32 tables and evicts another. The argument says whether the extent
/// is compressed, with slot sizes.
void lookupMiss(benchmark::State& state) {
    BenchExtent extent(state.range(0) != 0, kRunTables);
    constexpr int kRunCount = kTableCount / kRunTables;
    int run = 0;
    for (auto _ : state) {
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        extent.directory().getGrainInfo(__int64{run} * kRunTables * kEntriesPerTable, posSectors,
                                        slotSizeSectors);
        run = (run + 1) % kRunCount;
        benchmark::DoNotOptimize(posSectors + slotSizeSectors);
    }
    state.SetBytesProcessed(state.iterations() * kRunTables * kEntriesPerTable *
                            (state.range(0) != 0 ? 6 : 4));
}
BENCHMARK(lookupMiss)->ArgName("compressed")->Arg(0)->Arg(1);

/// The floor of a miss: the same 64 KiB, read in one piece.
void lookupMissFloor(benchmark::State& state) {
    BenchExtent extent(false, 0);
    std::vector<unsigned char> buffer(kRunTables * kEntriesPerTable * 4);
    constexpr int kRunCount = kTableCount / kRunTables;
    int run = 0;
    for (auto _ : state) {
        extent.stream().seek(kFirstTableBytes + run * static_cast<__int64>(buffer.size()));
        extent.stream().read(buffer.data(), static_cast<int>(buffer.size()));
        run = (run + 1) % kRunCount;
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<__int64>(buffer.size()));
}
BENCHMARK(lookupMissFloor);

/// Putting a table into a full cache of 1,024 and so dropping an unchanged one, whose memory is
/// not freed here.
void eviction(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    kelm::CVMDKGrainTableCache cache(kTableCount);
    yx::P<kelm::CVMDKGrainTable> const table = extent.directory().getGrainTable(0);
    __int64 index = 0;
    for (auto _ : state)
        cache.setCachedTable(&extent.directory(), index++, table.get());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(eviction);

/// Flushing 1,024 tables in memory of which none has changed.
void flushClean(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    for (auto _ : state)
        extent.directory().flushChangesToStream();
    state.SetItemsProcessed(state.iterations() * kTableCount);
}
BENCHMARK(flushClean);

/// Flushing one changed table among 1,024.
void flushOneChanged(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    __int64 posSectors = 1;
    for (auto _ : state) {
        extent.changeTables(1, ++posSectors);
        extent.directory().flushChangesToStream();
        extent.stream().flush();
    }
}
BENCHMARK(flushOneChanged);

/// Changing and flushing all 1,024 tables, down to the system.
void flushAllChanged(benchmark::State& state) {
    BenchExtent extent(false, kNoLimit);
    extent.loadAllTables();
    __int64 posSectors = 1;
    for (auto _ : state) {
        extent.changeTables(kTableCount, ++posSectors);
        extent.directory().flushChangesToStream();
        extent.stream().flush();
    }
    state.SetBytesProcessed(state.iterations() * kTableCount * kEntriesPerTable * 4);
}
BENCHMARK(flushAllChanged);

} // namespace
