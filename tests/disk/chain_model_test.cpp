// Chains of two to four disks of mixed grain size, form and length against byte arrays, through the
// library alone. KELM_MODEL_ROUNDS multiplies the number of chains.

#include <algorithm>
#include <random>
#include <sstream>

#include "kelm/kelm.h"
#include "tests/support/expect_error.h"
#include "tests/support/extent_checker.h"
#include "tests/support/filled_foreign_chain.h"
#include "tests/support/model_rounds.h"
#include "yx/memory_file_system.h"

namespace test_support {
namespace {

constexpr unsigned int kFirstSeed = 20260000;
constexpr unsigned int kUsualChains = 12;
constexpr unsigned int kChainsToLookAt = 30;
constexpr int kOperationsPerDisk = 70;
constexpr __int64 kChainSectorBytes = 512;

yx::String utf8(std::string const& text) {
    return yx::String::fromUTF8(text);
}

/// A chain as it grows, and the models of its disks.
class Chain {
public:
    explicit Chain(unsigned int seed) : m_random(seed), m_disks(drawForeignChain(m_random)) {}

    void run() {
        for (std::size_t level = 0; level < m_disks.size() && !testing::Test::HasFailure();
             ++level) {
            SCOPED_TRACE(testing::Message() << m_disks[level]);
            make(level);
            reopen();
            for (int i = 0; i < kOperationsPerDisk && !testing::Test::HasFailure(); ++i) {
                SCOPED_TRACE(testing::Message() << "operation " << i);
                operate();
            }
            m_disk.reset();
            m_model->reopen();
            checkFiles();
            checkContent();
        }
    }

private:
    unsigned int below(__int64 limit) {
        return static_cast<unsigned int>(m_random()) % static_cast<unsigned int>(limit);
    }

    ForeignDisk const& foreign() const { return m_model->disk(); }
    yx::CURI uri() const { return m_folder << utf8(foreign().name); }

    void make(std::size_t level) {
        std::optional<Bytes> content;
        if (level > 0)
            content = m_model->content();
        m_isRegularBelow = level > 0 && isRegularUpTo(level - 1);
        m_parent = level > 0 ? &m_disks[level - 1] : nullptr;
        makeForeignDisk(*m_files, m_folder, m_disks[level], m_parent ? m_parent->name : "",
                        kForeignPassword);
        m_model = std::make_unique<ForeignDiskModel>(m_disks[level], content);
    }

    /// Whether prepared grains can pass through all disks up to this level.
    bool isRegularUpTo(std::size_t level) const {
        ForeignDisk const& first = m_disks.front();
        return std::all_of(m_disks.begin(),
                           m_disks.begin() + static_cast<std::ptrdiff_t>(level) + 1,
                           [&](ForeignDisk const& disk) {
                               return disk.isRegular() && hasForm(disk, first) &&
                                      disk.sizeBytes() % disk.grainSizeBytes() == 0;
                           });
    }

    static bool hasForm(ForeignDisk const& disk, ForeignDisk const& other) {
        return disk.grainSizeBytes() == other.grainSizeBytes() &&
               disk.isCompressed() == other.isCompressed();
    }

    yx::P<kelm::CVMDKDisk> open(yx::IIOStream::Access access) {
        constexpr int kCacheLimits[] = {-1, 1024, 64};
        yx::P<kelm::CVMDKGrainTableCache> const cache =
            yx::makeObject<kelm::CVMDKGrainTableCache>(kCacheLimits[below(3)]);
        return yx::makeObject<kelm::CVMDKDisk>(m_files.get(), uri(), access, kForeignPassword, 1,
                                               cache.get(), nullptr);
    }

    void reopen() {
        m_disk.reset();
        m_model->reopen();
        m_disk = open(yx::IIOStream::ReadWrite);
        EXPECT_EQ(m_disk->getSizeBytes(), foreign().sizeBytes());
        EXPECT_EQ(m_disk->getGrainSizeBytes(), foreign().grainSizeBytes());
    }

    void operate() {
        unsigned int const choice = below(100);
        if (choice < 40)
            write();
        else if (choice < 68)
            read();
        else if (choice < 78)
            writePrepared();
        else if (choice < 84)
            makeIndependent();
        else if (choice < 90)
            askWhetherIndependent();
        else if (choice < 96)
            flush();
        else
            reopen();
    }

