// Many random operations of several directories over one cache, against a plain model: each must
// give the same values, and reach the files by the same reads and writes in the same order, also
// when a read in the middle of a run of tables fails. KELM_MODEL_ROUNDS multiplies the number of
// histories.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kelm/metadata/grain_directory.h"
#include "tests/metadata/file_image.h"
#include "tests/support/bytes.h"
#include "tests/support/model_rounds.h"
#include "tests/support/scripted_stream.h"

namespace kelm {

namespace metadata_model_test {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::ScriptedStream;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;
using Operations = std::vector<Operation>;

constexpr int kEntriesPerTable = 4;
constexpr int kGrainSizeSectors = 128;
constexpr int kFirstTableSector = 10;

/// What the model fails with where a read of the file is to fail.
struct ModelReadFailure {};

/// An extent file of tables one sector apart, as the model sees it.
struct ModelFile {
    int tableCount;
    bool isRedundant;
    bool hasSlotSizes;

    Bytes content;
    /// What should have reached the file.
    Operations operations;
    /// The read that is to fail, counted from 1; 0 for none.
    int failingRead = 0;

    void logRead(int sector, int sizeBytes) {
        operations.push_back({Kind::Read, sector * 512LL, sizeBytes});
        if (failingRead > 0 && --failingRead == 0)
            throw ModelReadFailure();
    }

    int tableSector(int index) const { return kFirstTableSector + index; }
    int redundantSector(int index) const { return tableSector(index) + tableCount; }
    int markerSector() const {
        return kFirstTableSector + (isRedundant ? 2 * tableCount : tableCount);
    }
    int slotTableSector(int index) const { return markerSector() + 2 + index; }

    std::uint32_t read(int sector, int index, int elementSizeBytes) const {
        std::uint32_t value = 0;
        for (int i = elementSizeBytes - 1; i >= 0; --i)
            value = value << 8 | content[offset(sector, index, elementSizeBytes) + unsigned(i)];
        return value;
    }

    void write(int sector, int index, int elementSizeBytes, std::uint32_t value) {
        for (int i = 0; i < elementSizeBytes; ++i) {
            content[offset(sector, index, elementSizeBytes) + unsigned(i)] =
                static_cast<unsigned char>(value >> (8 * i));
        }
    }

    static std::size_t offset(int sector, int index, int elementSizeBytes) {
        return static_cast<std::size_t>(sector * 512 + index * elementSizeBytes);
    }
};

ModelFile makeFile(int tableCount, bool isRedundant, bool hasSlotSizes) {
    ModelFile file{tableCount, isRedundant, hasSlotSizes, {}, {}, 0};
    auto const positionsFrom = [&](int sector) {
        std::vector<std::uint32_t> positions(static_cast<std::size_t>(tableCount));
        std::iota(positions.begin(), positions.end(), static_cast<std::uint32_t>(sector));
        return positions;
    };
    FileImage image(file.slotTableSector(tableCount));
    image.put32(1, positionsFrom(file.tableSector(0)));
    if (isRedundant)
        image.put32(2, positionsFrom(file.redundantSector(0)));
    if (hasSlotSizes) {
        image.putSlotDirectoryMarker(file.markerSector(), 1);
        image.put32(file.markerSector() + 1, positionsFrom(file.slotTableSector(0)));
    }
    file.content = image.bytes();
    return file;
}

/// A table in the model's memory; it writes its changes when its last holder lets go.
class ModelTable {
public:
    struct Entry {
        std::uint32_t pos;
        std::uint32_t slotSize;
        bool operator==(Entry const&) const = default;
    };

    ModelTable(ModelFile& file, int index) : m_file(file), m_index(index) {
        m_file.logRead(m_file.tableSector(index), kEntriesPerTable * 4);
        if (m_file.hasSlotSizes)
            m_file.logRead(m_file.slotTableSector(index), kEntriesPerTable * 2);
        for (int i = 0; i < kEntriesPerTable; ++i) {
            m_entries.push_back(m_file.read(m_file.tableSector(index), i, 4));
            m_slotSizes.push_back(m_file.hasSlotSizes
                                      ? m_file.read(m_file.slotTableSector(index), i, 2)
                                      : kGrainSizeSectors);
        }
    }
    ModelTable(ModelTable const&) = delete;
    ModelTable& operator=(ModelTable const&) = delete;
    ~ModelTable() { flush(); }

    Entry get(int i) const {
        std::uint32_t const pos = m_entries[unsigned(i)];
        return {pos, pos == 0 ? 0 : m_slotSizes[unsigned(i)]};
    }

