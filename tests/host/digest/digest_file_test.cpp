#include "host/digest/digest_file.h"

#include "tests/host/digest/digest_fixture.h"

using kelm::host::Digest;
using kelm::host::DigestFile;
using kelm::host::DigestFileWriter;
using kelm::host::DigestHeader;
using kelm::host::DigestKeys;

namespace test_support {
namespace digest_file_test {
namespace {

constexpr char kURI[] = "mem:///disks/disk.vmdk.digests";
constexpr __int64 kDiskBytes = 20000 * kGrainBytes;

class DigestFileTest : public DiskTest {
protected:
    static DigestHeader header() {
        DigestHeader header;
        header.diskSizeBytes = kDiskBytes;
        header.imageSizeBytes = kDiskBytes - 5;
        header.grainSizeBytes = kGrainBytes;
        header.contentID = 0x12345678;
        return header;
    }

    /// Grains 0 and 9 of the first section, and 16385 of the second.
    void write(DigestHeader const& facts, DigestKeys const& keys = {}) {
        DigestFileWriter writer(files.get(), yx::CURI(kURI), keys);
        writer.add(0, digestOf(1));
        writer.add(9, digestOf(2));
        writer.add(16385, digestOf(3));
        writer.finish(facts);
    }

    std::unique_ptr<DigestFile> read(DigestKeys const& keys = {}) {
        return DigestFile::open(files.get(), yx::CURI(kURI), keys);
    }

    Bytes content() { return toBytes(files->getFile(yx::CURI(kURI))); }
    void put(Bytes const& bytes) { files->putFile(yx::CURI(kURI), toBuffer(bytes)); }

    /// Changes bytes, and the header's root with them, as whoever knows no key can.
    void change(std::size_t at, Bytes const& bytes) {
        Bytes changed = content();
        std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<std::ptrdiff_t>(at));
        Bytes const root = sha256Of(slice(changed, 0, 480));
        std::copy(root.begin(), root.end(), changed.begin() + 480);
        put(changed);
    }

    /// The same for the directory, whose digest is in the header.
    void changeDirectory(std::size_t at, Bytes const& bytes) {
        Bytes changed = content();
        std::copy(bytes.begin(), bytes.end(),
                  changed.begin() + static_cast<std::ptrdiff_t>(directoryAt + at));
        put(changed);
        change(128, sha256Of(slice(changed, directoryAt, changed.size())));
    }

    testing::AssertionResult isCorrupt(std::string const& message) {
        return throwsIOError(yx::CIOError::CorruptData, message, {{"uri", kURI}},
                             [this] { read(); });
    }

