#include <regex>

#include <gmock/gmock.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/extent_checker.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;

namespace test_support {
namespace {

/// How the descriptor of every disk of 8 MiB ends.
constexpr char kDiskDataBase[] = "\n"
                                 "# The Disk Data Base\n"
                                 "#DDB\n"
                                 "ddb.adapterType = \"lsilogic\"\n"
                                 "ddb.geometry.sectors = \"63\"\n"
                                 "ddb.geometry.heads = \"255\"\n"
                                 "ddb.geometry.cylinders = \"2\"\n";

class DiskCreation : public DiskTest {
protected:
    /// The descriptor in the first sectors behind the header of a sparse extent.
    std::string embeddedText(std::string const& name) {
        std::string const text = toText(toBytes(files->getFile(uriOf(name)))).substr(512);
        return text.substr(0, text.find('\0'));
    }

    /// Puts a word in the place of each value that is drawn at random.
    static std::string withoutRandomValues(std::string text) {
        text =
            std::regex_replace(text, std::regex("\nCID=[1-9a-f][0-9a-f]{0,7}\n"), "\nCID=<id>\n");
        text = std::regex_replace(text, std::regex("(yxEncIV=)[0-9a-f]{32}\n"), "$1<16 bytes>\n");
        return std::regex_replace(
            text, std::regex("(yxEncKeyDerivSalt|yxEncEncKey|yxEncKeyHash)=[0-9a-f]{64}\n"),
            "$1=<32 bytes>\n");
    }

    struct Extents {
        int count;
        __int64 firstSectors;
        __int64 lastSectors;

        bool operator==(Extents const&) const = default;
    };

    static Extents extentsOf(kelm::CVMDKDisk& disk) {
        yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
        disk.getDescriptor()->getExtentEntries(infos);
        return {infos.getSize(), infos[0]->getSizeSectors(),
                infos[infos.getSize() - 1]->getSizeSectors()};
    }
};

TEST_F(DiskCreation, SinglePlainFileHoldsItsDescriptor) {
    create({});

    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk"));
    EXPECT_EQ(std::string("# Disk DescriptorFile\n"
                          "version=1\n"
                          "encoding=\"UTF-8\"\n"
                          "CID=<id>\n"
                          "parentCID=ffffffff\n"
                          "createType=\"monolithicSparse\"\n"
                          "\n"
                          "# Extent description\n"
                          "RW 16384 SPARSE \"disk.vmdk\"\n") +
                  kDiskDataBase,
              withoutRandomValues(embeddedText("disk.vmdk")));
}

TEST_F(DiskCreation, SinglePlainFileIsLaidOutToTheByte) {
    create({});

    // 128 grains: one table. Header, descriptor of 65 sectors, then twice directory and table.
    Bytes const header = ByteBuilder()
                             .u32(0x564D444B)
                             .u32(1)
                             .u32(3)
                             .u64(16384)
                             .u64(128)
                             .u64(1)
                             .u64(65)
                             .u32(512)
                             .u64(66)
                             .u64(71)
                             .u64(128)
                             .u8(0)
                             .text("\n \r\n")
                             .u16(0)
                             .padTo(512)
                             .bytes();
    Bytes const file = toBytes(files->getFile(uriOf("disk.vmdk")));
    Bytes const text = slice(file, 512, 65 * 512); // tested by itself
    Bytes const tables =
        ByteBuilder().u32(67).padTo(512).zeros(2048).u32(72).padTo(512).zeros(2048).bytes();
    EXPECT_TRUE(sameBytes(
        ByteBuilder().append(header).append(text).append(tables).padTo(65536).bytes(), file));
}

/// What an empty extent file of new disks is, laid out from the format alone.
class EmptyExtent {
public:
    EmptyExtent(bool compressed, std::uint64_t grains, Bytes descriptor, Bytes keyHash)
        : m_compressed(compressed),
          m_grains(grains),
          m_tables((grains + 511) / 512),
          m_descriptor(std::move(descriptor)),
          m_keyHash(std::move(keyHash)) {
        m_body.append(m_descriptor);
        addDirectory(m_redundantDirectory);
        addDirectory(m_directory);
        if (compressed)
            addSlotSizes();
        // The header is to come in front.
        while ((m_body.size() + 512) % 65536 != 0)
            m_body.zeros(512);
    }

