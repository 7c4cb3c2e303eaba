// Chains of two to four disks of other software, of mixed grain size, form and length, through
// `SafeDisk` and every transfer, against byte arrays. KELM_MODEL_ROUNDS multiplies the number of
// chains; `make soak` takes 2,000.

#include <algorithm>
#include <random>

#include "host/disk/parent_link.h"
#include "host/transfer/compare.h"
#include "host/transfer/disk_content_reader.h"
#include "host/transfer/disk_map.h"
#include "host/transfer/raw_content_reader.h"
#include "tests/host/host_fixture.h"
#include "tests/support/filled_foreign_chain.h"
#include "tests/support/model_rounds.h"

namespace test_support {
namespace {

using kelm::host::Comparison;
using kelm::host::DiskContentReader;
using kelm::host::forEachGrainRun;
using kelm::host::GrainPlace;
using kelm::host::GrainRun;
using kelm::host::RawContentReader;
using kelm::host::RawSource;
using kelm::host::RawTarget;
using kelm::host::WorkOptions;

constexpr unsigned int kFirstSeed = 20270000;
constexpr unsigned int kUsualChains = 10;
constexpr int kOperations = 25;
constexpr __int64 kMapStepBytes = 512;

class ForeignChainModel : public HostTest {
protected:
    void run(unsigned int seed) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        m_chain = std::make_unique<FilledForeignChain>(*files, yx::CURI("mem:///disks"), seed);
        SCOPED_TRACE(testing::Message() << "seed " << seed << *m_chain);
        try {
            checkEachLevel();
            checkChild();
            checkTopForWriting();
        } catch (yx::CError const& error) {
            ADD_FAILURE() << error.what();
        }
    }

private:
    unsigned int below(__int64 limit) {
        return static_cast<unsigned int>(m_chain->random()()) % static_cast<unsigned int>(limit);
    }

    WorkOptions drawOptions() {
        WorkOptions options;
        options.threads = 1 + static_cast<int>(below(3));
        return options;
    }

    std::unique_ptr<SafeDisk> openAny(std::string const& name, yx::IIOStream::Access access) {
        return openSafe(name, access, kForeignPassword);
    }

    std::size_t top() const { return m_chain->getLength() - 1; }

    void checkEachLevel() {
        for (std::size_t level = 0; level <= top(); ++level) {
            ForeignDisk const& disk = m_chain->disk(level);
            SCOPED_TRACE(disk.name);
            std::unique_ptr<SafeDisk> const opened = openAny(disk.name, kReadOnly);
            checkReading(*opened, m_chain->content(level));
            checkMapAgainst(*opened, m_chain->model(level));
        }
    }

    /// Everything that reads a disk gives `expected`, and what takes a short cut skips nothing.
    void checkReading(SafeDisk& disk, Bytes const& expected) {
        ASSERT_EQ(disk.getSizeBytes(), static_cast<__int64>(expected.size()));
        checkPieces(disk, expected);
        checkGrains(disk, expected);
        checkMap(disk, expected);
        checkExport(disk, expected);
        checkCompare(disk, expected);
        checkConversion(disk, expected);
        // By now the tables of the chain are merged, where that can be.
        checkPieces(disk, expected);
        checkGrains(disk, expected);
    }

    void checkPieces(SafeDisk& disk, Bytes const& expected) {
        Bytes actual(expected.size(), 0xEE);
        for (__int64 done = 0; done < disk.getSizeBytes();) {
            __int64 const step =
                std::min<__int64>(disk.getSizeBytes() - done, 1 + below(__int64{1} << 20));
            disk.read(done, actual.data() + done, static_cast<int>(step));
            done += step;
        }
        EXPECT_TRUE(sameBytes(expected, actual));
    }

    void checkGrains(SafeDisk& disk, Bytes const& expected) {
        auto const grainBytes = static_cast<std::size_t>(disk.getGrainSizeBytes());
        yx::P<kelm::CVMDKDataPreparer> const preparer = disk.getDisk().createDataPreparer();
        Buffer prepared;
        Buffer aux;
        for (__int64 grain = 0; grain < disk.getGrainCount(); ++grain) {
            Bytes const content =
                slice(expected, static_cast<std::size_t>(grain) * grainBytes, grainBytes);
            if (!disk.isGrainWritten(grain)) {
                EXPECT_TRUE(sameBytes(zeros(content.size()), content)) << "grain " << grain;
            }
            if (disk.tryReadPreparedGrain(grain, prepared)) {
                EXPECT_TRUE(sameBytes(content, *preparer->unprepareGrainData(&prepared, &aux)))
                    << "prepared grain " << grain;
            }
        }
    }

    std::vector<GrainRun> mapOf(SafeDisk& disk) {
        std::vector<GrainRun> runs;
        forEachGrainRun(disk, {}, [&runs](GrainRun const& run) { runs.push_back(run); });
        return runs;
    }

