#include "kelm/extent/parent_disk_data_provider.h"

#include "kelm/disk/disk.h"
#include "tests/extent/extent_fixture.h"
#include "tests/support/grain_contents.h"
#include "tests/support/hooked_file_system.h"

namespace extent_test {

namespace {

using kelm::CVMDKDisk;
using kelm::CVMDKParentDiskDataProvider;
using test_support::FileOperation;
using test_support::LogCapture;

constexpr unsigned int kParentID = 0xABCDEF01;

/// What a disk of the tests is to be.
struct DiskOptions {
    char const* contentID = "abcdef01";
    char const* parentContentID = "ffffffff";
    char const* parentHint = "";
    bool compressed = false;
    __int64 grainSizeSectors = 8;
    __int64 sizeSectors = 64;
};

class ParentDiskDataProvider : public ExtentTest {
protected:
    static yx::CURI uriOf(std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("mem:/d/" + name));
    }

    /// A text descriptor `<name>.vmdk` and its one extent file `<name>-s001.vmdk`.
    void putDisk(std::string const& name, DiskOptions const& options) {
        std::string const text = std::string("# Disk DescriptorFile\nversion=1\n") +
                                 "encoding=\"UTF-8\"\nCID=" + options.contentID +
                                 "\nparentCID=" + options.parentContentID +
                                 "\ncreateType=\"twoGbMaxExtentSparse\"\nparentFileNameHint=\"" +
                                 options.parentHint + "\"\n\nRW " +
                                 std::to_string(options.sizeSectors) + " SPARSE \"" + name +
                                 "-s001.vmdk\"\n";
        Bytes bytes = fromText(text);
        bytes.resize(1024);
        memory->putFile(uriOf(name + ".vmdk"), toBuffer(bytes));
        memory->deleteFile(uriOf(name + "-s001.vmdk"), true);
        kelm::createEmptyVMDKSparseExtentFile(
            memory.get(), uriOf(name + "-s001.vmdk"), options.compressed,
            options.sizeSectors / options.grainSizeSectors, options.grainSizeSectors,
            toBuffer(zeros(65536)), nullptr, 0, Buffer());
    }

    yx::P<CVMDKDisk> openDisk(std::string const& name,
                              IIOStream::Access access = IIOStream::ReadOnly) {
        yx::P<CVMDKDisk> const disk = yx::makeObject<CVMDKDisk>(files.get(), uriOf(name + ".vmdk"),
                                                                access, "", 6, nullptr, nullptr);
        disk->setContentIDUpdatesEnabled(false);
        return disk;
    }

    void writeDisk(std::string const& name, __int64 position, Bytes const& bytes) {
        yx::P<CVMDKDisk> const disk = openDisk(name, IIOStream::ReadWrite);
        disk->seek(position);
        disk->write(bytes.data(), static_cast<int>(bytes.size()));
    }

    /// A parent of eight grains of 4096 bytes with data throughout.
    void putParent(DiskOptions const& options = {}) {
        putDisk("parent", options);
        writeDisk("parent", 0, parentBytes);
        files->clear();
    }

    yx::P<CVMDKParentDiskDataProvider> makeProvider(unsigned int contentID = kParentID,
                                                    yx::IFileSystem* on = nullptr,
                                                    CVMDKDisk* parent = nullptr) {
        return yx::makeObject<CVMDKParentDiskDataProvider>(
            on ? on : files.get(), yx::CURI("mem:/d/x/../child.vmdk"), contentID, "parent.vmdk", 8,
            "", 6, yx::makeObject<kelm::CVMDKGrainTableCache>(-1).get(), parent);
    }

    static Bytes getData(CVMDKParentDiskDataProvider& from, __int64 position, int sizeBytes) {
        Bytes bytes(static_cast<std::size_t>(sizeBytes), 0xEE);
        from.getData(position, bytes.data(), sizeBytes);
        return bytes;
    }