    Bytes bytes() const {
        ByteBuilder file;
        file.append(header()).append(m_body.bytes());
        if (m_compressed) {
            file.append(marker(1, 3)).append(header()).append(marker(0, 0));
        }
        return file.bytes();
    }

private:
    std::uint32_t sector() const { return static_cast<std::uint32_t>(m_body.size() / 512) + 1; }

    static Bytes marker(std::uint64_t value, std::uint32_t type) {
        return ByteBuilder().u64(value).u32(0).u32(type).padTo(512).bytes();
    }

    void addDirectory(std::uint32_t& position) {
        std::uint32_t const directorySectors = static_cast<std::uint32_t>(m_tables * 4 + 511) / 512;
        if (m_compressed)
            m_body.append(marker(directorySectors, 2));
        position = sector();
        std::uint32_t table = position + directorySectors + (m_compressed ? 1 : 0);
        for (std::uint64_t i = 0; i < m_tables; ++i, table += m_compressed ? 5 : 4)
            m_body.u32(table);
        m_body.padTo(512);
        for (std::uint64_t i = 0; i < m_tables; ++i) {
            if (m_compressed)
                m_body.append(marker(4, 1));
            m_body.zeros(2048);
        }
    }

    void addSlotSizes() {
        std::uint32_t const directorySectors = static_cast<std::uint32_t>(m_tables * 4 + 511) / 512;
        m_body.append(marker(directorySectors, 0x18349002));
        std::uint32_t table = sector() + directorySectors + 1;
        for (std::uint64_t i = 0; i < m_tables; ++i, table += 3)
            m_body.u32(table);
        m_body.padTo(512);
        for (std::uint64_t i = 0; i < m_tables; ++i)
            m_body.append(marker(2, 0x18349001)).zeros(1024);
    }

    Bytes header() const {
        ByteBuilder header;
        header.u32(m_keyHash.empty() ? 0x564D444B : 0x05644B45)
            .u32(m_compressed ? 3 : 1)
            .u32(m_compressed ? 0x30003 : 3)
            .u64(m_grains * 128)
            .u64(128)
            .u64(m_descriptor.empty() ? 0 : 1)
            .u64(m_descriptor.size() / 512)
            .u32(512)
            .u64(m_redundantDirectory)
            .u64(m_directory)
            .u64((m_body.size() + 512) / 512)
            .u8(0)
            .text("\n \r\n")
            .u16(m_compressed ? 1 : 0);
        if (!m_keyHash.empty()) {
            header.u16(1)
                .u16(1)
                .u16(static_cast<std::uint16_t>(m_keyHash.size()))
                .append(m_keyHash);
        }
        return header.padTo(512).bytes();
    }

    bool m_compressed;
    std::uint64_t m_grains;
    std::uint64_t m_tables;
    Bytes m_descriptor;
    Bytes m_keyHash;
    ByteBuilder m_body;
    std::uint32_t m_redundantDirectory = 0;
    std::uint32_t m_directory = 0;
};

TEST_F(DiskCreation, ExtentsOfEveryKindAreLaidOutToTheByte) {
    for (DiskKind const& kind : allDiskKinds()) {
        for (char const* parent : {"", "parent.vmdk"}) {
            SCOPED_TRACE(std::string(kind.name) + " " + parent);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            yx::P<kelm::CVMDKDisk> const disk = create(kind, "disk.vmdk", kSmallestDiskBytes,
                                                       parent, *parent == '\0' ? kNoParentID : 42);
            yx::P<kelm::CVMDKDescriptor> const descriptor = disk->getDescriptor();
            bool const isEncrypted = kind.password[0] != '\0';
            Bytes const keyHash =
                isEncrypted ? toBytes(descriptor->getYxEncryptionKeyHash()) : Bytes();
            yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
            descriptor->getExtentEntries(infos);
            for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
                std::string const name = info->getFilename().toStdString();
                if (!files->fileExists(uriOf(name)))
                    continue;
                Bytes const file = toBytes(files->getFile(uriOf(name)));
                // The text itself is tested for each kind of its own; here it must fill its area.
                Bytes const text = name == "disk.vmdk" ? slice(file, 512, 65 * 512) : Bytes();
                EXPECT_TRUE(
                    sameBytes(EmptyExtent(kind.compressed,
                                          static_cast<std::uint64_t>(info->getSizeSectors()) / 128,
                                          text, keyHash)
                                  .bytes(),
                              file))
                    << name;
            }
        }
    }
}

TEST_F(DiskCreation, LimitMakesATextFileAndNumberedExtents) {
    create({.fileSizeLimit = kSplitLimit});

    EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk",
                                         "disk.vmdk"));
    EXPECT_EQ(std::string("# Disk DescriptorFile\n"
                          "version=1\n"
                          "encoding=\"UTF-8\"\n"
                          "CID=<id>\n"
                          "parentCID=ffffffff\n"
                          "createType=\"twoGbMaxExtentSparse\"\n"
                          "\n"
                          "# Extent description\n"
                          "RW 5888 SPARSE \"disk-s00000.vmdk\"\n"
                          "RW 5888 SPARSE \"disk-s00001.vmdk\"\n"
                          "RW 4608 SPARSE \"disk-s00002.vmdk\"\n") +
                  kDiskDataBase,
              withoutRandomValues(textOf("disk.vmdk")));
    // 65 sectors of descriptor; extents of a header, two directories and tables, one grain in all.
    EXPECT_EQ(65 * 512, files->getFile(uriOf("disk.vmdk")).getUsed());
    for (char const* name : {"disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"})
        EXPECT_EQ(65536, files->getFile(uriOf(name)).getUsed()) << name;
}

