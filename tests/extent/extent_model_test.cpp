// Extents of every kind against plain arrays, on sound files and on files that fail.
// KELM_MODEL_ROUNDS multiplies the number of histories.

#include <random>

#include "kelm/extent/null_extent_file.h"
#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/grain_contents.h"
#include "tests/support/model_rounds.h"

namespace extent_test {

namespace {

using kelm::IVMDKExtentFile;

/// What a run of operations works on.
struct Subject {
    char const* name;
    Kind kind;
    bool hasFile = true; ///< a sparse extent from the start
    bool onDemand = false;
};

constexpr Subject kSubjects[] = {
    {"null", kPlain, false, false},
    {"plain", kPlain},
    {"compressed", kCompressed},
    {"enciphered", kEnciphered},
    {"compressed and enciphered", kCompressedAndEnciphered},
    {"on demand", kPlain, false, true},
    {"on demand, compressed and enciphered", kCompressedAndEnciphered, false, true},
};

struct Geometry {
    __int64 grainSizeSectors;
    __int64 grainCount;
    __int64 missingSectors; ///< by which the capacity falls short of whole grains
    int operations;
};

/// What the files of a run do.
enum class Files {
    Work,
    Fail, ///< now and then an operation on them does
};

/// Together, over all subjects with and without a provider, somewhat more than 50,000 operations.
constexpr Geometry kGeometries[] = {
    {1, 1100, 0, 2200}, {8, 40, 3, 1050}, {64, 13, 1, 250}, {128, 7, 77, 100}, {2048, 3, 2047, 12},
};

/// A parent in plain bytes, which hands out records as other software makes them.
class ModelProvider : public yx::CBase, public virtual kelm::IVMDKDataProvider {
public:
    ModelProvider(std::size_t sizeBytes, __int64 grainSizeBytes, unsigned int seed)
        : m_bytes(sizeBytes), m_grainSizeBytes(grainSizeBytes) {
        std::mt19937 random(seed);
        auto const grain = static_cast<std::size_t>(grainSizeBytes);
        for (std::size_t begin = 0; begin < sizeBytes; begin += grain) {
            // One in three has nothing.
            if (random() % 3 == 0)
                continue;
            Bytes const bytes =
                test_support::textPattern(grain, static_cast<unsigned int>(random()));
            std::copy_n(bytes.begin(), std::min(grain, sizeBytes - begin),
                        m_bytes.begin() + static_cast<std::ptrdiff_t>(begin));
        }
    }

    Bytes at(__int64 position, __int64 sizeBytes) const {
        Bytes bytes =
            slice(m_bytes, static_cast<std::size_t>(position), static_cast<std::size_t>(sizeBytes));
        bytes.resize(static_cast<std::size_t>(sizeBytes));
        return bytes;
    }

    bool isWritten(__int64 position) const {
        Bytes const bytes = at(position, m_grainSizeBytes);
        return bytes != zeros(bytes.size());
    }

    void getData(__int64 position, void* buffer, int bytes) override {
        Bytes const data = at(position, bytes);
        yx::copyMemory(buffer, data.data(), data.size());
    }

    void getPreparedGrainData(__int64 position, Buffer& data, int grainSizeBytes,
                              bool compressed) override {
        EXPECT_EQ(grainSizeBytes, m_grainSizeBytes);
        Bytes const plain = at(position, grainSizeBytes);
        data.assign(toBuffer(
            compressed ? test_support::makeRecord(static_cast<unsigned long long>(position / 512),
                                                  test_support::compressWithZlib(plain, 1))
                       : plain));
    }

    bool isGrainWritten(__int64 position) override { return isWritten(position); }

private:
    Bytes m_bytes;
    __int64 m_grainSizeBytes;
};

/// What an extent is to hold and to answer, in plain arrays.
class Model {
public:
    Model(Geometry const& geometry, ModelProvider* provider, bool hasMemory)
        : m_grainSizeBytes(geometry.grainSizeSectors * 512),
          m_provider(provider),
          m_hasMemory(hasMemory),
          m_grains(static_cast<std::size_t>(geometry.grainCount) + 1) {}