    void checkMap(SafeDisk& disk, Bytes const& expected) {
        __int64 endBytes = 0;
        for (GrainRun const& run : mapOf(disk)) {
            EXPECT_EQ(run.startBytes, endBytes);
            endBytes = run.endBytes();
            if (run.place == GrainPlace::Absent) {
                EXPECT_TRUE(sameBytes(zeros(static_cast<std::size_t>(run.lengthBytes)),
                                      slice(expected, static_cast<std::size_t>(run.startBytes),
                                            static_cast<std::size_t>(run.lengthBytes))))
                    << "at " << run.startBytes;
            }
        }
        EXPECT_EQ(endBytes, disk.getSizeBytes());
    }

    void checkMapAgainst(SafeDisk& disk, ForeignDiskModel const& model) {
        for (GrainRun const& run : mapOf(disk)) {
            for (__int64 at = run.startBytes; at < run.endBytes(); at += kMapStepBytes) {
                ASSERT_EQ(run.place == GrainPlace::Here, model.isStored(at)) << "at " << at;
            }
        }
    }

    void checkExport(SafeDisk& disk, Bytes const& expected) {
        RawTarget target(pathOf("out.raw"), true);
        exportRaw(disk, target, drawOptions());
        EXPECT_TRUE(sameBytes(expected, readImage(pathOf("out.raw"))));
    }

    Comparison compareWith(SafeDisk& disk, Bytes const& image) {
        RawSource source(putImage("compared.raw", image));
        RawContentReader imageReader(source);
        DiskContentReader diskReader(disk);
        return compareContent(diskReader, imageReader, {});
    }

    void checkCompare(SafeDisk& disk, Bytes const& expected) {
        EXPECT_TRUE(compareWith(disk, expected).isEqual());
        Bytes changed = expected;
        std::size_t const place = below(disk.getSizeBytes());
        changed[place] ^= 0x11;
        Comparison const result = compareWith(disk, changed);
        EXPECT_EQ(result.firstDifferenceBytes, static_cast<__int64>(place));
        EXPECT_EQ(result.differingBytes, 1);
    }

    DiskKind drawKind() {
        std::vector<DiskKind> const kinds = allDiskKinds();
        return kinds[below(static_cast<__int64>(kinds.size()))];
    }

    /// A disk has the password of its parents.
    bool needsPassword(DiskKind const& kind, std::string const& parent) const {
        bool isNeeded = *kind.password != '\0';
        for (std::size_t level = 0; !parent.empty() && level <= top(); ++level)
            isNeeded = isNeeded || !m_chain->disk(level).password.empty();
        return isNeeded;
    }

    std::unique_ptr<SafeDisk> createAnew(DiskKind const& kind, std::string const& name,
                                         std::string const& parent, __int64 sizeBytes) {
        NewDisk request = requestFor(kind, sizeBytes);
        if (!parent.empty())
            request.parent = uriOf(parent);
        request.password = needsPassword(kind, parent) ? kForeignPassword : "";
        yx::P<FileGuard> const guard = makeGuard(true);
        guard->keep();
        return SafeDisk::create(guard.get(), uriOf(name), request);
    }

    void checkConversion(SafeDisk& disk, Bytes const& expected) {
        DiskKind const kind = drawKind();
        SCOPED_TRACE(std::string("converted to ") + kind.name);
        {
            std::unique_ptr<SafeDisk> const copy =
                createAnew(kind, "copy.vmdk", "", disk.getSizeBytes());
            convertDisk(disk, *copy, drawOptions());
        }
        std::unique_ptr<SafeDisk> const copy = openAny("copy.vmdk", kReadOnly);
        checkPieces(*copy, padded(expected, copy->getSizeBytes()));
    }

    /// A disk of ours over the chain.
    void checkChild() {
        DiskKind const kind = drawKind();
        SCOPED_TRACE(std::string("child of the kind ") + kind.name);
        Bytes content;
        {
            std::unique_ptr<SafeDisk> const child =
                createAnew(kind, "child.vmdk", m_chain->disk(top()).name,
                           m_chain->disk(top()).sizeBytes() + below(2) * 1000000);
            content = padded(m_chain->content(top()), child->getSizeBytes());
        }
        operate("child.vmdk", content);
        checkReading(*openAny("child.vmdk", kReadOnly), content);
        checkImportOverParent();
        checkFlattening("child.vmdk", content);
    }

    void checkImportOverParent() {
        Bytes image = m_chain->content(top());
        std::unique_ptr<SafeDisk> child = createAnew(
            drawKind(), "next.vmdk", m_chain->disk(top()).name, m_chain->disk(top()).sizeBytes());
        for (unsigned int changes = below(4); changes > 0; --changes) {
            ForeignRange const range = drawForeignRange(m_chain->random(), m_chain->model(top()));
            Bytes const bytes = drawForeignContent(m_chain->random(), range.sizeBytes);
            std::copy(bytes.begin(), bytes.end(),
                      image.begin() + static_cast<std::ptrdiff_t>(range.position));
        }
        RawSource source(putImage("next.raw", image));
        importRaw(source, *child, drawOptions());
        Bytes const expected = padded(image, child->getSizeBytes());
        child.reset();
        child = openAny("next.vmdk", kReadOnly);
        checkPieces(*child, expected);
        checkMap(*child, expected);
    }

