#include "tests/extent/extent_fixture.h"
#include "tests/support/fake_cipher.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using kelm::CVMDKSparseExtentFile;

constexpr char kConstructor[] = "CVMDKSparseExtentFile constructor";

/// A cipher that says of itself what a test wants.
class StubCipher : public test_support::FakeCipher {
public:
    StubCipher(char const* id, int keySizeBytes, int blockSizeBytes)
        : FakeCipher(blockSizeBytes), m_id(id), m_keySizeBytes(keySizeBytes) {}

    yx::String getID() override { return m_id; }
    int getKeySize() override { return m_keySizeBytes; }

private:
    char const* m_id;
    int m_keySizeBytes;
};

/// What the constructor is given.
struct Arguments {
    yx::P<krym::ICipher> cipher;
    Bytes key;
    IIOStream::Access access = IIOStream::ReadOnly;
};

using Action = std::function<void()>;
using Check = std::function<testing::AssertionResult(Action const&)>;

/// One reason to refuse an extent, and the words in which it is refused.
struct Refusal {
    char const* name;
    std::function<void(Bytes& header, Arguments& arguments)> spoil;
    Check check;
};

Check invalidArg(std::string const& message, Props const& more = {}) {
    Props props{{"uri", kExtentURI}};
    props.insert(props.end(), more.begin(), more.end());
    return [=](Action const& action) {
        return throwsInvalidArg(kConstructor, message, props, action);
    };
}

Check plainError(std::string const& message) {
    return [=](Action const& action) {
        return throwsError(message, {{"uri", kExtentURI}}, action);
    };
}

Check ioError(yx::CIOError::Code code, std::string const& message,
              Props const& props = {{"uri", kExtentURI}}) {
    return [=](Action const& action) { return throwsIOError(code, message, props, action); };
}

Refusal field(char const* name, std::size_t offset, unsigned long long value, std::size_t sizeBytes,
              Check const& check) {
    return {name, [=](Bytes& bytes, Arguments&) { put(bytes, offset, value, sizeBytes); }, check};
}

constexpr auto kCorrupt = yx::CIOError::CorruptData;

/// What every kind of extent refuses in front of the encryption tests, in order.
std::vector<Refusal> headerRefusals() {
    return {
        field("magic", 0, 0x12345678, 4,
              ioError(kCorrupt, "Invalid magic number in VMDK sparse header",
                      {{"num", "305419896"}})),
        field("new-line bytes", kNewLineOffset, 0x0A0A200A, 4,
              ioError(kCorrupt,
                      "VMDK image is corrupted (probably by having been transferred in FTP ASCII "
                      "mode).",
                      {})),
    };
}

/// What is refused after the encryption checks, in order.
std::vector<Refusal> formatRefusals(bool compressed) {
    return {
        field("version", kVersionOffset, 4, 4,
              ioError(yx::CIOError::UnsupportedVersion, "VMDK file has an unsupported version: 4")),
        compressed
            ? field("flags", kFlagsOffset, 0x00010003, 4,
                    ioError(kCorrupt, "VMDK flags 'compressed' and 'metaMarkers' are different "
                                      "(compressed: true, metaMarkers: false)"))
            : field("flags", kFlagsOffset, 0x00020003, 4,
                    ioError(kCorrupt, "VMDK flags 'compressed' and 'metaMarkers' are different "
                                      "(compressed: false, metaMarkers: true)")),
        field("directory in footer", kDirectoryOffset, ~0ULL, 8,
              ioError(kCorrupt, "VMDK file uses an unsupported variant of the 'stream optimized' "
                                "format.")),
        field("capacity", kCapacityOffset, 1ULL << 63, 8,
              ioError(kCorrupt, "Invalid capacity in VMDK sparse header: 9223372036854775808")),
        field("grain size", kGrainSizeOffset, 0, 8,
              ioError(kCorrupt, "Invalid grain size in VMDK sparse header: 0")),
        field("entry count", kEntryCountOffset, 0, 4,
              ioError(kCorrupt, "Invalid grain table entry count in VMDK sparse header: 0")),
    };
}

