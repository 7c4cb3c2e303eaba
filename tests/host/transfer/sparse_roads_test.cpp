// Disks of many TiB with little in them, on every road that moves, chooses or compares grains. A
// grain at a time, each test would take minutes.

#include <functional>

#include "host/digest/disk_digests.h"
#include "host/transfer/chain_difference.h"
#include "host/transfer/compare.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/disk_content_reader.h"
#include "host/transfer/disk_flattening.h"
#include "host/transfer/disk_map.h"
#include "host/transfer/grain_set.h"
#include "host/transfer/held_grains.h"
#include "host/transfer/parent_swap.h"
#include "host/transfer/raw_content_reader.h"
#include "tests/host/host_fixture.h"

namespace test_support {
namespace sparse_roads_test {
namespace {

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::ChainDigests;
using kelm::host::Comparison;
using kelm::host::DigestMaking;
using kelm::host::DiskContentReader;
using kelm::host::DiskTrust;
using kelm::host::GrainSet;
using kelm::host::ParentSwap;
using kelm::host::RawContentReader;
using kelm::host::RawSource;
using kelm::host::WorkOptions;

constexpr __int64 kDiskBytes = __int64{4} << 40;
constexpr __int64 kGrains = kDiskBytes / kGrainBytes;

/// Far from each other, and at both ends.
constexpr __int64 kFirst = 0;
constexpr __int64 kSecond = 3 * (kGrains / 7);
constexpr __int64 kThird = 5 * (kGrains / 7) + 1;
constexpr __int64 kLast = kGrains - 1;

class SparseRoads : public HostTest {
protected:
    std::unique_ptr<SafeDisk> make(std::string const& name, std::string const& parent,
                                   std::vector<__int64> const& grains) {
        NewDisk request;
        request.sizeBytes = kDiskBytes;
        request.fileSizeLimitBytes = __int64{64} << 30;
        request.createExtentFilesOnDemand = true;
        request.trust = trust();
        if (!parent.empty())
            request.parent = uriOf(parent);
        yx::P<FileGuard> const guard = makeGuard();
        guard->keep();
        std::unique_ptr<SafeDisk> disk = SafeDisk::create(guard.get(), uriOf(name), request);
        for (__int64 const grain : grains)
            writeTo(*disk, grain * kGrainBytes + 100, pattern(50, ++m_drawn));
        disk->flush();
        return disk;
    }

    std::unique_ptr<SafeDisk> openLarge(std::string const& name,
                                        yx::IIOStream::Access access = kReadOnly) {
        return std::make_unique<SafeDisk>(files.get(), uriOf(name), access, "", -1,
                                          kelm::CVMDKGrainTableCache::kDefaultLimit, trust());
    }

    static DiskTrust trust() {
        DiskTrust trust;
        trust.allowOversize = true;
        return trust;
    }

    static std::vector<__int64> listOf(GrainSet const& grains) {
        std::vector<__int64> list;
        for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
             grain = grains.findNext(grain + 1))
            list.push_back(grain);
        return list;
    }

    /// Which grains the disk itself holds.
    static std::vector<__int64> listHeld(SafeDisk& disk) {
        return listOf(findOwnGrains(disk, nullptr));
    }

    Comparison compare(SafeDisk& left, SafeDisk& right) {
        DiskContentReader leftReader(left);
        DiskContentReader rightReader(right);
        return compareContent(leftReader, rightReader, options);
    }

