#include "kelm/format/content_id_updater.h"

#include "kelm/format/descriptor_accessor.h"
#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using kelm::CVMDKContentIDUpdater;
using kelm::CVMDKDescriptor;
using kelm::CVMDKSparseExtentFile;
using test_support::FileOperation;

constexpr unsigned int kOldID = 0x12345678;

constexpr char kText[] = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                         "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n\n"
                         "RW 128 SPARSE \"extent.vmdk\"\nRW 128 SPARSE \"extent2.vmdk\"\n";

/// What the operations of an extent do to the content ID; tests/format has the updater by itself.
class ContentIDUpdater : public ExtentTest {
protected:
    ContentIDUpdater() { putMainFile(kText); }

    /// A descriptor file with some room behind its text.
    void putMainFile(std::string const& text) {
        Bytes bytes = fromText(text);
        bytes.resize(bytes.size() + 100);
        memory->putFile(mainURI, toBuffer(bytes));
    }

    /// An extent file that holds the descriptor itself.
    void createMainExtent() {
        auto const embedded = yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(kText)));
        kelm::createEmptyVMDKSparseExtentFile(memory.get(), uri, false, kGrainCount,
                                              kGrainSizeSectors, toBuffer(zeros(65536)),
                                              embedded.get(), 4, Buffer());
    }

    yx::P<CVMDKContentIDUpdater> makeUpdater(yx::CURI const& mainFileURI) {
        return yx::makeObject<CVMDKContentIDUpdater>(files.get(), mainFileURI, descriptor.get());
    }

    yx::P<CVMDKSparseExtentFile> open(CVMDKContentIDUpdater& changed, yx::CURI const& extentURI) {
        yx::P<IIOStream> const stream =
            kelm::openVMDKFileStream(files.get(), extentURI, IIOStream::ReadWrite);
        auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        return yx::makeObject<CVMDKSparseExtentFile>(stream.get(), IIOStream::ReadWrite, 0, 6,
                                                     cache.get(), nullptr, &changed, nullptr,
                                                     cryptBuffer({}), Buffer());
    }

    unsigned int storedID(yx::CURI const& fileURI) {
        return kelm::CVMDKDescriptorAccessor(
                   kelm::openVMDKFileStream(memory.get(), fileURI, IIOStream::ReadOnly).get(),
                   IIOStream::ReadOnly)
            .getDescriptor()
            ->getContentID();
    }

    yx::CURI const mainURI{kMainURI};
    yx::P<CVMDKDescriptor> descriptor = yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(kText)));
};

TEST_F(ContentIDUpdater, ChangesTheSeparateDescriptorFileAndTheCopyInMemory) {
    createExtent(kPlain);
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
    yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
    EXPECT_EQ(storedID(mainURI), kOldID);
    Bytes const before = toBytes(memory->getFile(mainURI));
    files->clear();
    extent->write("x", 1);
    unsigned int const id = storedID(mainURI);
    EXPECT_NE(id, kOldID);
    EXPECT_NE(id, 0U);
    EXPECT_NE(id, 0xFFFFFFFFU);
    EXPECT_EQ(descriptor->getContentID(), id);
    // On the device before the write that caused it has begun.
    std::vector<std::string> const lines = files->lines();
    EXPECT_EQ(lines.front(), "open disk.vmdk rw");
    EXPECT_EQ(files->lines(test_support::kChanges, "disk.vmdk"),
              (std::vector<std::string>{"write disk.vmdk 0+" + std::to_string(before.size()),
                                        "flush disk.vmdk"}));
    EXPECT_TRUE(files->lines(test_support::kChanges, "extent.vmdk").empty());
    EXPECT_EQ(files->lines({FileOperation::Kind::Close}, "disk.vmdk").size(), 1U);
    // Nothing else in the text changes, and the file keeps its length.
    std::string text = kText;
    text.replace(text.find("12345678"), 8, yx::toHexString(id).toStdString());
    Bytes expected = fromText(text);
    expected.resize(before.size());
    EXPECT_TRUE(sameBytes(expected, memory->getFile(mainURI)));
}