    static Bytes readDisk(CVMDKDisk& disk, __int64 position, int sizeBytes) {
        Bytes bytes(static_cast<std::size_t>(sizeBytes), 0xEE);
        disk.seek(position);
        disk.read(bytes.data(), sizeBytes);
        return bytes;
    }

    std::vector<std::string> opened() {
        std::vector<std::string> names;
        for (std::string const& line : files->lines({FileOperation::Kind::Open}))
            if (line.find(".lock") == std::string::npos)
                names.push_back(line);
        return names;
    }

    Bytes const parentBytes = test_support::textPattern(32768, 4);
};

char const kParentURI[] = "mem:/d/parent.vmdk";
char const kChildURI[] = "mem:/d/child.vmdk";

TEST_F(ParentDiskDataProvider, OpensNothingUntilItIsAsked) {
    putParent();
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    EXPECT_EQ(parent->getParentDiskMainFileURI(), yx::CURI(kParentURI));
    EXPECT_TRUE(files->lines().empty());
    parent->ensureParentDiskOpen();
    EXPECT_FALSE(files->lines().empty());
    for (std::string const& line : opened())
        EXPECT_TRUE(line.ends_with(" r")) << line;
    files->clear();
    parent->ensureParentDiskOpen();
    EXPECT_TRUE(files->lines().empty());
}

TEST_F(ParentDiskDataProvider, EachRequestOpensTheParent) {
    putParent();
    struct {
        char const* name;
        std::function<void(CVMDKParentDiskDataProvider&)> request;
    } const cases[] = {
        {"data", [](auto& from) { getData(from, 0, 1); }},
        {"data behind the end", [](auto& from) { getData(from, 1 << 20, 1); }},
        {"prepared",
         [](auto& from) {
             Buffer data;
             from.getPreparedGrainData(0, data, 4096, false);
         }},
        {"is written", [](auto& from) { EXPECT_TRUE(from.isGrainWritten(0)); }},
        {"is written behind the end", [](auto& from) { EXPECT_FALSE(from.isGrainWritten(32768)); }},
    };
    for (auto const& [name, request] : cases) {
        SCOPED_TRACE(name);
        files->clear();
        yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
        request(*parent);
        EXPECT_FALSE(opened().empty());
    }
}

TEST_F(ParentDiskDataProvider, DataBehindTheParentsEndIsZero) {
    putParent();
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    EXPECT_EQ(getData(*parent, 32768 - 100, 300),
              concat({slice(parentBytes, 32668, 100), zeros(200)}));
    EXPECT_EQ(getData(*parent, 32768, 300), zeros(300));
    EXPECT_EQ(getData(*parent, 1LL << 50, 300), zeros(300));
    EXPECT_EQ(getData(*parent, 4000, 5000), slice(parentBytes, 4000, 5000));
    EXPECT_EQ(getData(*parent, 32768, 0), Bytes());
}

TEST_F(ParentDiskDataProvider, GrainsAreWrittenWhereTheParentHasData) {
    putDisk("parent", {});
    writeDisk("parent", 8192, pattern(10, 1));
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    EXPECT_FALSE(parent->isGrainWritten(0));
    EXPECT_TRUE(parent->isGrainWritten(8192));
    EXPECT_FALSE(parent->isGrainWritten(32768));
    EXPECT_FALSE(parent->isGrainWritten(1LL << 50));
}

TEST_F(ParentDiskDataProvider, PreparedGrainsComeFromTheParent) {
    for (bool const compressed : {false, true}) {
        putParent({.compressed = compressed});
        yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
        Buffer data;
        parent->getPreparedGrainData(8192, data, 4096, compressed);
        Bytes const plain =
            compressed ? test_support::takeApart(toBytes(data), 4096).plain : toBytes(data);
        EXPECT_EQ(plain, slice(parentBytes, 8192, 4096));
    }
}

TEST_F(ParentDiskDataProvider, PreparedGrainBehindTheParentsEndIsAZeroGrainOfTheChildsIndex) {
    putParent({.compressed = true});
    yx::P<CVMDKParentDiskDataProvider> parent = makeProvider();
    struct {
        __int64 position;
        unsigned long long lba;
    } const cases[] = {{32768, 64}, {40960, 80}, {32768, 64}};
    for (auto const& [position, lba] : cases) {
        Buffer data = toBuffer(pattern(7, 1));
        parent->getPreparedGrainData(position, data, 4096, true);
        auto const record = test_support::takeApart(toBytes(data), 4096);
        EXPECT_EQ(record.lba, lba);
        EXPECT_EQ(record.plain, zeros(4096));
    }
    parent.reset();
    putParent({.compressed = false});
    Buffer data;
    makeProvider()->getPreparedGrainData(32768, data, 4096, false);
    EXPECT_EQ(toBytes(data), zeros(4096));
}

TEST_F(ParentDiskDataProvider, OtherGrainSizeServesPlainDataOnly) {
    putParent({.grainSizeSectors = 16});
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    EXPECT_EQ(getData(*parent, 4096, 4096), slice(parentBytes, 4096, 4096));
    Buffer data;
    for (__int64 const position : {0, 1 << 20}) {
        EXPECT_TRUE(
            throwsError("Parent disk is incompatible with diff disk.",
                        {{"parentURI", kParentURI},
                         {"childURI", kChildURI},
                         {"expectedGrainSize", "4096"},
                         {"expectedCompressed", "false"},
                         {"actualGrainSize", "8192"},
                         {"actualCompressed", "false"}},
                        [&] { parent->getPreparedGrainData(position, data, 4096, false); }));
    }
    EXPECT_EQ(getData(*parent, 4096, 4096), slice(parentBytes, 4096, 4096));
}

TEST_F(ParentDiskDataProvider, OtherCompressionServesPlainDataOnly) {
    putParent({.compressed = true});
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    EXPECT_EQ(getData(*parent, 4096, 4096), slice(parentBytes, 4096, 4096));
    Buffer data;
    EXPECT_TRUE(throwsError("Parent disk is incompatible with diff disk.",
                            {{"parentURI", kParentURI},
                             {"childURI", kChildURI},
                             {"expectedGrainSize", "4096"},
                             {"expectedCompressed", "false"},
                             {"actualGrainSize", "4096"},
                             {"actualCompressed", "true"}},
                            [&] { parent->getPreparedGrainData(0, data, 4096, false); }));
}

TEST_F(ParentDiskDataProvider, ChangedParentIsRefusedAndLoggedAtEachRequest) {
    putParent({.contentID = "0000beef"});
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    for (int attempt = 0; attempt < 2; ++attempt) {
        LogCapture log;
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                                  "VMDK parent disk has changed, but a child disk depended on it.",
                                  {{"parentURI", kParentURI},
                                   {"childURI", kChildURI},
                                   {"expectedContentID", "abcdef01"},
                                   {"actualContentID", "beef"}},
                                  [&] { getData(*parent, 0, 1); }));
        EXPECT_EQ(log.entries(),
                  (std::vector<LogCapture::Entry>{
                      {yx::LogLevel::Error,
                       "Error while opening VMDK parent disk (parent URI: 'mem:/d/parent.vmdk', "
                       "child URI: 'mem:/d/child.vmdk')",
                       "", "VMDK parent disk has changed, but a child disk depended on it."}}));
    }
    // The refused disk is let go.
    EXPECT_NO_THROW(openDisk("parent", IIOStream::ReadWrite));
}