    WorkOptions options;
    unsigned int m_drawn = 0;
};

TEST_F(SparseRoads, AreComparedByWhatTheyHold) {
    make("a.vmdk", "", {kFirst, kSecond, kLast});
    m_drawn = 0;
    make("b.vmdk", "", {kFirst, kSecond, kThird});
    std::unique_ptr<SafeDisk> const left = openLarge("a.vmdk");
    std::unique_ptr<SafeDisk> const right = openLarge("b.vmdk");
    EXPECT_TRUE(compare(*left, *left).isEqual());
    Comparison const result = compare(*left, *right);
    EXPECT_EQ(std::optional<__int64>(kThird * kGrainBytes + 100), result.firstDifferenceBytes);
    EXPECT_EQ(100, result.differingBytes);
    EXPECT_EQ(kDiskBytes, result.leftBytes);
    EXPECT_EQ(kDiskBytes, result.rightBytes);
}

TEST_F(SparseRoads, ImagesAreComparedByWhatTheyHold) {
    std::string const path = pathOf("image.raw");
    std::ofstream(path).close();
    std::filesystem::resize_file(path, kDiskBytes - 1000);
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(kSecond * kGrainBytes + 100)
        .write("x", 1);
    make("a.vmdk", "", {kSecond});
    std::unique_ptr<SafeDisk> const disk = openLarge("a.vmdk");
    RawSource source(path);
    RawContentReader image(source);
    DiskContentReader content(*disk);
    std::vector<__int64> done;
    options.progress = [&](__int64 doneBytes, __int64) { done.push_back(doneBytes); };
    Comparison const result = compareContent(image, content, options);
    EXPECT_EQ(std::optional<__int64>(kSecond * kGrainBytes + 100), result.firstDifferenceBytes);
    EXPECT_EQ(kDiskBytes - 1000, result.leftBytes);
    EXPECT_EQ(kDiskBytes, result.rightBytes);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(kDiskBytes, done.back());
}

TEST_F(SparseRoads, AreConvertedWithDigests) {
    std::unique_ptr<SafeDisk> const from = make("a.vmdk", "", {kFirst, kThird, kLast});
    std::unique_ptr<SafeDisk> to = make("b.vmdk", "", {});
    convertDisk(*from, *to, options);
    EXPECT_EQ((std::vector<__int64>{kFirst, kThird, kLast}), listHeld(*to));
    DigestMaking(files.get(), *to).finish(kDiskBytes, options);
    kelm::host::DiskDigests const digests = kelm::host::DiskDigests::open(files.get(), *to);
    ASSERT_TRUE(digests.areUpToDate());
    EXPECT_EQ(kThird, digests.file->findNext(1));
    EXPECT_EQ(kLast, digests.file->findNext(kThird + 1));
    EXPECT_TRUE(compare(*from, *to).isEqual());
}

/// "base.vmdk" under "mid.vmdk" under "top.vmdk", and "other.vmdk" beside them.
class SparseChain : public SparseRoads {
protected:
    SparseChain() {
        make("base.vmdk", "", {kFirst, kThird});
        make("mid.vmdk", "base.vmdk", {kSecond});
        make("top.vmdk", "mid.vmdk", {kLast});
        make("other.vmdk", "", {kFirst});
        base = openLarge("base.vmdk");
        mid = openLarge("mid.vmdk");
        other = openLarge("other.vmdk");
        top = openLarge("top.vmdk", kReadWrite);
    }