    void set(int i, Entry entry) {
        m_entriesDirty |= std::exchange(m_entries[unsigned(i)], entry.pos) != entry.pos;
        m_slotSizesDirty |=
            std::exchange(m_slotSizes[unsigned(i)], entry.slotSize) != entry.slotSize;
    }

    bool isDirty() const { return m_entriesDirty || m_slotSizesDirty; }

    void flush() {
        if (std::exchange(m_entriesDirty, false)) {
            write(m_file.tableSector(m_index), 4, m_entries);
            if (m_file.isRedundant)
                write(m_file.redundantSector(m_index), 4, m_entries);
        }
        if (std::exchange(m_slotSizesDirty, false))
            write(m_file.slotTableSector(m_index), 2, m_slotSizes);
    }

private:
    void write(int sector, int elementSizeBytes, std::vector<std::uint32_t> const& values) {
        m_file.operations.push_back(
            {Kind::Write, sector * 512LL, kEntriesPerTable * elementSizeBytes});
        for (int i = 0; i < kEntriesPerTable; ++i)
            m_file.write(sector, i, elementSizeBytes, values[unsigned(i)]);
    }

    ModelFile& m_file;
    int m_index;
    std::vector<std::uint32_t> m_entries;
    std::vector<std::uint32_t> m_slotSizes;
    bool m_entriesDirty = false;
    bool m_slotSizesDirty = false;
};

using ModelTablePtr = std::shared_ptr<ModelTable>;

/// The tables in memory, most recently used first.
struct ModelCache {
    struct Item {
        ModelFile* file;
        int index;
        ModelTablePtr table;
    };

    int limit;
    bool isEnforced = true;
    std::vector<Item> items = {};
    int replacedDirtyTables = 0;

    ModelTablePtr get(ModelFile& file, int index) {
        for (auto item = items.begin(); item != items.end(); ++item) {
            if (item->file == &file && item->index == index) {
                std::rotate(items.begin(), item, item + 1);
                return items.front().table;
            }
        }
        return nullptr;
    }

    void put(ModelFile& file, int index, ModelTablePtr const& table) {
        if (get(file, index)) {
            ModelTablePtr const old = std::exchange(items.front().table, table);
            replacedDirtyTables += old->isDirty();
            return;
        }
        items.insert(items.begin(), {&file, index, table});
        if (isEnforced)
            enforceLimit();
    }

    void enforceLimit() {
        while (limit >= 0 && items.size() > static_cast<std::size_t>(limit))
            items.pop_back();
    }

    void setEnforced(bool enforced) {
        if (std::exchange(isEnforced, enforced) != enforced && enforced)
            enforceLimit();
    }

    void flush(ModelFile& file) {
        for (int index = 0; index < file.tableCount; ++index) {
            for (Item const& item : items) {
                if (item.file == &file && item.index == index)
                    item.table->flush();
            }
        }
    }

    void remove(ModelFile& file) {
        std::erase_if(items, [&](Item const& item) { return item.file == &file; });
    }

    ModelTablePtr load(ModelFile& file, int index) {
        if (ModelTablePtr table = get(file, index))
            return table;
        ModelTablePtr result;
        int const first = index / 32 * 32;
        for (int i = first; i < std::min(first + 32, file.tableCount); ++i) {
            try {
                auto const table = std::make_shared<ModelTable>(file, i);
                put(file, i, table);
                if (i == index)
                    result = table;
            } catch (ModelReadFailure const&) {
                std::erase_if(items, [&](Item const& item) {
                    return item.file == &file && item.index >= first && item.index < i;
                });
                throw;
            }
        }
        return result;
    }
};

/// The real thing and the model, side by side.
class Pair {
public:
    Pair(int limit, unsigned int seed)
        : m_random(seed), m_cache(yx::makeObject<CVMDKGrainTableCache>(limit)), m_model{limit} {
        add(70, true, true);
        add(40, false, false);
        add(33, false, true);
    }

    ~Pair() {
        m_held.clear();
        for (Extent& extent : m_extents)
            end(extent);
    }

    void run(int operationCount) {
        for (int i = 0; i < operationCount && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("operation " + std::to_string(i));
            if (i % 200 == 0)
                moveHotSpot();
            step();
            if (i % 500 == 0)
                compareFiles();
        }
        compareFiles();
    }

    /// How often a changed table was replaced by one read before its changes were written.
    int getReplacedDirtyTables() const { return m_model.replacedDirtyTables; }