std::vector<Refusal> cipherRefusals() {
    return {
        field("key hash size", kKeyHashSizeOffset, 428, 2,
              ioError(kCorrupt, "Invalid encryption key hash size in VMDK sparse header: 428")),
        {"no cipher", [](Bytes&, Arguments& arguments) { arguments.cipher.reset(); },
         invalidArg("VMDK extent file is encrypted but no cipher object was specified.")},
        {"cipher ID",
         [](Bytes&, Arguments& arguments) {
             arguments.cipher = yx::makeObject<StubCipher>("aes128cbc", 32, 16);
         },
         invalidArg("Cipher object has an unsupported ID: aes128cbc")},
        {"key size", [](Bytes&, Arguments& arguments) { arguments.key.resize(31); },
         invalidArg("Specified encryption key has an incorrect size for the cipher",
                    {{"expectedKeySize", "32"}, {"keySize", "31"}, {"cipherID", "aes256cbc"}})},
        field("algorithm", kEncryptionAlgorithmOffset, 2, 2,
              plainError("Unsupported encryption algorithm used by VMDK extent file: 2")),
        field("key hash algorithm", kKeyHashAlgorithmOffset, 65535, 2,
              plainError("Unsupported key hash algorithm used in VMDK: 65535")),
        {"key", [](Bytes&, Arguments& arguments) { arguments.key[31] = 0; },
         plainError("Specified VMDK extent file encryption key is not correct.")},
    };
}

class SparseExtentOpening : public ExtentTest {
protected:
    yx::P<CVMDKSparseExtentFile> open(Arguments const& arguments) {
        return yx::makeObject<CVMDKSparseExtentFile>(
            openStream({arguments.access}).get(), arguments.access, 0, 6, cache.get(), nullptr,
            nullptr, arguments.cipher.get(), cryptBuffer(arguments.key), toBuffer(iv));
    }

    Arguments argumentsFor(Kind const& kind) {
        return {kind.enciphered ? cipher : yx::P<krym::ICipher>(),
                kind.enciphered ? keyBytes() : Bytes()};
    }

    /// Checks each reason alone and each two together, for reading and for writing.
    void expectOrder(Kind const& kind, std::vector<Refusal> const& refusals) {
        createExtent(kind);
        Bytes const good = content();
        for (std::size_t first = 0; first < refusals.size(); ++first) {
            for (std::size_t second = first; second < refusals.size(); ++second) {
                for (auto const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
                    SCOPED_TRACE(std::string(refusals[first].name) + " and " +
                                 refusals[second].name);
                    Bytes spoilt = good;
                    Arguments arguments = argumentsFor(kind);
                    arguments.access = access;
                    // The later one first: where both touch the same thing, the earlier one stays.
                    refusals[second].spoil(spoilt, arguments);
                    refusals[first].spoil(spoilt, arguments);
                    setContent(spoilt);
                    EXPECT_TRUE(refusals[first].check([&] { open(arguments); }));
                    EXPECT_EQ(content(), spoilt);
                }
            }
        }
        setContent(good);
        open(argumentsFor(kind));
    }

    yx::P<kelm::CVMDKGrainTableCache> cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
};

TEST_F(SparseExtentOpening, RefusesPlainExtentsInItsOrder) {
    for (bool const compressed : {false, true}) {
        std::vector<Refusal> refusals = headerRefusals();
        refusals.push_back(
            {"cipher", [this](Bytes&, Arguments& arguments) { arguments.cipher = cipher; },
             invalidArg("VMDK extent file is NOT encrypted but a cipher object was specified.")});
        for (Refusal const& refusal : formatRefusals(compressed))
            refusals.push_back(refusal);
        expectOrder(compressed ? kCompressed : kPlain, refusals);
    }
}

TEST_F(SparseExtentOpening, RefusesEncipheredExtentsInItsOrder) {
    for (bool const compressed : {false, true}) {
        std::vector<Refusal> refusals = headerRefusals();
        for (Refusal const& refusal : cipherRefusals())
            refusals.push_back(refusal);
        for (Refusal const& refusal : formatRefusals(compressed))
            refusals.push_back(refusal);
        expectOrder(compressed ? kCompressedAndEnciphered : kEnciphered, refusals);
    }
}