    std::unique_ptr<SafeDisk> base;
    std::unique_ptr<SafeDisk> mid;
    std::unique_ptr<SafeDisk> top;
    std::unique_ptr<SafeDisk> other;
};

TEST_F(SparseChain, GrainsOfLinksAndDifferencesAreFound) {
    using List = std::vector<__int64>;
    EXPECT_EQ((List{kSecond, kLast}),
              listOf(findGrainsOfLinks(*top, {top.get(), mid.get()}, base.get(), nullptr)));
    EXPECT_EQ(
        (List{kFirst, kSecond, kThird, kLast}),
        listOf(findGrainsOfLinks(*top, {top.get(), mid.get(), base.get()}, nullptr, nullptr)));
    EXPECT_EQ((List{kSecond, kLast}), listOf(findDifferences(*top, *base, options)));
    EXPECT_EQ((List{kFirst, kSecond, kThird, kLast}),
              listOf(findDifferences(*top, *other, options)));
}

TEST_F(SparseChain, HangsOnAnotherParent) {
    using List = std::vector<__int64>;
    ParentSwap::Parents parents;
    parents.oldParent = mid.get();
    parents.left = {mid.get()};
    parents.newParent = base.get();
    ParentSwap toBase(*top, parents);
    EXPECT_EQ((List{kSecond}), listOf(toBase.findByTables(nullptr)));
    EXPECT_EQ((List{kSecond}), listOf(toBase.findByContent(options)));
    parents.left = {mid.get(), base.get()};
    parents.joined = {other.get()};
    parents.newParent = other.get();
    ParentSwap toOther(*top, parents);
    EXPECT_EQ((List{kFirst, kSecond, kThird}), listOf(toOther.findByContent(options)));
    GrainSet const own = findOwnGrains(*top, nullptr);
    EXPECT_EQ((List{kLast}), listOf(own));
    // Not before all is copied.
    EXPECT_THROW(toOther.verifyReadsAsBefore(own, options), yx::CIOError);
    holdGrains(*top, toOther.findByContent(options), options);
    toOther.verifyReadsAsBefore(own, options);
    EXPECT_EQ((List{kFirst, kSecond, kThird, kLast}), listHeld(*top));
}

TEST_F(SparseChain, BecomesIndependent) {
    makeIndependentOfParent(*top, options);
    EXPECT_EQ((std::vector<__int64>{kFirst, kSecond, kThird, kLast}), listHeld(*top));
}

TEST_F(SparseChain, TakesAnImageByTheDigestsOfTheParents) {
    for (std::string const name : {"base.vmdk", "mid.vmdk"}) {
        std::unique_ptr<SafeDisk> const disk = openLarge(name);
        DigestMaking(files.get(), *disk).finish(kDiskBytes, options);
    }
    std::unique_ptr<SafeDisk> const child = make("child.vmdk", "mid.vmdk", {});
    // One of the parents' grains, one of its own, and zeros where the parents have data.
    std::string const path = pathOf("image.raw");
    std::ofstream(path).close();
    std::filesystem::resize_file(path, kDiskBytes);
    std::fstream image(path, std::ios::binary | std::ios::in | std::ios::out);
    Bytes const same = readFrom(*mid, kSecond * kGrainBytes, kGrainBytes);
    image.seekp(kSecond * kGrainBytes)
        .write(reinterpret_cast<char const*>(same.data()),
               static_cast<std::streamsize>(same.size()));
    image.seekp(kLast * kGrainBytes).write("own", 3);
    image.close();
    std::unique_ptr<ChainDigests> const digests = ChainDigests::open(files.get(), *child, "");
    ASSERT_TRUE(digests);
    EXPECT_EQ(0, digests->countAbsent(kFirst, 10));
    EXPECT_EQ(kSecond - 1, digests->countAbsent(1, kGrains - 1));
    EXPECT_EQ(7, digests->countAbsent(1, 7));
    EXPECT_EQ(kLast - kThird, digests->countAbsent(kThird + 1, kLast - kThird));
    RawSource source(path);
    importRaw(source, *child, options, {}, kelm::host::PresentContent::OfParent, nullptr,
              digests.get());
    EXPECT_EQ((std::vector<__int64>{kFirst, kThird, kLast}), listHeld(*child));
    EXPECT_EQ(zeros(kGrainBytes), readFrom(*child, kThird * kGrainBytes, kGrainBytes));
    EXPECT_EQ(same, readFrom(*child, kSecond * kGrainBytes, kGrainBytes));
}

TEST_F(SparseChain, AnInterruptionEndsEveryRoad) {
    CancelFlag cancel;
    cancel.set();
    options.cancel = &cancel;
    GrainSet const nothing(kGrains);
    ParentSwap::Parents parents;
    parents.oldParent = mid.get();
    parents.left = {mid.get()};
    parents.newParent = base.get();
    ParentSwap swap(*top, parents);
    std::function<void()> const roads[] = {
        [&] { compare(*base, *other); },
        [&] { findGrainsOfLinks(*top, {top.get()}, mid.get(), &cancel); },
        [&] { findDifferences(*top, *base, options); },
        [&] { swap.findByTables(&cancel); },
        [&] { swap.findByContent(options); },
        [&] { swap.verifyReadsAsBefore(nothing, options); },
        [&] { DigestMaking(files.get(), *top).finish(kDiskBytes, options); },
        [&] { makeIndependentOfParent(*top, options); },
    };
    int road = 0;
    for (std::function<void()> const& run : roads)
        EXPECT_THROW(run(), CancelledError) << road++;
}

/// Disks whose one file has more tables than work of one pass keeps, each of a run of 32 touched.
class WideDisk : public HostTest {
protected:
    static constexpr __int64 kTables = kelm::host::kMaxTablesOfOnePass + 1024;
    static constexpr __int64 kTableBytes = 512 * kGrainBytes;
    static constexpr __int64 kRunBytes = 32 * kTableBytes;
    static constexpr __int64 kBytes = kTables * kTableBytes;