    __int64 position() const { return m_position; }
    bool hasMemory() const { return m_hasMemory; }
    __int64 grainUnderCursor() const { return m_position / m_grainSizeBytes; }
    bool isStored(__int64 grain) const { return at(grain).stored; }

    void seek(__int64 position) {
        m_position = position;
        enter(grainUnderCursor());
    }

    Bytes read(__int64 sizeBytes) {
        Bytes result;
        while (sizeBytes > 0) {
            __int64 const step = beginStep(sizeBytes);
            Bytes const grain = visible(grainUnderCursor());
            Bytes const part = slice(grain, offset(), static_cast<std::size_t>(step));
            result.insert(result.end(), part.begin(), part.end());
            m_position += step;
            sizeBytes -= step;
        }
        return result;
    }

    void write(Bytes source) {
        while (!source.empty()) {
            auto const step =
                static_cast<std::size_t>(beginStep(static_cast<__int64>(source.size())));
            __int64 const index = grainUnderCursor();
            Bytes bytes = visible(index);
            std::copy_n(source.begin(), step,
                        bytes.begin() + static_cast<std::ptrdiff_t>(offset()));
            at(index).bytes = bytes;
            m_loaded = true;
            m_dirty = true;
            m_position += static_cast<__int64>(step);
            source.erase(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(step));
        }
    }

    void flush() {
        if (!m_dirty)
            return;
        m_dirty = false;
        Grain& grain = at(m_current);
        // Zeros without a place get none, whatever the provider has.
        if (grain.stored || grain.bytes != zeros(grain.bytes.size()))
            grain.stored = true;
    }

    void writePrepared(Bytes const& plain) {
        beginStep(m_grainSizeBytes);
        at(m_current).bytes = plain;
        at(m_current).stored = true;
        m_loaded = false;
        m_dirty = false;
        m_position += m_grainSizeBytes;
    }

    Bytes readPrepared() {
        beginStep(m_grainSizeBytes);
        flush();
        m_position += m_grainSizeBytes;
        return at(m_current).stored ? at(m_current).bytes : fallback(m_current);
    }

    /// Only with a provider.
    bool makeIndependent(__int64 grain) {
        seek(grain * m_grainSizeBytes);
        bool const isNew = !at(grain).stored;
        if (isNew) {
            // Changes in memory are dropped.
            at(grain).bytes = fallback(grain);
            at(grain).stored = true;
            m_loaded = false;
            m_dirty = false;
        }
        m_position += m_grainSizeBytes;
        return isNew;
    }

    bool isIndependent() {
        beginStep(1);
        return m_dirty || at(m_current).stored;
    }

    bool isWritten() {
        return isIndependent() ||
               (m_provider &&
                m_provider->isWritten((grainUnderCursor() + kStartGrainIndex) * m_grainSizeBytes));
    }

    /// A null extent has become a file.
    void gainMemory() {
        if (m_hasMemory)
            return;
        m_hasMemory = true;
        enter(grainUnderCursor());
    }

    void reopen() {
        flush();
        m_current = -1;
        m_loaded = false;
        m_position = 0;
    }

private:
    struct Grain {
        Bytes bytes;
        bool stored = false;
    };

    Grain& at(__int64 grain) { return m_grains.at(static_cast<std::size_t>(grain)); }
    Grain const& at(__int64 grain) const { return m_grains.at(static_cast<std::size_t>(grain)); }
    std::size_t offset() const { return static_cast<std::size_t>(m_position % m_grainSizeBytes); }

    Bytes fallback(__int64 grain) const {
        return m_provider
                   ? m_provider->at((grain + kStartGrainIndex) * m_grainSizeBytes, m_grainSizeBytes)
                   : zeros(static_cast<std::size_t>(m_grainSizeBytes));
    }

    Bytes visible(__int64 grain) const {
        bool const inMemory = grain == m_current && m_loaded;
        return at(grain).stored || inMemory ? at(grain).bytes : fallback(grain);
    }

    void enter(__int64 grain) {
        if (!m_hasMemory || grain == m_current)
            return;
        flush();
        m_current = grain;
        m_loaded = false;
    }