TEST_F(ContentIDUpdater, ChangesTheEmbeddedDescriptorThroughTheExtentsOwnStream) {
    createMainExtent();
    // The two spellings name one file.
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(yx::CURI("mem:/d/x/../extent.vmdk"));
    yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
    files->clear();
    extent->write("x", 1);
    EXPECT_EQ(files->count({FileOperation::Kind::Open}), 0U);
    EXPECT_EQ(files->lines(test_support::kChanges),
              (std::vector<std::string>{"write extent.vmdk 512+2048", "flush extent.vmdk"}));
    EXPECT_NE(storedID(uri), kOldID);
    EXPECT_EQ(storedID(uri), descriptor->getContentID());
    EXPECT_EQ(storedID(mainURI), kOldID);
    extent->flushChanges();
    EXPECT_EQ(findings(0), "");
    EXPECT_EQ(readAt(*extent, 0, 2), (Bytes{'x', 0}));
}

TEST_F(ContentIDUpdater, RereadsTheTextInTheFile) {
    createExtent(kPlain);
    putMainFile("version=1\nencoding=\"UTF-8\"\nCID=0000002a\nddb.comment = \"theirs\"\n");
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
    open(*changed, uri)->write("x", 1);
    std::string const text = test_support::toText(toBytes(memory->getFile(mainURI)));
    EXPECT_NE(text.find("ddb.comment = \"theirs\"\n"), std::string::npos);
    EXPECT_EQ(text.find("createType"), std::string::npos);
    EXPECT_EQ(descriptor->getContentID(), storedID(mainURI));
    EXPECT_EQ(descriptor->getCreateType(), "twoGbMaxExtentSparse");
}

TEST_F(ContentIDUpdater, ChangesOncePerOpeningWhateverExtentComesFirst) {
    createExtent(kPlain);
    yx::CURI const secondURI("mem:/d/extent2.vmdk");
    memory->putFile(secondURI, memory->getFile(uri));
    yx::P<CVMDKContentIDUpdater> changed = makeUpdater(mainURI);
    yx::P<CVMDKSparseExtentFile> const first = open(*changed, uri);
    yx::P<CVMDKSparseExtentFile> const second = open(*changed, secondURI);
    files->clear();
    second->write("x", 1);
    unsigned int const id = storedID(mainURI);
    second->write("y", 1);
    first->write("z", 1);
    first->seek(0);
    first->writePreparedGrainData(toBuffer(pattern(4096, 1)));
    EXPECT_EQ(storedID(mainURI), id);
    EXPECT_EQ(files->count({FileOperation::Kind::Open}, "disk.vmdk"), 1U);
    // A new opening draws again.
    changed = makeUpdater(mainURI);
    open(*changed, uri)->write("x", 1);
    EXPECT_NE(storedID(mainURI), id);
}

TEST_F(ContentIDUpdater, WritesOfEveryKindChangeIt) {
    struct {
        char const* name;
        bool changes;
        std::function<void(CVMDKSparseExtentFile&)> operation;
    } const cases[] = {
        {"write of no bytes", true, [](auto& extent) { extent.write("", 0); }},
        {"prepared write", true,
         [](auto& extent) { extent.writePreparedGrainData(toBuffer(pattern(4096, 1))); }},
        {"making independent", false, [](auto& extent) { extent.makeGrainIndependentOfParent(0); }},
        {"read", false, [](auto& extent) { read(extent, 10); }},
        {"flush", false, [](auto& extent) { extent.flushChanges(); }},
        {"space report", false, [](auto& extent) { extent.gatherSpaceInfo(); }},
    };
    for (auto const& [name, changes, operation] : cases) {
        SCOPED_TRACE(name);
        createExtent(kPlain);
        putMainFile(kText);
        yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
        yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
        extent->setFallbackDataProvider(provider.get());
        operation(*extent);
        EXPECT_EQ(storedID(mainURI) != kOldID, changes);
    }
}