    /// How many runs of tables could not be read.
    int getFailedLoads() const { return m_failedLoads; }

private:
    struct Extent {
        std::unique_ptr<ModelFile> model;
        yx::P<ScriptedStream> stream;
        yx::P<CVMDKGrainDirectory> directory;
    };

    struct Held {
        yx::P<CVMDKGrainTable> table;
        ModelTablePtr model;
        bool hasSlotSizes;
    };

    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }

    void add(int tableCount, bool isRedundant, bool hasSlotSizes) {
        Extent& extent = m_extents.emplace_back();
        extent.model = std::make_unique<ModelFile>(makeFile(tableCount, isRedundant, hasSlotSizes));
        extent.stream = yx::makeObject<ScriptedStream>(extent.model->content);
        open(extent);
    }

    void open(Extent& extent) {
        extent.directory = yx::makeObject<CVMDKGrainDirectory>(
            extent.stream.get(), yx::IIOStream::ReadWrite, 1, extent.model->isRedundant ? 2 : 0,
            __int64{extent.model->tableCount} * kEntriesPerTable * kGrainSizeSectors,
            kGrainSizeSectors, kEntriesPerTable, extent.model->hasSlotSizes, m_cache.get());
        extent.stream->operations().clear();
    }

    void end(Extent& extent) {
        extent.directory.reset();
        m_model.flush(*extent.model);
        m_model.remove(*extent.model);
        compareOperations();
    }

    void moveHotSpot() {
        m_hotExtent = static_cast<std::size_t>(pick(static_cast<int>(m_extents.size())));
        m_hotTable = pick(m_extents[m_hotExtent].model->tableCount);
    }

    /// Most of the time a table near the hot spot, as in real work.
    std::pair<Extent&, int> pickTable() {
        if (pick(10) < 8) {
            Extent& extent = m_extents[m_hotExtent];
            return {extent, std::min(m_hotTable + pick(5), extent.model->tableCount - 1)};
        }
        Extent& extent = m_extents[static_cast<std::size_t>(pick(3))];
        return {extent, pick(extent.model->tableCount)};
    }

    ModelTable::Entry pickEntry(bool hasSlotSizes) {
        return {static_cast<std::uint32_t>(pick(4) * 1000),
                static_cast<std::uint32_t>(hasSlotSizes ? 1 + pick(3) : kGrainSizeSectors)};
    }

    void step() {
        int const dice = pick(1000);
        if (dice < 450)
            getInfo();
        else if (dice < 850)
            setInfo();
        else if (dice < 890)
            hold();
        else if (dice < 930)
            useHeld();
        else if (dice < 965)
            letGo();
        else if (dice < 985)
            flush();
        else if (dice < 990)
            setEnforced(pick(2) == 0);
        else if (dice < 994)
            enforceLimit();
        else if (dice < 997)
            reopen();
        else
            clear();
        compareOperations();
    }

    static ModelTable::Entry entryOf(__int64 posSectors, __int64 slotSizeSectors) {
        return {static_cast<std::uint32_t>(posSectors),
                static_cast<std::uint32_t>(slotSizeSectors)};
    }

    /// Runs something on the real thing and on the model, where at times a read of the file fails.
    template <class Real, class Modelled>
    void runBoth(Extent& extent, Real const& real, Modelled const& modelled) {
        int const failingRead = pick(5) == 0 ? 1 + pick(64) : 0;
        extent.model->failingRead = failingRead;
        int reads = 0;
        extent.stream->setFault([&](Operation const& operation) {
            return operation.kind == Kind::Read && ++reads == failingRead;
        });
        bool hasFailed = false;
        try {
            real();
        } catch (yx::CIOError const&) {
            hasFailed = true;
        }
        extent.stream->setFault({});
        bool shouldFail = false;
        try {
            modelled();
        } catch (ModelReadFailure const&) {
            shouldFail = true;
        }
        extent.model->failingRead = 0;
        EXPECT_EQ(hasFailed, shouldFail);
        m_failedLoads += hasFailed ? 1 : 0;
    }

    void getInfo() {
        auto [extent, table] = pickTable();
        int const grain = table * kEntriesPerTable + pick(kEntriesPerTable);
        ModelTable::Entry actual{};
        ModelTable::Entry expected{};
        runBoth(
            extent,
            [&, &directory = *extent.directory] {
                __int64 posSectors = -1;
                __int64 slotSizeSectors = -1;
                directory.getGrainInfo(grain, posSectors, slotSizeSectors);
                actual = entryOf(posSectors, slotSizeSectors);
            },
            [&, &file = *extent.model] {
                expected =
                    m_model.load(file, grain / kEntriesPerTable)->get(grain % kEntriesPerTable);
            });
        EXPECT_EQ(actual, expected);
    }