    void write() {
        auto const [position, sizeBytes] = drawForeignRange(m_random, *m_model);
        Bytes const bytes = drawForeignContent(m_random, sizeBytes);
        m_disk->seek(position);
        m_disk->write(bytes.data(), static_cast<int>(sizeBytes));
        m_model->write(position, bytes);
        EXPECT_EQ(m_disk->getPosition(), position + sizeBytes);
    }

    void read() {
        auto const [position, sizeBytes] = drawForeignRange(m_random, *m_model);
        Bytes actual(static_cast<std::size_t>(sizeBytes), 0xEE);
        m_disk->seek(position);
        m_disk->read(actual.data(), static_cast<int>(sizeBytes));
        EXPECT_TRUE(sameBytes(m_model->read(position, sizeBytes), actual))
            << sizeBytes << " bytes at " << position;
        EXPECT_EQ(m_disk->getPosition(), position + sizeBytes);
    }

    /// Whether a grain of the disk begins at the position that is one of its extent, too, and in
    /// the disk's form.
    bool isGrainOfDisk(__int64 position) const {
        std::size_t const index = m_model->extentAt(position);
        ForeignExtent const& extent = foreign().extents[index];
        __int64 const grainBytes = foreign().grainSizeBytes();
        return extent.grainSizeSectors * kChainSectorBytes == grainBytes &&
               extent.compressed == foreign().isCompressed() &&
               foreign().startSector(index) * kChainSectorBytes % grainBytes == 0 &&
               m_model->bytesLeftInExtent(position) >= grainBytes;
    }

    __int64 drawGrain() {
        __int64 const position = below(foreign().sizeBytes());
        return position - position % foreign().grainSizeBytes();
    }

    void writePrepared() {
        __int64 const position = drawGrain();
        if (!isGrainOfDisk(position))
            return;
        __int64 const grainBytes = foreign().grainSizeBytes();
        Bytes const bytes = drawForeignContent(m_random, grainBytes);
        Buffer plain = toBuffer(bytes);
        Buffer aux;
        yx::P<kelm::CVMDKDataPreparer> const preparer = m_disk->createDataPreparer();
        m_disk->seek(position);
        m_disk->writePreparedGrainData(
            *preparer->prepareGrainData(&plain, position / grainBytes, &aux));
        m_model->writePrepared(position, bytes);
        EXPECT_EQ(m_disk->getPosition(), position + grainBytes);
    }

    void makeIndependent() {
        __int64 const position = drawGrain();
        if (!m_parent || !isGrainOfDisk(position))
            return;
        // Otherwise changes without a place would be dropped.
        flush();
        __int64 const grainIndex = position / foreign().grainSizeBytes();
        bool const isStored = m_model->isStored(position);
        if (isStored || (m_isRegularBelow && hasForm(*m_parent, foreign()))) {
            __int64 const result = m_disk->makeGrainIndependentOfParent(grainIndex);
            m_model->makeIndependent(position);
            EXPECT_EQ(m_disk->getPosition(), position + foreign().grainSizeBytes());
            if (isStored || !foreign().isCompressed()) {
                EXPECT_EQ(result, foreign().grainSizeBytes());
            } else {
                EXPECT_GT(result, 0);
            }
            return;
        }
        if (hasForm(*m_parent, foreign()))
            return;
        std::string message;
        try {
            m_disk->makeGrainIndependentOfParent(grainIndex);
        } catch (yx::CError const& error) {
            message = error.getMessage().toStdString();
        }
        EXPECT_EQ(message, "Parent disk is incompatible with diff disk.");
        m_model->enter(position);
    }

    void askWhetherIndependent() {
        __int64 const position = below(foreign().sizeBytes());
        m_disk->seek(position);
        EXPECT_EQ(m_disk->isGrainWrittenAndIndependentOfParent(), m_model->isIndependent(position))
            << "at " << position;
        EXPECT_EQ(m_disk->getPosition(), position);
    }

    void flush() {
        m_disk->flushChanges();
        m_model->flush();
    }