    /// Does not need its parents afterwards.
    void checkFlattening(std::string const& name, Bytes const& content) {
        {
            std::unique_ptr<SafeDisk> const disk = openAny(name, kReadWrite);
            makeIndependentOfParent(*disk, drawOptions());
            for (__int64 grain = 0; grain < disk->getGrainCount(); ++grain) {
                if (disk->isWholeGrain(grain)) {
                    EXPECT_EQ(disk->isGrainWritten(grain), disk->isGrainWrittenHere(grain))
                        << "grain " << grain;
                }
            }
            dropParentLink(*disk);
        }
        std::unique_ptr<SafeDisk> const disk = openAny(name, kReadOnly);
        EXPECT_FALSE(disk->hasParent());
        checkReading(*disk, content);
    }

    /// A disk of others that is written to by us.
    void checkTopForWriting() {
        ForeignDisk const& disk = m_chain->disk(top());
        SCOPED_TRACE("written to: " + disk.name);
        if (!areExtentsWholeGrainsOf(disk))
            return;
        Bytes content = m_chain->content(top());
        operate(disk.name, content);
        checkReading(*openAny(disk.name, kReadOnly), content);
        checkFlattening(disk.name, content);
    }

    static bool areExtentsWholeGrainsOf(ForeignDisk const& disk) {
        return std::all_of(
            disk.extents.begin(), disk.extents.end() - 1, [&disk](ForeignExtent const& extent) {
                return extent.sizeSectors % disk.extents.front().grainSizeSectors == 0;
            });
    }

    /// Changes a disk in every way that there is, and `content` in the same way.
    void operate(std::string const& name, Bytes& content) {
        std::unique_ptr<SafeDisk> disk = openAny(name, kReadWrite);
        for (int i = 0; i < kOperations && !HasFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << "operation " << i);
            __int64 const position = below(disk->getSizeBytes());
            __int64 const sizeBytes = std::min<__int64>(1 + below(3 * disk->getGrainSizeBytes()),
                                                        disk->getSizeBytes() - position);
            unsigned int const choice = below(100);
            if (choice < 35)
                write(*disk, position, sizeBytes, content);
            else if (choice < 60)
                writeZeros(*disk, position, sizeBytes, content);
            else if (choice < 75)
                disk->makeGrainIndependentOfParent(position / disk->getGrainSizeBytes());
            else if (choice < 85)
                writePrepared(*disk, position / disk->getGrainSizeBytes(), content);
            else if (choice < 95)
                disk->flush();
            else
                reopen(disk, name);
            checkAround(*disk, position, sizeBytes, content);
        }
        disk->flush();
        checkPieces(*disk, content);
    }

    void reopen(std::unique_ptr<SafeDisk>& disk, std::string const& name) {
        disk.reset();
        disk = openAny(name, kReadWrite);
    }

    void write(SafeDisk& disk, __int64 position, __int64 sizeBytes, Bytes& content) {
        Bytes const bytes = drawForeignContent(m_chain->random(), sizeBytes);
        writeTo(disk, position, bytes);
        std::copy(bytes.begin(), bytes.end(),
                  content.begin() + static_cast<std::ptrdiff_t>(position));
    }

    static void writeZeros(SafeDisk& disk, __int64 position, __int64 sizeBytes, Bytes& content) {
        disk.writeZeros(position, sizeBytes);
        std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(position), sizeBytes,
                    static_cast<unsigned char>(0));
    }

    void writePrepared(SafeDisk& disk, __int64 grain, Bytes& content) {
        if (!disk.isWholeGrain(grain))
            return;
        Bytes const bytes = drawForeignContent(m_chain->random(), disk.getGrainSizeBytes());
        Buffer plain = toBuffer(bytes);
        Buffer aux;
        disk.writePreparedGrain(
            grain, *disk.getDisk().createDataPreparer()->prepareGrainData(&plain, grain, &aux));
        std::copy(bytes.begin(), bytes.end(),
                  content.begin() + static_cast<std::ptrdiff_t>(grain * disk.getGrainSizeBytes()));
    }

    /// Also looks at another place, so that the grain is stored.
    void checkAround(SafeDisk& disk, __int64 position, __int64 sizeBytes, Bytes const& content) {
        __int64 const otherPlace = below(disk.getSizeBytes());
        EXPECT_EQ(readFrom(disk, otherPlace, 1).front(),
                  content[static_cast<std::size_t>(otherPlace)])
            << "at " << otherPlace;
        __int64 const first = std::max<__int64>(position - 5000, 0);
        __int64 const end = std::min(position + sizeBytes + 5000, disk.getSizeBytes());
        EXPECT_TRUE(sameBytes(
            slice(content, static_cast<std::size_t>(first), static_cast<std::size_t>(end - first)),
            readFrom(disk, first, static_cast<std::size_t>(end - first))))
            << "around " << position;
    }

    std::unique_ptr<FilledForeignChain> m_chain;
};

TEST_F(ForeignChainModel, ReadsAsByteArraysOnEveryRoad) {
    for (unsigned int i = 0; i < kUsualChains * modelRounds() && !HasFailure(); ++i)
        run(kFirstSeed + i);
}

} // namespace
} // namespace test_support