TEST_F(ParentDiskDataProvider, MissingParentIsTriedAgain) {
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider();
    {
        LogCapture log;
        try {
            getData(*parent, 0, 1);
            ADD_FAILURE() << "no error";
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), yx::CIOError::NotFound);
        }
        EXPECT_EQ(log.entries().size(), 1U);
    }
    putParent();
    EXPECT_EQ(getData(*parent, 0, 100), slice(parentBytes, 0, 100));
}

TEST_F(ParentDiskDataProvider, ErrorsOfOtherKindsPassWithoutALogEntry) {
    putParent();
    auto const broken = yx::makeObject<test_support::HookedFileSystem>(
        memory.get(), [](FileOperation& operation, auto const& proceed) {
            if (operation.kind == FileOperation::Kind::Open && operation.file() == "parent.vmdk")
                throw std::runtime_error("other");
            proceed();
        });
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider(kParentID, broken.get());
    LogCapture log;
    EXPECT_THROW(getData(*parent, 0, 1), std::runtime_error);
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(ParentDiskDataProvider, ParentThatIsHandedInIsTakenAsItIs) {
    putParent({.contentID = "0000beef"});
    yx::P<CVMDKDisk> const disk = openDisk("parent");
    files->clear();
    yx::P<CVMDKParentDiskDataProvider> const parent = makeProvider(kParentID, nullptr, disk.get());
    EXPECT_EQ(getData(*parent, 32700, 100), concat({slice(parentBytes, 32700, 68), zeros(32)}));
    EXPECT_EQ(files->count({FileOperation::Kind::Open}, "parent.vmdk"), 0U);
}

TEST_F(ParentDiskDataProvider, ChildReadsItsOwnGrainsWithoutOpeningTheParent) {
    // The parent has changed, which shows only when it is opened.
    putParent({.contentID = "0000beef"});
    putDisk("child",
            {.contentID = "00000002", .parentContentID = "abcdef01", .parentHint = "parent.vmdk"});
    writeDisk("child", 4096, pattern(4096, 1));
    files->clear();
    yx::P<CVMDKDisk> const child = openDisk("child");
    EXPECT_EQ(readDisk(*child, 4096, 4096), pattern(4096, 1));
    child->seek(4096);
    EXPECT_TRUE(child->isGrainWritten());
    EXPECT_TRUE(child->isGrainWrittenAndIndependentOfParent());
    for (std::string const& line : files->lines())
        EXPECT_EQ(line.find("parent"), std::string::npos) << line;
    LogCapture log;
    EXPECT_THROW(readDisk(*child, 0, 1), yx::CIOError);
    EXPECT_THROW(readDisk(*child, 0, 1), yx::CIOError);
    EXPECT_EQ(log.entries().size(), 2U);
    EXPECT_EQ(readDisk(*child, 4096, 4096), pattern(4096, 1));
}

TEST_F(ParentDiskDataProvider, ParentUnderAWrittenChildIsOpenedForReadingOnly) {
    putParent();
    putDisk("child",
            {.contentID = "00000002", .parentContentID = "abcdef01", .parentHint = "parent.vmdk"});
    Buffer const before = memory->getFile(uriOf("parent-s001.vmdk"));
    {
        yx::P<CVMDKDisk> const child = openDisk("child", IIOStream::ReadWrite);
        child->seek(10);
        child->write("x", 1);
        for (std::string const& line : opened()) {
            if (line.find("parent") != std::string::npos) {
                EXPECT_TRUE(line.ends_with(" r")) << line;
            }
        }
    }
    EXPECT_TRUE(sameBytes(before, memory->getFile(uriOf("parent-s001.vmdk"))));
    Bytes expected = parentBytes;
    expected[10] = 'x';
    EXPECT_EQ(readDisk(*openDisk("child"), 0, 32768), expected);
}

TEST_F(ParentDiskDataProvider, ChainIsOpenedLevelByLevelAndReadToItsEnd) {
    putParent();
    putDisk("middle", {.contentID = "00000002",
                       .parentContentID = "abcdef01",
                       .parentHint = "parent.vmdk",
                       .sizeSectors = 128});
    putDisk("child", {.contentID = "00000003",
                      .parentContentID = "00000002",
                      .parentHint = "middle.vmdk",
                      .sizeSectors = 256});
    writeDisk("middle", 0, pattern(4096, 1));
    writeDisk("child", 8192, pattern(4096, 2));
    files->clear();
    yx::P<CVMDKDisk> const child = openDisk("child");
    auto const opens = [this](char const* file) {
        return files->count({FileOperation::Kind::Open}, file);
    };
    readDisk(*child, 8192, 1);
    EXPECT_EQ(opens("middle.vmdk"), 0U);
    readDisk(*child, 0, 1);
    EXPECT_EQ(opens("middle.vmdk"), 1U);
    EXPECT_EQ(opens("parent.vmdk"), 0U);
    EXPECT_EQ(readDisk(*child, 0, 131072),
              concat({pattern(4096, 1), slice(parentBytes, 4096, 4096), pattern(4096, 2),
                      slice(parentBytes, 12288, 20480), zeros(98304)}));
    EXPECT_EQ(opens("parent.vmdk"), 1U);
    child->seek(4096);
    EXPECT_TRUE(child->isGrainWritten());
    child->seek(131071);
    EXPECT_FALSE(child->isGrainWritten());
}

TEST_F(ParentDiskDataProvider, ChainsThatBiteTheirOwnTailEnd) {
    struct {
        char const* name;
        char const* hintOfParent;
    } const cases[] = {{"own parent", "parent.vmdk"}, {"parent of its parent", "other.vmdk"}};
    for (auto const& [name, hint] : cases) {
        SCOPED_TRACE(name);
        putDisk("parent", {.parentContentID = "abcdef01", .parentHint = hint});
        putDisk("other", {.parentContentID = "abcdef01", .parentHint = "parent.vmdk"});
        yx::P<CVMDKDisk> const disk = openDisk("parent");
        LogCapture log;
        Props const props{{"parentURI", std::string("mem:/d/") + hint},
                          {"childURI", "mem:/d/parent.vmdk"}};
        for (int attempt = 0; attempt < 2; ++attempt) {
            log.clear();
            try {
                readDisk(*disk, 0, 1);
                ADD_FAILURE() << "no error";
            } catch (yx::CIOError const& error) {
                EXPECT_EQ(error.getIOCode(), yx::CIOError::CorruptData);
                EXPECT_EQ(error.getMessage(), "VMDK parent chain is too long.");
                ASSERT_EQ(error.getParams().getCount(), 2);
                EXPECT_EQ(error.getParams().getName(0), "parentURI");
                EXPECT_EQ(error.getParams().getName(1), "childURI");
            }
            EXPECT_EQ(log.entries().size(), 1U);
        }
        disk->seek(0);
        EXPECT_THROW(disk->isGrainWritten(), yx::CIOError);
        Buffer data;
        EXPECT_THROW(disk->readPreparedGrainData(data), yx::CIOError);
        // Nothing past the end of the parent asks the chain.
        EXPECT_EQ(disk->getSizeBytes(), 32768);
    }
}

TEST_F(ParentDiskDataProvider, ChainOf255ParentsIsRead) {
    auto const nameOf = [](int level) { return "level" + std::to_string(level); };
    putDisk(nameOf(0), {});
    writeDisk(nameOf(0), 0, parentBytes);
    for (int level = 1; level <= 256; ++level) {
        std::string const hint = nameOf(level - 1) + ".vmdk";
        putDisk(nameOf(level), {.parentContentID = "abcdef01", .parentHint = hint.c_str()});
    }
    EXPECT_EQ(readDisk(*openDisk(nameOf(255)), 100, 50), slice(parentBytes, 100, 50));
    yx::P<CVMDKDisk> const tooLong = openDisk(nameOf(256));
    LogCapture log;
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::CorruptData, "VMDK parent chain is too long.",
                      {{"parentURI", "mem:/d/level0.vmdk"}, {"childURI", "mem:/d/level1.vmdk"}},
                      [&] { readDisk(*tooLong, 0, 1); }));
}

TEST_F(ParentDiskDataProvider, AbsurdGrainSizeOfTheChildIsNoHarm) {
    putParent();
    CVMDKParentDiskDataProvider parent(files.get(), yx::CURI(kChildURI), kParentID, "parent.vmdk",
                                       std::numeric_limits<__int64>::max(), "", 6,
                                       yx::makeObject<kelm::CVMDKGrainTableCache>(-1).get(),
                                       nullptr);
    EXPECT_EQ(getData(parent, 0, 10), slice(parentBytes, 0, 10));
}

} // namespace

} // namespace extent_test