TEST_F(DiskCreation, LimitThatFitsOneExtentStillMakesASplitDisk) {
    create({.fileSizeLimit = 2147483648});

    EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk.vmdk"));
    EXPECT_NE(std::string::npos, textOf("disk.vmdk").find("createType=\"twoGbMaxExtentSparse\"\n"));
}

TEST_F(DiskCreation, SingleCompressedFileHoldsItsDescriptor) {
    create({.compressed = true});

    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk"));
    std::string const text = withoutRandomValues(embeddedText("disk.vmdk"));
    EXPECT_NE(std::string::npos, text.find("createType=\"streamOptimized\"\n"));
    EXPECT_NE(std::string::npos, text.find("RW 16384 SPARSE \"disk.vmdk\"\n"));
}

TEST_F(DiskCreation, CompressedLimitPutsTheFirstExtentIntoTheMainFile) {
    create({.compressed = true, .fileSizeLimit = kCompressedSplitLimit});

    EXPECT_THAT(fileNames(), ElementsAre("disk-s00001.vmdk", "disk-s00002.vmdk", "disk-s00003.vmdk",
                                         "disk-s00004.vmdk", "disk.vmdk"));
    EXPECT_EQ(std::string("# Disk DescriptorFile\n"
                          "version=1\n"
                          "encoding=\"UTF-8\"\n"
                          "CID=<id>\n"
                          "parentCID=ffffffff\n"
                          "createType=\"streamOptimized\"\n"
                          "\n"
                          "# Extent description\n"
                          "RW 3840 SPARSE \"disk.vmdk\"\n"
                          "RW 3840 SPARSE \"disk-s00001.vmdk\"\n"
                          "RW 3840 SPARSE \"disk-s00002.vmdk\"\n"
                          "RW 3840 SPARSE \"disk-s00003.vmdk\"\n"
                          "RW 1024 SPARSE \"disk-s00004.vmdk\"\n") +
                  kDiskDataBase,
              withoutRandomValues(embeddedText("disk.vmdk")));
}

TEST_F(DiskCreation, PasswordParentAndOnDemandHaveTheirKeysInOrder) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret", .onDemand = true}, "disk.vmdk",
           kSmallestDiskBytes, "base/parent.vmdk", 0x1a2b3c4d);

    EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk.vmdk"));
    EXPECT_EQ(std::string("# Disk DescriptorFile\n"
                          "version=1\n"
                          "encoding=\"UTF-8\"\n"
                          "CID=<id>\n"
                          "parentFileNameHint=\"base/parent.vmdk\"\n"
                          "parentCID=1a2b3c4d\n"
                          "createType=\"twoGbMaxExtentSparse\"\n"
                          "yxCreateExtentFilesOnDemand=\"true\"\n"
                          "yxEncAlg=aes256cbc\n"
                          "yxEncIV=<16 bytes>\n"
                          "yxEncKeyDerivAlg=pkcs5-pbkdf2-hmac-sha1:10000\n"
                          "yxEncKeyDerivSalt=<32 bytes>\n"
                          "yxEncEncKey=<32 bytes>\n"
                          "yxEncKeyHashAlg=sha256\n"
                          "yxEncKeyHash=<32 bytes>\n"
                          "\n"
                          "# Extent description\n"
                          "RW 5888 SPARSE \"disk-s00000.vmdk\"\n"
                          "RW 5888 SPARSE \"disk-s00001.vmdk\"\n"
                          "RW 4608 SPARSE \"disk-s00002.vmdk\"\n") +
                  kDiskDataBase,
              withoutRandomValues(textOf("disk.vmdk")));
}