    /// Every extent file is sound, and holds the grains that the model has stored.
    void checkFiles() {
        for (std::size_t i = 0; i < foreign().extents.size(); ++i) {
            yx::CURI const file = m_folder << utf8(foreign().extentName(i));
            __int64 const start = foreign().startSector(i) * kChainSectorBytes;
            __int64 const grainBytes = foreign().extents[i].grainSizeSectors * kChainSectorBytes;
            ExtentReport report;
            if (m_files->fileExists(file))
                report = checkExtent(m_files->getFile(file),
                                     static_cast<std::uint64_t>(foreign().startGrainIndex(i)));
            EXPECT_EQ(report.text(), "") << file;
            for (__int64 grain = 0;
                 grain * grainBytes < foreign().extents[i].sizeSectors * kChainSectorBytes; ++grain)
                EXPECT_EQ(report.grains.count(static_cast<std::uint64_t>(grain)),
                          m_model->isStored(start + grain * grainBytes) ? 1U : 0U)
                    << file << ", grain " << grain;
        }
    }

    /// The whole disk, read in pieces of random size.
    void checkContent() {
        yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadOnly);
        Bytes actual(static_cast<std::size_t>(foreign().sizeBytes()), 0xEE);
        for (__int64 done = 0; done < foreign().sizeBytes();) {
            __int64 const step =
                std::min<__int64>(foreign().sizeBytes() - done, 1 + below(1 << 20));
            disk->read(actual.data() + done, static_cast<int>(step));
            done += step;
        }
        EXPECT_TRUE(sameBytes(m_model->content(), actual));
    }

    std::mt19937 m_random;
    std::vector<ForeignDisk> m_disks;
    yx::P<yx::CMemoryFileSystem> m_files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI m_folder{"mem:///chain"};
    ForeignDisk const* m_parent = nullptr;
    bool m_isRegularBelow = false;
    std::unique_ptr<ForeignDiskModel> m_model;
    yx::P<kelm::CVMDKDisk> m_disk;
};

TEST(ChainModel, ChainsOfMixedDisksReadAsByteArraysDo) {
    for (unsigned int i = 0; i < kUsualChains * modelRounds(); ++i) {
        SCOPED_TRACE(testing::Message() << "seed " << kFirstSeed + i);
        Chain(kFirstSeed + i).run();
        if (HasFailure())
            return;
    }
}

TEST(ChainModel, DrawnChainsHaveEveryMixture) {
    bool hasSmallest = false;
    bool hasLargest = false;
    bool mixesGrainSizes = false;
    bool mixesForms = false;
    bool hasShortGrain = false;
    bool isOnDemand = false;
    bool isEncrypted = false;
    bool isEmbedded = false;
    bool isUniform = false;
    bool hasOtherThanItsParent = false;
    std::size_t longest = 0;
    for (unsigned int i = 0; i < kChainsToLookAt; ++i) {
        std::mt19937 random(kFirstSeed + i);
        std::vector<ForeignDisk> const chain = drawForeignChain(random);
        longest = std::max(longest, chain.size());
        bool isRegular = true;
        for (ForeignDisk const& disk : chain) {
            isEncrypted = isEncrypted || !disk.password.empty();
            isEmbedded = isEmbedded || disk.embedded;
            isRegular = isRegular && disk.isRegular() &&
                        disk.grainSizeBytes() == chain.front().grainSizeBytes();
            hasOtherThanItsParent =
                hasOtherThanItsParent || disk.grainSizeBytes() != chain.front().grainSizeBytes();
            for (ForeignExtent const& extent : disk.extents) {
                hasSmallest = hasSmallest || extent.grainSizeSectors == 8;
                hasLargest = hasLargest || extent.grainSizeSectors == 2048;
                mixesGrainSizes = mixesGrainSizes ||
                                  extent.grainSizeSectors != disk.extents.front().grainSizeSectors;
                mixesForms = mixesForms || extent.compressed != disk.extents.front().compressed;
                hasShortGrain = hasShortGrain || extent.sizeSectors % extent.grainSizeSectors != 0;
                isOnDemand = isOnDemand || extent.onDemand;
            }
        }
        isUniform = isUniform || isRegular;
    }
    EXPECT_TRUE(hasSmallest);
    EXPECT_TRUE(hasLargest);
    EXPECT_TRUE(mixesGrainSizes);
    EXPECT_TRUE(mixesForms);
    EXPECT_TRUE(hasShortGrain);
    EXPECT_TRUE(isOnDemand);
    EXPECT_TRUE(isEncrypted);
    EXPECT_TRUE(isEmbedded);
    EXPECT_TRUE(isUniform);
    EXPECT_TRUE(hasOtherThanItsParent);
    EXPECT_EQ(longest, 4U);
}

} // namespace
} // namespace test_support