    /// The step onto the grain under the cursor is made by the operation that needs it.
    __int64 beginStep(__int64 maxBytes) {
        enter(grainUnderCursor());
        if (!m_hasMemory)
            m_current = grainUnderCursor();
        return std::min(maxBytes, m_grainSizeBytes - m_position % m_grainSizeBytes);
    }

    __int64 m_grainSizeBytes;
    ModelProvider* m_provider;
    bool m_hasMemory;
    std::vector<Grain> m_grains;
    __int64 m_position = 0;
    __int64 m_current = -1;
    bool m_loaded = false;
    bool m_dirty = false;
};

/// Drives an extent and the model side by side.
class ExtentModel : public ExtentTest {
protected:
    void run(Subject const& subject, Geometry const& geometry, bool hasProvider, Files filesThat,
             unsigned int seed) {
        m_doFilesFail = filesThat == Files::Fail;
        m_subject = &subject;
        m_geometry = &geometry;
        m_grainSizeBytes = geometry.grainSizeSectors * 512;
        // An extent on demand is a whole number of grains.
        __int64 const sectors = geometry.grainSizeSectors * geometry.grainCount -
                                (subject.onDemand ? 0 : geometry.missingSectors);
        m_capacityBytes = sectors * 512;
        m_random.seed(seed);
        m_parent.reset();
        if (hasProvider) {
            // It ends amid the extent, as a smaller parent does.
            m_parent = yx::makeObject<ModelProvider>(
                static_cast<std::size_t>(kStartGrainIndex * m_grainSizeBytes +
                                         m_capacityBytes * 3 / 4),
                m_grainSizeBytes, seed);
        }
        memory->deleteFile(uri, true);
        if (subject.hasFile) {
            createExtent(subject.kind, geometry.grainCount, geometry.grainSizeSectors);
            setHeaderField(kCapacityOffset, static_cast<unsigned long long>(sectors), 8);
        }
        m_model = std::make_unique<Model>(geometry, m_parent.get(), subject.hasFile);
        open();
        for (int i = 0; i < geometry.operations && !HasFailure(); ++i) {
            SCOPED_TRACE("operation " + std::to_string(i));
            operate();
        }
        finish();
    }

    /// How many operations have failed.
    int failures() const { return m_failures; }

private:
    void open() {
        yx::P<kelm::CVMDKGrainTableCache> const cache =
            yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        Kind const& kind = m_subject->kind;
        if (m_subject->hasFile) {
            m_extent = openExtent(kind, {.provider = m_parent.get(),
                                         .bare = m_doFilesFail && below(2) == 0,
                                         .through = m_faults.get()});
            return;
        }
        __int64 const sectors = m_capacityBytes / 512;
        if (!m_subject->onDemand) {
            m_extent = yx::makeObject<kelm::CVMDKNullExtentFile>(
                uri, kStartGrainIndex, m_geometry->grainSizeSectors, sectors, 512, kind.compressed,
                6, m_parent.get());
            return;
        }
        m_extent = yx::makeObject<kelm::CVMDKOnDemandExtentFile>(
            m_faults.get(), uri, IIOStream::ReadWrite, kStartGrainIndex,
            m_geometry->grainSizeSectors, sectors, 512, kind.compressed, 6, m_parent.get(),
            cache.get(), updater.get(), kind.enciphered ? cipher.get() : nullptr,
            cryptBuffer(kind.enciphered ? keyBytes() : Bytes()),
            toBuffer(kind.enciphered ? iv : Bytes()),
            toBuffer(kind.enciphered ? keyHash() : Bytes()));
    }

    bool isNull() const { return !m_subject->hasFile && !m_subject->onDemand; }
    bool isCompressed() const { return m_subject->kind.compressed; }

    __int64 below(__int64 limit) {
        return static_cast<__int64>(m_random() % static_cast<unsigned long long>(limit));
    }