TEST_F(ContentIDUpdater, RefusedWritesLeaveItAlone) {
    createExtent(kPlain);
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
    yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
    extent->seek(kCapacityBytes);
    EXPECT_THROW(extent->write("x", 1), yx::CIOError);
    EXPECT_THROW(extent->writePreparedGrainData(toBuffer(zeros(4096))), yx::CIOError);
    extent->seek(1);
    EXPECT_THROW(extent->writePreparedGrainData(toBuffer(zeros(4096))), yx::CIOError);
    EXPECT_EQ(storedID(mainURI), kOldID);
    // One that fails later does not change it back.
    extent->seek(0);
    EXPECT_THROW(extent->writePreparedGrainData(Buffer()), yx::CIOError);
    EXPECT_NE(storedID(mainURI), kOldID);
}

TEST_F(ContentIDUpdater, KeepsTheIDWhileSwitchedOff) {
    createExtent(kPlain);
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
    changed->setContentIDUpdatesEnabled(false);
    yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
    files->clear();
    extent->write("x", 1);
    EXPECT_EQ(files->count({FileOperation::Kind::Open}), 0U);
    EXPECT_EQ(storedID(mainURI), kOldID);
    changed->setContentIDUpdatesEnabled(true);
    extent->write("x", 1);
    EXPECT_NE(storedID(mainURI), kOldID);
}

TEST_F(ContentIDUpdater, NewIDsDiffer) {
    createExtent(kPlain);
    std::set<unsigned int> ids{kOldID, 0U, 0xFFFFFFFFU};
    for (int i = 0; i < 20; ++i) {
        yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
        open(*changed, uri)->write("", 0);
        EXPECT_TRUE(ids.insert(storedID(mainURI)).second);
    }
}

TEST_F(ContentIDUpdater, MissingIDRefusesTheWrite) {
    createExtent(kPlain);
    putMainFile("version=1\n");
    yx::P<CVMDKContentIDUpdater> const changed = makeUpdater(mainURI);
    yx::P<CVMDKSparseExtentFile> const extent = open(*changed, uri);
    EXPECT_TRUE(
        throwsError("VMDK descriptor value 'CID' not found.", {}, [&] { extent->write("x", 1); }));
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(descriptor->getContentID(), kOldID);
}

TEST_F(ContentIDUpdater, EachFailedStepIsTriedAgainByTheNextChange) {
    createMainExtent();
    for (bool const embedded : {false, true}) {
        yx::CURI const fileURI = embedded ? uri : mainURI;
        Buffer const good = memory->getFile(fileURI);
        int hits = 1;
        for (int nth = 1; hits > 0; ++nth) {
            SCOPED_TRACE(std::string(embedded ? "embedded, " : "separate, ") + std::to_string(nth));
            memory->putFile(fileURI, good);
            descriptor->setContentID(kOldID);
            auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(memory.get());
            auto const changed =
                yx::makeObject<CVMDKContentIDUpdater>(faulty.get(), fileURI, descriptor.get());
            unsigned int reserved = 0;
            auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
            auto const extent = yx::makeObject<CVMDKSparseExtentFile>(
                faulty->openFile(uri, IIOStream::ReadWrite, &reserved).get(), IIOStream::ReadWrite,
                0, 6, cache.get(), nullptr, changed.get(), nullptr, cryptBuffer({}), Buffer());
            faulty->add({.kinds = {FileOperation::Kind::Open, FileOperation::Kind::GetLength,
                                   FileOperation::Kind::Seek, FileOperation::Kind::Read,
                                   FileOperation::Kind::Write, FileOperation::Kind::Flush,
                                   FileOperation::Kind::Close},
                         .nth = nth});
            try {
                extent->write("x", 1);
            } catch (yx::CIOError const& error) {
                EXPECT_EQ(error.getMessage(), "Injected failure.");
                EXPECT_EQ(extent->getPosition(), 0);
                // Either the ID was not to be changed, or it is, in memory and in the file.
                if (descriptor->getContentID() != kOldID) {
                    EXPECT_EQ(storedID(fileURI), descriptor->getContentID());
                }
            }
            hits = faulty->hits();
            faulty->clear();
            if (hits > 0 && extent->getPosition() == 0)
                extent->write("x", 1);
            EXPECT_EQ(readAt(*extent, 0, 1), (Bytes{'x'}));
            EXPECT_NE(descriptor->getContentID(), kOldID);
            EXPECT_EQ(storedID(fileURI), descriptor->getContentID());
        }
    }
}

} // namespace

} // namespace extent_test