TEST_F(SparseExtentOpening, RefusesEveryVersionButOneToThree) {
    createExtent(kPlain);
    for (unsigned int const version : {1U, 2U, 3U}) {
        setHeaderField(kVersionOffset, version, 4);
        EXPECT_NO_THROW(openExtent(kPlain)) << version;
    }
    struct {
        unsigned int version;
        char const* message;
    } const cases[] = {{0, "VMDK file has an unsupported version: 0"},
                       {4, "VMDK file has an unsupported version: 4"},
                       {0xFFFFFFFF, "VMDK file has an unsupported version: 4294967295"}};
    for (auto const& [version, message] : cases) {
        setHeaderField(kVersionOffset, version, 4);
        EXPECT_TRUE(throwsIOError(yx::CIOError::UnsupportedVersion, message, {{"uri", kExtentURI}},
                                  [&] { openExtent(kPlain); }));
    }
}

TEST_F(SparseExtentOpening, FlagsDecideWhetherItIsCompressed) {
    createExtent(kPlain);
    EXPECT_FALSE(openExtent(kPlain)->getCompressed());
    createExtent(kCompressed);
    EXPECT_TRUE(openExtent(kCompressed)->getCompressed());
}

TEST_F(SparseExtentOpening, ExtensionWithAlgorithmNoneIsPlain) {
    createExtent(kEnciphered);
    setHeaderField(kEncryptionAlgorithmOffset, 0, 2);
    EXPECT_NO_THROW(openExtent(kPlain));
    EXPECT_TRUE(throwsInvalidArg(
        kConstructor, "VMDK extent file is NOT encrypted but a cipher object was specified.",
        {{"uri", kExtentURI}}, [&] { openExtent(kEnciphered); }));
}

TEST_F(SparseExtentOpening, KeyHashOfAnotherLengthIsAWrongKey) {
    createExtent(kEnciphered);
    Bytes const good = content();
    for (unsigned int const sizeBytes : {0U, 31U, 33U}) {
        setContent(good);
        setHeaderField(kKeyHashSizeOffset, sizeBytes, 2);
        EXPECT_TRUE(throwsError("Specified VMDK extent file encryption key is not correct.",
                                {{"uri", kExtentURI}}, [&] { openExtent(kEnciphered); }));
    }
}

TEST_F(SparseExtentOpening, RefusesSizesThatNothingCanHold) {
    createExtent(kPlain);
    Bytes const good = content();
    struct {
        std::size_t offset;
        unsigned long long value;
        std::size_t sizeBytes;
        char const* message;
    } const cases[] = {
        {kCapacityOffset, ~0ULL, 8, "Invalid capacity in VMDK sparse header: 18446744073709551615"},
        {kCapacityOffset, (1ULL << 53), 8,
         "Invalid capacity in VMDK sparse header: 9007199254740992"},
        {kGrainSizeOffset, ~0ULL, 8,
         "Invalid grain size in VMDK sparse header: 18446744073709551615"},
        {kGrainSizeOffset, 1ULL << 55, 8,
         "Invalid grain size in VMDK sparse header: 36028797018963968"},
        {kGrainSizeOffset, 2097151, 8, "Invalid grain size in VMDK sparse header: 2097151"},
        {kEntryCountOffset, 0x80000000, 4,
         "Invalid grain table entry count in VMDK sparse header: 2147483648"},
    };
    for (auto const& [offset, value, sizeBytes, message] : cases) {
        setContent(good);
        setHeaderField(offset, value, sizeBytes);
        EXPECT_TRUE(
            throwsIOError(kCorrupt, message, {{"uri", kExtentURI}}, [&] { openExtent(kPlain); }));
    }
}