    /// Does `action`, in runs with files that fail sometimes twice: the first time with a fault to
    /// come. If that hits, the extent must be as usable as before, with its cursor at the start of
    /// the step that failed; so `action` goes on from the cursor.
    template <class Action>
    void perform(Action const& action) {
        using Kind = test_support::FileOperation::Kind;
        if (!m_doFilesFail || below(3) != 0) {
            action();
            return;
        }
        Kind const kinds[] = {Kind::Read, Kind::Write, Kind::Flush, Kind::SetLength};
        m_faults->add({.kinds = {kinds[below(4)], kinds[below(2)]},
                       .nth = static_cast<int>(1 + below(4)),
                       .sticky = below(2) == 0});
        __int64 const before = m_extent->getPosition();
        try {
            action();
            m_faults->clear();
            return;
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getMessage(), "Injected failure.");
            EXPECT_GT(m_faults->hits(), 0);
        }
        m_faults->clear();
        ++m_failures;
        __int64 const position = m_extent->getPosition();
        if (m_subject->onDemand && !m_model->hasMemory() && position == 0) {
            // An extent whose file has just been made stands at its start if the seek there failed.
            m_extent->seek(before);
            action();
            return;
        }
        EXPECT_TRUE(position == before || position % m_grainSizeBytes == 0)
            << "from " << before << " to " << position;
        action();
    }

    /// Zeros, text, noise, or single bytes: what compresses in every way.
    Bytes makeContent(__int64 sizeBytes) {
        auto const size = static_cast<std::size_t>(sizeBytes);
        auto const seed = static_cast<unsigned int>(m_random());
        switch (below(5)) {
        case 0:
        case 1:
            return zeros(size);
        case 2:
            return test_support::textPattern(size, seed);
        case 3:
            return pattern(size, seed);
        default:
            return test_support::sparse(size, seed);
        }
    }

    /// A size that ends amid a grain, at a grain's end, or grains further on.
    __int64 makeSize() {
        __int64 const left = m_capacityBytes - m_model->position();
        __int64 const toGrainEnd = m_grainSizeBytes - m_model->position() % m_grainSizeBytes;
        __int64 size = 0;
        switch (below(4)) {
        case 0:
            size = toGrainEnd;
            break;
        case 1:
            size = toGrainEnd + below(2 * m_grainSizeBytes);
            break;
        case 2:
            size = below(m_grainSizeBytes);
            break;
        default:
            size = m_grainSizeBytes;
        }
        return std::min(size, left);
    }

    void operate() {
        switch (below(17)) {
        case 16:
            misuse();
            break;
        case 0:
        case 1:
        case 2:
            seek(below(m_capacityBytes + 1));
            break;
        case 3:
            seek(below(m_geometry->grainCount) * m_grainSizeBytes);
            break;
        case 4:
        case 5:
        case 6:
            readSome();
            break;
        case 7:
        case 8:
        case 9:
            writeSome();
            break;
        case 10:
            if (standOnWholeGrain())
                readPrepared();
            break;
        case 11:
            if (standOnWholeGrain())
                writePrepared();
            break;
        case 12:
            makeIndependent();
            break;
        case 13:
            askWhetherWritten();
            break;
        case 14:
            perform([&] { m_extent->flushChanges(); });
            m_model->flush();
            break;
        default:
            if (below(4) == 0)
                reopen();
        }
        EXPECT_EQ(m_extent->getPosition(), m_model->position());
    }

    void seek(__int64 position) {
        perform([&] { m_extent->seek(position); });
        m_model->seek(position);
    }

    /// Puts the cursor to a grain's start; false if none is whole.
    bool standOnWholeGrain() {
        __int64 const wholeGrains = m_capacityBytes / m_grainSizeBytes;
        if (wholeGrains == 0)
            return false;
        seek(below(wholeGrains) * m_grainSizeBytes);
        return true;
    }

    void readSome() {
        __int64 const size = makeSize();
        __int64 const start = m_model->position();
        Bytes target(static_cast<std::size_t>(size), 0xEE);
        perform([&] {
            __int64 const done = m_extent->getPosition() - start;
            m_extent->read(target.data() + done, static_cast<int>(size - done));
        });
        EXPECT_TRUE(sameBytes(m_model->read(size), target));
    }