TEST_F(DiskCreation, EveryKindMakesSoundExtents) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create(kind);
        for (yx::CURI const& uri : files->listFiles()) {
            Buffer const content = files->getFile(uri);
            bool const isText = content.getData()[0] == '#';
            if (isText)
                continue;
            ExtentReport const report = checkExtent(content);
            EXPECT_TRUE(report.findings.empty()) << uri << ":\n" << report.text();
            EXPECT_EQ(kind.compressed, report.compressed);
            EXPECT_EQ(kind.password[0] != '\0', report.enciphered);
            EXPECT_TRUE(report.grains.empty());
        }
    }
}

TEST_F(DiskCreation, EncryptedExtentsCarryTheKeyHashOfTheDescriptor) {
    create({.fileSizeLimit = kSplitLimit, .password = "secret"});

    kelm::CVMDKDescriptor const descriptor(files->getFile(uriOf("disk.vmdk")));
    kelm::CVMDKDescriptor copy = descriptor;
    Bytes const hash = toBytes(copy.getYxEncryptionKeyHash());
    for (char const* name : {"disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"}) {
        Bytes const header = toBytes(files->getFile(uriOf(name)));
        EXPECT_TRUE(sameBytes(fromHex("45 4B 64 05"), slice(header, 0, 4)));
        EXPECT_TRUE(sameBytes(fromHex("0100 0100 2000"), slice(header, 79, 6)));
        EXPECT_TRUE(sameBytes(hash, slice(header, 85, 32)));
    }
}

TEST_F(DiskCreation, ReturnsADiskThatWrites) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        yx::P<kelm::CVMDKDisk> const disk = create(kind);
        EXPECT_EQ(kSmallestDiskBytes, disk->getSizeBytes());
        EXPECT_EQ(kGrainBytes, disk->getGrainSizeBytes());
        EXPECT_EQ(kind.compressed, disk->getCompressed());
        Bytes const bytes = pattern(100000, 1);
        writeAt(*disk, 5000000, bytes);
        EXPECT_TRUE(sameBytes(bytes, readAt(*disk, 5000000, bytes.size())));
    }
}

TEST_F(DiskCreation, SizeIsRaisedToTheSmallestDiskAndToWholeGrains) {
    using kelm::CVMDKDisk;
    EXPECT_EQ(8388608, CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(0));
    EXPECT_EQ(8388608, CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(-1));
    EXPECT_EQ(8388608, CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(8388608));
    EXPECT_EQ(8454144, CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(8388609));
    EXPECT_EQ(8388608, create({}, "small.vmdk", 0)->getSizeBytes());
    EXPECT_EQ(8454144, create({}, "odd.vmdk", 8388609)->getSizeBytes());
}

TEST_F(DiskCreation, ConstantsOfNewDisks) {
    EXPECT_EQ(2147483648, kelm::CVMDKDisk::getDefaultFileSizeLimit());
    EXPECT_EQ(128, kelm::CVMDKDisk::getGrainSizeSectors());
}

TEST_F(DiskCreation, SizeThatNoNumberHoldsIsRefused) {
    EXPECT_TRUE(throwsInvalidArg("CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes",
                                 "Invalid VMDK disk size: 9223372036854775807 bytes.", Props{}, [] {
                                     kelm::CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(
                                         std::numeric_limits<__int64>::max());
                                 }));
}