    void setInfo() {
        auto [extent, table] = pickTable();
        int const grain = table * kEntriesPerTable + pick(kEntriesPerTable);
        ModelTable::Entry const value = pickEntry(extent.model->hasSlotSizes);
        runBoth(
            extent,
            [&, &directory = *extent.directory] {
                directory.setGrainInfo(grain, value.pos, value.slotSize);
            },
            [&, &file = *extent.model] {
                m_model.load(file, grain / kEntriesPerTable)->set(grain % kEntriesPerTable, value);
            });
    }

    void hold() {
        if (m_held.size() >= 6)
            return;
        auto const [extent, table] = pickTable();
        m_held.push_back({extent.directory->getGrainTable(table),
                          m_model.load(*extent.model, table), extent.model->hasSlotSizes});
    }

    void useHeld() {
        if (m_held.empty())
            return;
        Held const& held = m_held[static_cast<std::size_t>(pick(static_cast<int>(m_held.size())))];
        int const entry = pick(kEntriesPerTable);
        ModelTable::Entry const value = pickEntry(held.hasSlotSizes);
        held.table->setGrainInfo(entry, value.pos, value.slotSize);
        held.model->set(entry, value);
        EXPECT_EQ(held.table->hasUnflushedChanges(), held.model->isDirty());
    }

    void letGo() {
        if (!m_held.empty())
            m_held.erase(m_held.begin() + pick(static_cast<int>(m_held.size())));
    }

    void flush() {
        Extent& extent = m_extents[static_cast<std::size_t>(pick(3))];
        extent.directory->flushChangesToStream();
        m_model.flush(*extent.model);
    }

    void setEnforced(bool enforced) {
        m_cache->setAutoEnforceLimit(enforced);
        m_model.setEnforced(enforced);
    }

    void enforceLimit() {
        m_cache->enforceLimit();
        m_model.enforceLimit();
    }

    void reopen() {
        Extent& extent = m_extents[static_cast<std::size_t>(pick(3))];
        end(extent);
        open(extent);
    }

    void clear() {
        m_cache->clear();
        m_model.items.clear();
        // In whatever order the tables go.
        auto const less = [](Operation const& a, Operation const& b) {
            return a.position < b.position;
        };
        for (Extent& extent : m_extents) {
            std::ranges::sort(extent.stream->operations(), less);
            std::ranges::sort(extent.model->operations, less);
        }
    }

    void compareOperations() {
        EXPECT_EQ(m_cache->getCachedTableCount(), std::ssize(m_model.items));
        for (Extent& extent : m_extents) {
            EXPECT_EQ(extent.stream->operations(), extent.model->operations);
            extent.stream->operations().clear();
            extent.model->operations.clear();
        }
    }

    void compareFiles() {
        for (Extent& extent : m_extents)
            EXPECT_TRUE(extent.stream->content() == extent.model->content);
    }

    std::mt19937 m_random;
    yx::P<CVMDKGrainTableCache> m_cache;
    ModelCache m_model;
    std::vector<Extent> m_extents;
    std::vector<Held> m_held;
    int m_failedLoads = 0;
    std::size_t m_hotExtent = 0;
    int m_hotTable = 0;
};

class MetadataModel : public testing::TestWithParam<int> {};

TEST_P(MetadataModel, DirectoriesOverOneCacheBehaveAsTheModel) {
    int const limit = GetParam();
    for (unsigned int round = 0; round < test_support::modelRounds() && !HasFailure(); ++round) {
        unsigned int const seed = 20240611U + static_cast<unsigned int>(limit) + 1000 * round;
        SCOPED_TRACE("seed " + std::to_string(seed));
        Pair pair(limit, seed);
        pair.run(20000);
        // Proof that the cases occur: a cache that holds part of a run, some of it changed, and a
        // run that cannot be read.
        if (limit > 0) {
            EXPECT_GT(pair.getReplacedDirtyTables(), 100);
        }
        EXPECT_GT(pair.getFailedLoads(), 5);
    }
}

INSTANTIATE_TEST_SUITE_P(Limits, MetadataModel, testing::Values(-1, 0, 5, 40, 70),
                         [](testing::TestParamInfo<int> const& test) {
                             return test.param < 0 ? std::string("None")
                                                   : std::to_string(test.param);
                         });

} // namespace

} // namespace metadata_model_test

} // namespace kelm