    void writeSome() {
        Bytes const source = makeContent(makeSize());
        __int64 const start = m_model->position();
        auto const write = [&] {
            __int64 const done = m_extent->getPosition() - start;
            m_extent->write(source.data() + done,
                            static_cast<int>(source.size()) - static_cast<int>(done));
        };
        if (isNull()) {
            EXPECT_TRUE(refuses("write", write));
            return;
        }
        perform(write);
        m_model->gainMemory();
        m_model->write(source);
    }

    /// What a null extent says to every attempt to write.
    static testing::AssertionResult refuses(std::string const& operation,
                                            std::function<void()> const& action) {
        return throwsError("Internal error: " + operation +
                               " method called on VMDK null extent file.",
                           {{"uri", kExtentURI}}, action);
    }

    /// Requests that are refused, and leave the cursor where it is.
    void misuse() {
        __int64 const position = m_model->position();
        std::string const at = std::to_string(position);
        std::string const form = m_model->hasMemory() ? "sparse" : "null";
        int const tooMany = static_cast<int>(m_capacityBytes - position + 1 + below(600));
        Bytes buffer(static_cast<std::size_t>(tooMany), 1);
        switch (below(3)) {
        case 0:
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::UnexpectedEnd,
                "Unexpected end of data reading from VMDK " + form + " extent file.",
                {{"uri", kExtentURI}, {"position", at}, {"bytesToRead", std::to_string(tooMany)}},
                [&] { m_extent->read(buffer.data(), tooMany); }));
            break;
        case 1: {
            __int64 const outside = below(2) == 0 ? -1 : m_capacityBytes + 1 + below(600);
            EXPECT_TRUE(throwsInvalidArg(m_model->hasMemory() ? "CVMDKSparseExtentFile::seek"
                                                              : "CVMDKNullExtentFile::seek",
                                         "Invalid position: " + std::to_string(outside),
                                         {{"uri", kExtentURI}}, [&] { m_extent->seek(outside); }));
            break;
        }
        default:
            if (isNull()) {
                EXPECT_TRUE(refuses("write", [&] { m_extent->write(buffer.data(), tooMany); }));
                break;
            }
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                {{"uri", kExtentURI}, {"position", at}, {"bytesToWrite", std::to_string(tooMany)}},
                [&] { m_extent->write(buffer.data(), tooMany); }));
            m_model->gainMemory();
        }
        EXPECT_EQ(m_extent->getPosition(), position);
    }

    void readPrepared() {
        unsigned long long const lba = static_cast<unsigned long long>(
            (m_model->grainUnderCursor() + kStartGrainIndex) * m_geometry->grainSizeSectors);
        Buffer data;
        perform([&] { m_extent->readPreparedGrainData(data); });
        Bytes const expected = m_model->readPrepared();
        if (!isCompressed()) {
            EXPECT_TRUE(sameBytes(expected, data));
            return;
        }
        auto const record =
            test_support::takeApart(toBytes(data), static_cast<int>(m_grainSizeBytes));
        EXPECT_EQ(record.lba, lba);
        EXPECT_TRUE(sameBytes(expected, record.plain));
    }

    void writePrepared() {
        Bytes const plain = makeContent(m_grainSizeBytes);
        unsigned long long const lba = static_cast<unsigned long long>(
            (m_model->grainUnderCursor() + kStartGrainIndex) * m_geometry->grainSizeSectors);
        Buffer const data = toBuffer(
            isCompressed() ? test_support::makeRecord(lba, test_support::compressWithZlib(plain, 1))
                           : plain);
        if (isNull()) {
            EXPECT_TRUE(
                refuses("writePreparedGrainData", [&] { m_extent->writePreparedGrainData(data); }));
            return;
        }
        perform([&] { m_extent->writePreparedGrainData(data); });
        m_model->gainMemory();
        m_model->writePrepared(plain);
    }

    void makeIndependent() {
        // Grains that lie in the extent as a whole.
        __int64 const wholeGrains = m_capacityBytes / m_grainSizeBytes;
        if (wholeGrains == 0)
            return;
        __int64 const grain = below(wholeGrains);
        if (isNull()) {
            EXPECT_TRUE(refuses("makeGrainIndependentOfParent",
                                [&] { m_extent->makeGrainIndependentOfParent(grain); }));
            return;
        }
        __int64 result = -1;
        perform([&] { result = m_extent->makeGrainIndependentOfParent(grain); });
        m_model->gainMemory();
        EXPECT_EQ(m_extent->getPosition(), (grain + 1) * m_grainSizeBytes);
        if (!m_parent) {
            EXPECT_EQ(result, 0);
            // Here the two cursors have parted, and only a seek brings them together.
            m_model->seek(grain * m_grainSizeBytes);
            seek(below(m_capacityBytes));
            return;
        }
        bool const isNew = m_model->makeIndependent(grain);
        if (!isNew || !isCompressed()) {
            EXPECT_EQ(result, m_grainSizeBytes);
        } else {
            EXPECT_GT(result, 0);
        }
    }

    void askWhetherWritten() {
        bool isWritten = false;
        perform([&] { isWritten = m_extent->isGrainWritten(); });
        EXPECT_EQ(isWritten, m_model->isWritten());
        EXPECT_EQ(m_extent->isGrainWrittenAndIndependentOfParent(), m_model->isIndependent());
    }

    void reopen() {
        if (below(2) == 0)
            m_extent->flushChanges();
        m_extent.reset();
        checkFile();
        m_model->reopen();
        open();
    }

    void checkFile() {
        if (!memory->fileExists(uri))
            return;
        EXPECT_EQ(findings(), "");
    }

    void finish() {
        m_extent.reset();
        m_model->reopen();
        checkFile();
        open();
        EXPECT_TRUE(sameBytes(m_model->read(m_capacityBytes), read(*m_extent, m_capacityBytes)));
        m_extent.reset();
        if (!memory->fileExists(uri))
            return;
        auto const report = test_support::checkExtent(memory->getFile(uri), kStartGrainIndex);
        for (__int64 grain = 0; grain < m_geometry->grainCount; ++grain) {
            EXPECT_EQ(report.grains.count(static_cast<std::uint64_t>(grain)),
                      m_model->isStored(grain) ? 1U : 0U)
                << "grain " << grain;
        }
    }

    Subject const* m_subject = nullptr;
    Geometry const* m_geometry = nullptr;
    __int64 m_grainSizeBytes = 0;
    __int64 m_capacityBytes = 0;
    bool m_doFilesFail = false;
    int m_failures = 0;
    yx::P<test_support::FaultyFileSystem> m_faults =
        yx::makeObject<test_support::FaultyFileSystem>(files.get());
    std::mt19937_64 m_random;
    yx::P<ModelProvider> m_parent;
    std::unique_ptr<Model> m_model;
    yx::P<IVMDKExtentFile> m_extent;
};