TEST_F(SparseExtentOpening, RefusedGrainSizeLeavesAnUnknownTailAlone) {
    createExtent(kCompressed);
    Bytes bytes = concat({content(), pattern(512, 1)});
    put(bytes, kGrainSizeOffset, 2097151, 8);
    setContent(bytes);
    EXPECT_TRUE(throwsIOError(kCorrupt, "Invalid grain size in VMDK sparse header: 2097151",
                              {{"uri", kExtentURI}}, [&] { openExtent(kCompressed); }));
    EXPECT_EQ(content(), bytes);
}

TEST_F(SparseExtentOpening, OddSizesOpen) {
    createExtent(kPlain, 10, 7);
    yx::P<CVMDKSparseExtentFile> extent = openExtent(kPlain);
    EXPECT_EQ(extent->getGrainSizeSectors(), 7);
    writeAt(*extent, 9 * 3584, pattern(3584, 1));
    extent.reset();
    EXPECT_EQ(readAt(*openExtent(kPlain), 9 * 3584, 3584), pattern(3584, 1));
    EXPECT_EQ(findings(), "");
}

TEST_F(SparseExtentOpening, EveryTableSizeThatTheFileHasRoomForOpens) {
    for (unsigned int const entries : {16U, 100U, 511U}) {
        SCOPED_TRACE(entries);
        createExtent(kPlain);
        setHeaderField(kEntryCountOffset, entries, 4);
        yx::P<CVMDKSparseExtentFile> extent = openExtent(kPlain);
        writeAt(*extent, 15 * 4096, pattern(4096, 1));
        extent.reset();
        EXPECT_EQ(readAt(*openExtent(kPlain), 15 * 4096, 4096), pattern(4096, 1));
    }
}

TEST_F(SparseExtentOpening, CompressedExtentNeedsASlotSizeDirectory) {
    createExtent(kCompressed);
    Bytes bytes = content();
    // The marker after the last grain table.
    ASSERT_EQ(slice(bytes, 15 * 512 + 12, 4), (Bytes{0x02, 0x90, 0x34, 0x18}));
    put(bytes, 15 * 512 + 12, 0, 4);
    setContent(bytes);
    EXPECT_TRUE(throwsError("Slot size directory not found in compressed VMDK.",
                            {{"uri", kExtentURI}}, [&] { openExtent(kCompressed); }));
}

TEST_F(SparseExtentOpening, ReturnsWhatItWasOpenedWith) {
    createExtent(kCompressed);
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kCompressed);
    EXPECT_EQ(extent->getStartGrainIndex(), 10);
    EXPECT_EQ(extent->getGrainSizeSectors(), 8);
    EXPECT_EQ(extent->getURI(), uri);
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(extent->getStream()->getURI(), uri);
    EXPECT_TRUE(extent->createDataPreparer()->doesAnything());
    createExtent(kPlain);
    EXPECT_FALSE(openExtent(kPlain)->createDataPreparer()->doesAnything());
}

TEST_F(SparseExtentOpening, UncleanShutdownChangesNothing) {
    createExtent(kPlain);
    setHeaderField(kUncleanOffset, 1, 1);
    Bytes const before = content();
    yx::P<CVMDKSparseExtentFile> extent = openExtent(kPlain);
    extent->flushChanges();
    EXPECT_EQ(content(), before);
    writeAt(*extent, 0, pattern(512, 1));
    extent.reset();
    EXPECT_EQ(content().at(kUncleanOffset), 1);
    EXPECT_EQ(readAt(*openExtent(kPlain), 0, 512), pattern(512, 1));
}

TEST_F(SparseExtentOpening, TrailIsFooterMarkerHeaderCopyAndEndMarker) {
    for (Kind const& kind : {kCompressed, kCompressedAndEnciphered}) {
        createExtent(kind);
        Bytes bytes = content();
        // As if the file had been cut in its trail; what is there counts as data.
        bytes.resize(bytes.size() - 512);
        setContent(bytes);
        test_support::LogCapture log;
        openExtent(kind)->flushChanges();
        ASSERT_EQ(log.entries().size(), 1U);
        EXPECT_EQ(log.entries()[0].message,
                  "VMDK trail data is not what we expected. Assuming that it is not trail data - "
                  "we won't overwrite it.");
        Bytes footerMarker = zeros(512);
        footerMarker[0] = 1;
        footerMarker[12] = 3;
        EXPECT_TRUE(
            sameBytes(concat({bytes, footerMarker, slice(bytes, 0, 512), zeros(512)}), content()));
    }
}