// The numbers follow from the arithmetic of the sizes alone, worked out by hand for a main file
// name of nine bytes.
TEST_F(DiskCreation, LimitsCutTheDiskIntoExtents) {
    struct Case {
        __int64 sizeBytes;
        bool compressed;
        __int64 limit;
        int descriptorSectors;
        Extents extents;
    };
    Case const cases[] = {
        // The smallest limit leaves one grain an extent.
        {0, false, 131073, 79, {128, 128, 128}},
        {0, false, 196609, 72, {64, 256, 256}},
        {104857600, false, 1048576, 77, {115, 1792, 512}},
        {8388608, false, 2147483648, 65, {1, 16384, 16384}},
        {3221225472, false, 2147483648, 65, {2, 4193536, 2097920}},
        {21474836480, false, 1048576, 2670, {23406, 1792, 1280}},
        {1099511627776, false, 2147483648, 122, {513, 4193536, 393216}},
        {4398046511104, false, 2199023255552, 65, {3, 4294441728, 1051136}},
        // A limit above 2 TiB counts as 2 TiB.
        {4398046511104, false, 4611686018427387904, 65, {3, 4294441728, 1051136}},
        {0, true, 4098049, 79, {128, 128, 128}},
        {0, true, 6000000, 66, {9, 1920, 1024}},
        {104857600, true, 8000000, 71, {54, 3840, 1280}},
        {0, true, 2147483648, 65, {1, 16384, 16384}},
        {3221225472, true, 2147483648, 65, {4, 2076416, 62208}},
        {1099511627776, true, 2147483648, 180, {1035, 2076416, 469504}},
    };
    for (Case const& testCase : cases) {
        SCOPED_TRACE(testing::Message() << testCase.sizeBytes << " bytes, limit " << testCase.limit
                                        << (testCase.compressed ? ", compressed" : ""));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        yx::P<kelm::CVMDKDisk> const disk = create(
            {.compressed = testCase.compressed, .fileSizeLimit = testCase.limit, .onDemand = true},
            "disk.vmdk", testCase.sizeBytes);
        Extents const extents = extentsOf(*disk);
        EXPECT_EQ(testCase.extents.count, extents.count);
        EXPECT_EQ(testCase.extents.firstSectors, extents.firstSectors);
        EXPECT_EQ(testCase.extents.lastSectors, extents.lastSectors);
        Buffer const main = files->getFile(uriOf("disk.vmdk"));
        if (testCase.compressed) {
            EXPECT_TRUE(sameBytes(
                ByteBuilder().u64(static_cast<std::uint64_t>(testCase.descriptorSectors)).bytes(),
                slice(toBytes(main), 36, 8)));
        } else {
            EXPECT_EQ(testCase.descriptorSectors * 512, main.getUsed());
        }
    }
}