    std::unique_ptr<SafeDisk> make(std::string const& name, std::string const& parent = "") {
        return createSafe({}, name, parent, kBytes);
    }

    static void expectFewTablesAndTheGrains(SafeDisk& disk) {
        EXPECT_LE(disk.getDisk().getGrainTableCache()->getCachedTableCount(),
                  kelm::host::kMaxTablesOfOnePass);
        for (__int64 position = 0; position < kBytes; position += kRunBytes)
            ASSERT_TRUE(sameBytes(pattern(50, 1), readFrom(disk, position + 100, 50))) << position;
    }

    WorkOptions options;
};

TEST_F(WideDisk, KeepsFewTablesWhileItIsFilled) {
    std::unique_ptr<SafeDisk> from = make("from.vmdk");
    GrainSet grains(from->getGrainCount());
    for (__int64 position = 0; position < kBytes; position += kRunBytes) {
        writeTo(*from, position + 100, pattern(50, 1));
        grains.add(position / kGrainBytes);
    }
    from->flush();
    EXPECT_EQ(kTables, from->getDisk().getGrainTableCache()->getCachedTableCount());
    from.reset();
    from = openSafe("from.vmdk", kReadOnly);

    std::unique_ptr<SafeDisk> const converted = make("converted.vmdk");
    convertDisk(*from, *converted, options);
    expectFewTablesAndTheGrains(*converted);

    std::unique_ptr<SafeDisk> const merged = make("merged.vmdk");
    convertGrainsOf(*from, *merged, grains, options);
    expectFewTablesAndTheGrains(*merged);

    std::unique_ptr<SafeDisk> const child = make("child.vmdk", "from.vmdk");
    holdGrains(*child, grains, options);
    expectFewTablesAndTheGrains(*child);

    std::string const path = pathOf("image.raw");
    std::ofstream image(path, std::ios::binary);
    Bytes const content = pattern(50, 1);
    for (__int64 position = 0; position < kBytes; position += kRunBytes)
        image.seekp(position + 100).write(reinterpret_cast<char const*>(content.data()), 50);
    image.close();
    RawSource source(path);
    std::unique_ptr<SafeDisk> const imported = make("imported.vmdk");
    importRaw(source, *imported, options);
    expectFewTablesAndTheGrains(*imported);
}

TEST(GrainSet, FindsItsGrainsFromAnyOneOn) {
    constexpr __int64 kCount = 300001;
    GrainSet grains(kCount);
    EXPECT_TRUE(grains.isEmpty());
    std::vector<__int64> const in{0, 1, 63, 64, 32767, 32768, 98303, 131072, kCount - 1};
    for (__int64 const grain : in)
        grains.add(grain);
    std::size_t next = 0;
    for (__int64 grain = 0; grain < kCount; ++grain) {
        ASSERT_EQ(in[next], grains.findNext(grain)) << grain;
        bool const isIn = in[next] == grain;
        ASSERT_EQ(isIn, grains.contains(grain)) << grain;
        next += isIn ? 1 : 0;
    }
    EXPECT_EQ(in.size(), next);
    EXPECT_EQ(kCount, grains.findNext(kCount));
    grains.clear();
    EXPECT_TRUE(grains.isEmpty());
    EXPECT_TRUE(GrainSet(0).isEmpty());
}

} // namespace
} // namespace sparse_roads_test
} // namespace test_support