TEST_F(SparseExtentOpening, UnknownTailStaysWhenOpenedForReading) {
    createExtent(kCompressed);
    Bytes const bytes = concat({content(), pattern(512, 1)});
    setContent(bytes);
    test_support::LogCapture log;
    openExtent(kCompressed, {IIOStream::ReadOnly})->flushChanges();
    EXPECT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(content(), bytes);
}

TEST_F(SparseExtentOpening, PlainExtentHasNoTrail) {
    createExtent(kPlain);
    Bytes const before = content();
    openExtent(kPlain)->flushChanges();
    EXPECT_EQ(content(), before);
    EXPECT_EQ(before.size(), 16U * 512);
}

/// Records its own destruction.
class Sentinel : public FakeDataProvider {
public:
    explicit Sentinel(bool& gone) : m_gone(gone) {}
    ~Sentinel() override { m_gone = true; }

private:
    bool& m_gone;
};

TEST_F(SparseExtentOpening, FailedFlushInTheDestructorIsReportedAndEverythingReleased) {
    for (Kind const& kind : kAllKinds) {
        SCOPED_TRACE(kind);
        createExtent(kind);
        auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(memory.get());
        unsigned int reserved = 0;
        bool gone = false;
        test_support::IgnoredExceptionCapture ignored;
        {
            yx::P<IIOStream> const stream = faulty->openFile(uri, IIOStream::ReadWrite, &reserved);
            yx::P<CVMDKSparseExtentFile> extent = yx::makeObject<CVMDKSparseExtentFile>(
                stream.get(), IIOStream::ReadWrite, 0, 6, cache.get(),
                yx::makeObject<Sentinel>(gone).get(), updater.get(),
                kind.enciphered ? cipher.get() : nullptr,
                cryptBuffer(kind.enciphered ? keyBytes() : Bytes()), toBuffer(iv));
            writeAt(*extent, 0, pattern(4096, 1));
            faulty->add({.kinds = {test_support::FileOperation::Kind::Write}, .sticky = true});
            EXPECT_FALSE(gone);
            extent.reset();
            EXPECT_TRUE(gone);
        }
        ASSERT_FALSE(ignored.entries().empty());
        EXPECT_EQ(ignored.entries()[0].className, "kelm::CVMDKSparseExtentFile");
        EXPECT_EQ(ignored.entries()[0].error, "Injected failure.");
        EXPECT_TRUE(ignored.entries()[0].flag);
        EXPECT_EQ(cache->getCachedTableCount(), 0);
    }
}

TEST_F(SparseExtentOpening, FailedConstructionReleasesTheStream) {
    createExtent(kPlain);
    setHeaderField(kVersionOffset, 9, 4);
    EXPECT_THROW(openExtent(kPlain), yx::CIOError);
    EXPECT_EQ(files->lines({test_support::FileOperation::Kind::Close}).size(), 1U);
}

TEST_F(SparseExtentOpening, DestructorFlushesAndEmptiesTheCache) {
    createExtent(kPlain);
    yx::P<CVMDKSparseExtentFile> extent = openExtent(kPlain, {.cache = cache.get()});
    writeAt(*extent, 4096, pattern(4096, 2));
    EXPECT_EQ(cache->getCachedTableCount(), 1);
    extent.reset();
    EXPECT_EQ(cache->getCachedTableCount(), 0);
    EXPECT_EQ(readAt(*openExtent(kPlain), 4096, 4096), pattern(4096, 2));
}

TEST_F(SparseExtentOpening, CipherBlocksThatDoNotFitASectorAreRefusedLast) {
    createExtent(kEnciphered);
    Arguments arguments{yx::makeObject<StubCipher>("aes256cbc", 32, 0), keyBytes()};
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain constructor", "Invalid block size of cipher: 0 bytes",
                                 {{"uri", kExtentURI}}, [&] { open(arguments); }));
}

} // namespace

} // namespace extent_test