    static constexpr std::size_t directoryAt = 512 + 2048 + 64 + 2048 + 32;
};

TEST_F(DigestFileTest, HasTheBytesOfItsLayout) {
    write(header());
    Bytes bitmap1(2048, 0);
    bitmap1[0] = 0x01;
    bitmap1[1] = 0x02;
    Bytes bitmap2(2048, 0);
    bitmap2[0] = 0x02;
    Bytes const section1 = concat({bitmap1, Bytes(32, 1), Bytes(32, 2)});
    Bytes const section2 = concat({bitmap2, Bytes(32, 3)});
    Bytes const directory = concat({
        fromHex("0000000000000000 0002000000000000 02000000 00000000"),
        sha256Of(section1),
        fromHex("0100000000000000 400A000000000000 01000000 00000000"),
        sha256Of(section2),
    });
    Bytes const file = content();
    ASSERT_EQ(file.size(), directoryAt + 112);
    EXPECT_TRUE(sameBytes(section1, slice(file, 512, section1.size())));
    EXPECT_TRUE(sameBytes(section2, slice(file, 512 + section1.size(), section2.size())));
    EXPECT_TRUE(sameBytes(directory, slice(file, directoryAt, 112)));
    Bytes const start = concat({
        fromText("KELMDGST"),
        fromHex("01000000 01000000"),
        fromHex("0000204E00000000"), // 20000 grains
        fromHex("FBFF1F4E00000000"),
        fromHex("00000100 78563412 00000000 00400000"),
        fromHex("0200000000000000 6012000000000000 0300000000000000 0000000000000000"),
        zeros(16),
        zeros(32),
        sha256Of(directory),
        zeros(320),
    });
    EXPECT_TRUE(sameBytes(concat({start, sha256Of(start)}), slice(file, 0, 512)));
}

TEST_F(DigestFileTest, GivesBackWhatWasWritten) {
    for (DigestKeys const& keys : {DigestKeys(), knownKeys()}) {
        DigestHeader facts = header();
        facts.imageDigest = digestOf(9);
        write(facts, keys);
        std::unique_ptr<DigestFile> const file = read(keys);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->getHeader().diskSizeBytes, kDiskBytes);
        EXPECT_EQ(file->getHeader().imageSizeBytes, kDiskBytes - 5);
        EXPECT_EQ(file->getHeader().grainSizeBytes, kGrainBytes);
        EXPECT_EQ(file->getHeader().contentID, 0x12345678U);
        EXPECT_EQ(file->getHeader().grainCount, 3);
        EXPECT_EQ(file->getHeader().imageDigest, digestOf(9));
        EXPECT_EQ(file->find(0), digestOf(1));
        EXPECT_EQ(file->find(16385), digestOf(3));
        EXPECT_EQ(file->find(9), digestOf(2));
        EXPECT_EQ(file->find(1), std::nullopt);
        EXPECT_EQ(file->find(8), std::nullopt);
        EXPECT_EQ(file->find(16384), std::nullopt);
        EXPECT_EQ(file->find(19999), std::nullopt);
        EXPECT_EQ(file->find(1LL << 40), std::nullopt);
        EXPECT_EQ(file->findNext(0), 0);
        EXPECT_EQ(file->findNext(1), 9);
        EXPECT_EQ(file->findNext(10), 16385);
        EXPECT_EQ(file->findNext(16386), -1);
    }
}

TEST_F(DigestFileTest, MayBeEmpty) {
    DigestFileWriter(files.get(), yx::CURI(kURI), {}).finish(header());
    EXPECT_EQ(content().size(), 512U);
    std::unique_ptr<DigestFile> const file = read();
    ASSERT_TRUE(file);
    EXPECT_EQ(file->find(0), std::nullopt);
    EXPECT_EQ(file->findNext(0), -1);
    EXPECT_EQ(file->getHeader().imageDigest, std::nullopt);
}

TEST_F(DigestFileTest, HoldsEveryGrainOfASection) {
    {
        DigestFileWriter writer(files.get(), yx::CURI(kURI), {});
        for (int grain = 0; grain < 16390; ++grain)
            writer.add(grain, digestOf(static_cast<unsigned char>(grain % 251)));
        writer.finish(header());
    }
    std::unique_ptr<DigestFile> const file = read();
    for (int grain = 0; grain < 16390; ++grain)
        ASSERT_EQ(file->find(grain), digestOf(static_cast<unsigned char>(grain % 251))) << grain;
    EXPECT_EQ(file->find(16390), std::nullopt);
}

TEST_F(DigestFileTest, IsNoneUntilItIsFinished) {
    {
        DigestFileWriter writer(files.get(), yx::CURI(kURI), {});
        EXPECT_FALSE(read());
        for (int grain = 0; grain < 16385; ++grain)
            writer.add(grain, digestOf(7));
        EXPECT_GT(content().size(), 512U);
        EXPECT_FALSE(read());
    }
    EXPECT_FALSE(read());
}

TEST_F(DigestFileTest, HidesTheDigestOfTheImageOfAnEncryptedDisk) {
    DigestHeader facts = header();
    facts.imageDigest = digestOf(9);
    write(facts, knownKeys());
    Bytes const first = content();
    Bytes const mask = hmacOf(Bytes(32, 'i'), slice(first, 80, 16));
    Bytes hidden(32);
    for (std::size_t i = 0; i < 32; ++i)
        hidden[i] = static_cast<unsigned char>(9 ^ mask[i]);
    EXPECT_EQ(slice(first, 96, 32), hidden);
    EXPECT_EQ(slice(first, 480, 32), hmacOf(Bytes(32, 'f'), slice(first, 0, 480)));
    write(facts, knownKeys());
    EXPECT_NE(slice(content(), 96, 32), hidden);
}

TEST_F(DigestFileTest, NoticesEveryChangedByteOfItsHeaderAndDirectory) {
    write(header(), knownKeys());
    Bytes const sound = content();
    for (std::size_t at = 0; at < sound.size(); at = at == 511 ? directoryAt : at + 1) {
        Bytes changed = sound;
        changed[at] ^= 0x10;
        put(changed);
        EXPECT_THROW(read(knownKeys()), yx::CIOError) << at;
    }
}

TEST_F(DigestFileTest, NoticesAChangedSectionWhenItIsReached) {
    write(header());
    Bytes changed = content();
    changed[512 + 2048 + 40] ^= 1;
    put(changed);
    std::unique_ptr<DigestFile> const file = read();
    EXPECT_EQ(file->find(16385), digestOf(3));
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                                  "The section 0 of the digest file does not fit its digest: it "
                                  "was damaged or changed.",
                                  {{"uri", kURI}}, [&] { file->find(5); }));
    }
    EXPECT_EQ(file->find(16385), digestOf(3));
}