TEST_F(DiskCreation, LimitTooSmallForAGrainIsRefusedBeforeAFileIsTouched) {
    struct Case {
        bool compressed;
        __int64 limit;
        std::string payload;
    };
    for (Case const& testCase :
         {Case{false, 131072, "0"}, Case{true, 4098048, "0"}, Case{true, 131073, "-1900544"}}) {
        EXPECT_TRUE(throwsError(
            "Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: " +
                testCase.payload,
            Props{},
            [&] { create({.compressed = testCase.compressed, .fileSizeLimit = testCase.limit}); }));
    }
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(DiskCreation, LimitOfNoSenseIsReportedLikeOneThatIsTooSmall) {
    for (__int64 const limit : {0LL, -2LL, std::numeric_limits<__int64>::min()})
        EXPECT_THROW(create({.fileSizeLimit = limit}), yx::CError);
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(DiskCreation, MoreExtentsThanTheDescriptorMayHaveAreRefused) {
    // Both numbers are deliberately the worst case.
    EXPECT_TRUE(throwsError("Internal error: calculated VMDK descriptor size exceeds estimated "
                            "worst case descriptor size (calculated: 1900544, worstCase: 1900544)",
                            Props{},
                            [&] { create({.fileSizeLimit = 1048576}, "disk.vmdk", 42949672960); }));
    EXPECT_THROW(create({.fileSizeLimit = 131073}, "disk.vmdk", 1LL << 61), yx::CError);
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(DiskCreation, SingleFileHoldsTwoTebibytesAndNotAByteMore) {
    EXPECT_TRUE(throwsInvalidArg(
        "CVMDKDisk::create",
        "Invalid VMDK disk size for single unsplittable disk file: 2199023321088 bytes.",
        Props{{"sizeBytes", "2199023321088"}}, [&] { create({}, "disk.vmdk", 2199023255553); }));
    EXPECT_THAT(fileNames(), ElementsAre());

    yx::P<kelm::CVMDKDisk> const disk = create({}, "disk.vmdk", 2199023255552);
    EXPECT_EQ(2199023255552, disk->getSizeBytes());
    EXPECT_EQ((Extents{1, 4294967296, 4294967296}), extentsOf(*disk));
}

TEST_F(DiskCreation, ParentPathAndContentIDGoTogether) {
    std::string const message = "sParentRelPath and parentContentID must either both be specified "
                                "or both have the default values.";
    EXPECT_TRUE(
        throwsInvalidArg("CVMDKDisk::create", message,
                         Props{{"parentRelPath", "parent.vmdk"}, {"parentContentID", "ffffffff"}},
                         [&] { create({}, "disk.vmdk", 0, "parent.vmdk", kNoParentID); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDisk::create", message,
                                 Props{{"parentRelPath", ""}, {"parentContentID", "2a"}},
                                 [&] { create({}, "disk.vmdk", 0, "", 42); }));
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(DiskCreation, OldExtentFilesOfTheSameNamesGo) {
    putText("disk-s00000.vmdk", "old");
    putText("disk-s00002.vmdk", "old, and passed over by the new disk");
    putText("disk-s00003.vmdk", "of no extent");
    create({.fileSizeLimit = kSplitLimit, .onDemand = true});

    EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk-s00003.vmdk", "disk.vmdk"));
}

TEST_F(DiskCreation, NamesWithoutExtensionGetNone) {
    create({.fileSizeLimit = kSplitLimit, .onDemand = true}, "disk");

    EXPECT_THAT(fileNames(), ElementsAre("disk", "disk-s00000"));
}

TEST_F(DiskCreation, ContentIDsDiffer) {
    create({}, "a.vmdk");
    create({}, "b.vmdk");
    EXPECT_NE(open(yx::IIOStream::ReadOnly, "", "a.vmdk")->getDescriptor()->getContentID(),
              open(yx::IIOStream::ReadOnly, "", "b.vmdk")->getDescriptor()->getContentID());
}

TEST_F(DiskCreation, FailureLeavesWhatWasFinishedAndDeletesWhatWasHalfDone) {
    LogCapture const log;
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    faulty->add({.kinds = {FileOperation::Kind::Write},
                 .code = yx::CIOError::NoSpace,
                 .file = "disk-s00001.vmdk"});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.",
                              Props{{"uri", "mem:///disks/disk-s00001.vmdk"}}, [&] {
                                  kelm::CVMDKDisk::create(faulty.get(), uriOf("disk.vmdk"), 0, "",
                                                          false, 1, kSplitLimit, "", kNoParentID,
                                                          false);
                              }));
    EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk.vmdk"));
    ASSERT_EQ(1u, log.entries().size());
    EXPECT_EQ("Error in CVMDKDisk::createEmptySparseExtentFile ('mem:///disks/disk-s00001.vmdk'). "
              "Deleting file and letting error through.",
              log.entries()[0].message);
}

TEST_F(DiskCreation, EveryFailedOperationArrivesAndARepeatSucceeds) {
    using Kind = FileOperation::Kind;
    FileOperationKinds const kinds = {Kind::Open,  Kind::Delete, Kind::Write, Kind::Read,
                                      Kind::Flush, Kind::Close,  Kind::Lock};
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        LogCapture const log;
        IgnoredExceptionCapture const ignored; // a lock file that could not be removed
        for (int nth = 1;; ++nth) {
            files = yx::makeObject<yx::CMemoryFileSystem>();
            yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            faulty->add({.kinds = kinds, .nth = nth});
            auto const createOnce = [&] {
                return kelm::CVMDKDisk::create(faulty.get(), uriOf("disk.vmdk"), 0, kind.password,
                                               kind.compressed, 1, kind.fileSizeLimit, "",
                                               kNoParentID, kind.onDemand);
            };
            bool failed = false;
            try {
                createOnce();
            } catch (yx::CError const&) {
                failed = true;
            }
            bool const everyOperationHadItsTurn = faulty->hits() == 0;
            faulty->clear();
            if (failed) {
                EXPECT_NO_THROW(createOnce()) << "after operation " << nth;
            }
            if (everyOperationHadItsTurn)
                break;
            ASSERT_LT(nth, 1000);
        }
    }
}

} // namespace
} // namespace test_support