class ExtentModelOfGrainSize : public ExtentModel, public testing::WithParamInterface<Geometry> {
protected:
    void runAllSubjects(Files filesThat, unsigned int firstSeed) {
        unsigned int seed = firstSeed;
        Geometry const& geometry = GetParam();
        for (unsigned int round = 0; round < test_support::modelRounds(); ++round) {
            for (Subject const& subject : kSubjects) {
                for (bool const hasProvider : {false, true}) {
                    SCOPED_TRACE(std::string(subject.name) + (hasProvider ? " with" : " without") +
                                 " provider, seed " + std::to_string(++seed));
                    run(subject, geometry, hasProvider, filesThat, seed);
                    if (HasFailure())
                        return;
                }
            }
        }
    }
};

TEST_P(ExtentModelOfGrainSize, AgreesWithAPlainArray) {
    runAllSubjects(Files::Work, 1000);
}

TEST_P(ExtentModelOfGrainSize, AgreesWithAPlainArrayOverFilesThatFail) {
    // The creation of an extent on demand logs its failure.
    test_support::LogCapture const quiet;
    runAllSubjects(Files::Fail, 500000);
    EXPECT_GT(failures(), 0);
}

INSTANTIATE_TEST_SUITE_P(Geometries, ExtentModelOfGrainSize, testing::ValuesIn(kGeometries),
                         [](testing::TestParamInfo<Geometry> const& geometry) {
                             return "Sectors" + std::to_string(geometry.param.grainSizeSectors);
                         });

} // namespace

} // namespace extent_test