TEST_F(DigestFileTest, RefusesWhatIsNoDigestFile) {
    put(fromText("something else"));
    EXPECT_TRUE(isCorrupt("The file is no digest file."));
    put(Bytes(600, 'x'));
    EXPECT_TRUE(isCorrupt("The file is no digest file."));
    put({});
    EXPECT_FALSE(read());
    put(zeros(512));
    EXPECT_FALSE(read());
    EXPECT_THROW(DigestFile::open(files.get(), uriOf("missing"), {}), yx::CIOError);
}

TEST_F(DigestFileTest, RefusesOtherVersionsAndAlgorithms) {
    write(header());
    change(8, {2, 0, 0, 0});
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnsupportedVersion,
                              "Unsupported version of digest file: 2", {{"uri", kURI}},
                              [this] { read(); }));
    write(header());
    change(12, {3, 0, 0, 0});
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnsupportedVersion,
                              "Unsupported algorithm of digest file: 3", {{"uri", kURI}},
                              [this] { read(); }));
}

TEST_F(DigestFileTest, RefusesTheWrongKindOfDigests) {
    write(header(), knownKeys());
    EXPECT_TRUE(isCorrupt("Invalid algorithm in digest file: 2"));
    write(header());
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "Invalid algorithm in digest file: 1",
                              {{"uri", kURI}}, [this] { read(knownKeys()); }));
}

TEST_F(DigestFileTest, RefusesADigestFileUnderAnotherKey) {
    write(header(), knownKeys());
    DigestKeys other = knownKeys();
    other.fileKey.getData()[0] ^= 1;
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "The digest file does not fit its root: it was damaged or changed.",
                              {{"uri", kURI}}, [&] { read(other); }));
}

TEST_F(DigestFileTest, NamesTheFieldOfTheHeaderThatIsWrong) {
    struct Case {
        std::size_t at;
        Bytes bytes;
        char const* message;
    };
    Bytes const huge(8, 0xFF);
    Case const cases[] = {
        {16, huge, "Invalid disk size in digest file: -1"},
        {24, fromHex("0100204E00000000"), "Invalid image size in digest file: 1310720001"},
        {24, huge, "Invalid image size in digest file: -1"},
        {32, {0, 0, 0, 0}, "Invalid grain size in digest file: 0"},
        {32, {0xFF, 1, 0, 0}, "Invalid grain size in digest file: 511"},
        {32, {1, 0, 0, 0x40}, "Invalid grain size in digest file: 1073741825"},
        {40, {2, 0, 0, 0}, "Invalid flags in digest file: 2"},
        {44, {1, 0x40, 0, 0}, "Invalid section size in digest file: 16385"},
        {48, fromHex("0300000000000000"), "Invalid number of sections in digest file: 3"},
        {48, huge, "Invalid number of sections in digest file: -1"},
        {56, fromHex("FF01000000000000"), "Invalid directory position in digest file: 511"},
        {56, huge, "Invalid directory position in digest file: -1"},
        {64, fromHex("214E000000000000"), "Invalid number of grains in digest file: 20001"},
        {64, fromHex("0400000000000000"), "Invalid number of grains in digest file: 4"},
        {64, huge, "Invalid number of grains in digest file: -1"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        write(header());
        change(c.at, c.bytes);
        EXPECT_TRUE(isCorrupt(c.message));
    }
}

TEST_F(DigestFileTest, NamesTheFieldOfTheDirectoryThatIsWrong) {
    struct Case {
        std::size_t at;
        Bytes bytes;
        char const* message;
    };
    Case const cases[] = {
        {0, {2}, "Invalid section number in digest file: 2"},
        {56, {0}, "Invalid section number in digest file: 0"},
        {7, {0x80}, "Invalid section number in digest file: -9223372036854775808"},
        {8, {1}, "Invalid section position in digest file: 513"},
        {64, {0x41}, "Invalid section position in digest file: 2625"},
        {16, {0}, "Invalid number of digests in digest file: 0"},
        {17, {0x40}, "Invalid number of digests in digest file: 16386"},
        {16, {1}, "Invalid section position in digest file: 2624"},
        {72, {2}, "Invalid directory position in digest file: 4704"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        write(header());
        changeDirectory(c.at, c.bytes);
        EXPECT_TRUE(isCorrupt(c.message));
    }
}

TEST_F(DigestFileTest, RefusesAFileThatLostItsEnd) {
    write(header());
    Bytes const whole = content();
    for (std::size_t const lost : {1UL, 56UL, 112UL, 2000UL}) {
        SCOPED_TRACE(lost);
        put(slice(whole, 0, whole.size() - lost));
        EXPECT_THROW(read(), yx::CIOError);
    }
    put(concat({whole, Bytes(56, 0)}));
    EXPECT_TRUE(isCorrupt("Invalid number of sections in digest file: 2"));
}

} // namespace
} // namespace digest_file_test
} // namespace test_support
