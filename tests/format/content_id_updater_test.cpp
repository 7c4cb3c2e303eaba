#include "kelm/format/content_id_updater.h"

#include <gtest/gtest.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/recording_file_system.h"
#include "yx/memory_file_system.h"

namespace content_id_updater_test {

namespace {

using kelm::CVMDKContentIDUpdater;
using kelm::CVMDKDescriptor;
using kelm::CVMDKSparseExtentFile;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::fromText;
using test_support::RecordingFileSystem;
using test_support::toBuffer;
using test_support::zeroBuffer;
using Kind = test_support::FileOperation::Kind;

yx::CURI const kMainFile("file:///vm/disk.vmdk");
yx::CURI const kFirstExtent("file:///vm/disk-s001.vmdk");
yx::CURI const kSecondExtent("file:///vm/disk-s002.vmdk");

constexpr char kText[] = "encoding=\"UTF-8\"\nCID=12345678\nkey=in the file\n";

/// A disk in memory: a main file that is an extent with the descriptor in it, or a text file and
/// two extents beside it.
class ContentIDUpdater : public testing::Test {
protected:
    void makeMonolithicDisk() { makeExtent(kMainFile, m_descriptor.get()); }

    void makeSplitDisk() {
        m_memory->putFile(kMainFile, toBuffer(fromText(kText)));
        makeExtent(kFirstExtent, nullptr);
        makeExtent(kSecondExtent, nullptr);
    }

    /// Through `files`, as the disk would open it.
    yx::P<CVMDKSparseExtentFile> openExtent(yx::IFileSystem* files, yx::CURI const& uri) {
        return yx::makeObject<CVMDKSparseExtentFile>(
            kelm::openVMDKFileStream(files, uri, yx::IIOStream::ReadWrite).get(),
            yx::IIOStream::ReadWrite, 0, 1, m_cache.get(), nullptr, nullptr, nullptr,
            yx::TCryptBuffer<unsigned char>(), yx::TBuffer<unsigned char>());
    }

    yx::P<CVMDKContentIDUpdater> makeUpdater(yx::IFileSystem* files,
                                             yx::CURI const& mainFile = kMainFile) {
        return yx::makeObject<CVMDKContentIDUpdater>(files, mainFile, m_descriptor.get());
    }

    std::string textInFile(std::size_t offset = 0) {
        std::string const text = test_support::toText(test_support::readFile(*m_memory, kMainFile));
        return text.substr(offset, text.find('\0', offset) - offset);
    }

    std::string textWith(unsigned int contentID) {
        return "encoding=\"UTF-8\"\nCID=" + yx::toHexString(contentID).toStdString() +
               "\nkey=in the file\n";
    }

    yx::P<yx::CMemoryFileSystem> m_memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<CVMDKDescriptor> m_descriptor =
        yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(kText)));
    yx::P<kelm::CVMDKGrainTableCache> m_cache = yx::makeObject<kelm::CVMDKGrainTableCache>();

private:
    void makeExtent(yx::CURI const& uri, CVMDKDescriptor* descriptor) {
        kelm::createEmptyVMDKSparseExtentFile(m_memory.get(), uri, false, 16, 8, zeroBuffer(2048),
                                              descriptor, descriptor ? 1 : 0,
                                              yx::TBuffer<unsigned char>());
    }
};

TEST_F(ContentIDUpdater, ChangesAnEmbeddedDescriptorThroughTheExtentsOwnStream) {
    makeMonolithicDisk();
    auto const files = yx::makeObject<RecordingFileSystem>(m_memory.get());
    auto const extent = openExtent(files.get(), kMainFile);
    // Another spelling of the main file.
    auto const updater = makeUpdater(files.get(), yx::CURI("FILE:///vm/./x/../disk.vmdk"));
    files->clear();
    updater->onDiskAboutToChange(*extent);

    EXPECT_EQ(files->count({Kind::Open}), 0u);
    EXPECT_EQ(files->lines({Kind::Write, Kind::Flush}),
              (std::vector<std::string>{"write disk.vmdk 512+512", "flush disk.vmdk"}));
    EXPECT_NE(m_descriptor->getContentID(), 0x12345678u);
    EXPECT_EQ(textInFile(512), textWith(m_descriptor->getContentID()));
}

TEST_F(ContentIDUpdater, OpensASeparateDescriptorFileOnceForAllExtents) {
    makeSplitDisk();
    auto const files = yx::makeObject<RecordingFileSystem>(m_memory.get());
    auto const first = openExtent(files.get(), kFirstExtent);
    auto const second = openExtent(files.get(), kSecondExtent);
    auto const updater = makeUpdater(files.get());
    files->clear();
    updater->onDiskAboutToChange(*first);
    updater->onDiskAboutToChange(*second);
    updater->onDiskAboutToChange(*first);

    EXPECT_EQ(files->lines({Kind::Open, Kind::Write, Kind::Flush, Kind::Close}),
              (std::vector<std::string>{"open disk.vmdk rw", "write disk.vmdk 0+46",
                                        "flush disk.vmdk", "close disk.vmdk"}));
    EXPECT_NE(m_descriptor->getContentID(), 0x12345678u);
    EXPECT_EQ(textInFile(), textWith(m_descriptor->getContentID()));
}

TEST_F(ContentIDUpdater, DrawsOncePerOpening) {
    makeSplitDisk();
    auto const extent = openExtent(m_memory.get(), kFirstExtent);
    auto const updater = makeUpdater(m_memory.get());
    updater->onDiskAboutToChange(*extent);
    unsigned int const firstID = m_descriptor->getContentID();
    updater->onDiskAboutToChange(*extent);
    EXPECT_EQ(m_descriptor->getContentID(), firstID);

    makeUpdater(m_memory.get())->onDiskAboutToChange(*extent);
    EXPECT_NE(m_descriptor->getContentID(), firstID);
    EXPECT_EQ(textInFile(), textWith(m_descriptor->getContentID()));
}

TEST_F(ContentIDUpdater, ChangesTheTextInTheFileAndNotTheOneInMemory) {
    makeSplitDisk();
    m_descriptor->setValue("key", "in memory", false, true);
    auto const extent = openExtent(m_memory.get(), kFirstExtent);
    makeUpdater(m_memory.get())->onDiskAboutToChange(*extent);
    EXPECT_EQ(textInFile(), textWith(m_descriptor->getContentID()));
    EXPECT_EQ(m_descriptor->getValue("key"), "in memory");
}

TEST_F(ContentIDUpdater, DoesNothingWhileUpdatesAreDisabled) {
    makeSplitDisk();
    auto const extent = openExtent(m_memory.get(), kFirstExtent);
    auto const updater = makeUpdater(m_memory.get());
    updater->setContentIDUpdatesEnabled(false);
    updater->onDiskAboutToChange(*extent);
    EXPECT_EQ(textInFile(), kText);
    EXPECT_EQ(m_descriptor->getContentID(), 0x12345678u);

    updater->setContentIDUpdatesEnabled(true);
    updater->onDiskAboutToChange(*extent);
    EXPECT_NE(m_descriptor->getContentID(), 0x12345678u);
    EXPECT_EQ(textInFile(), textWith(m_descriptor->getContentID()));
}

TEST_F(ContentIDUpdater, TriesAgainAfterAFailure) {
    for (Kind const kind : {Kind::Open, Kind::Read, Kind::Write, Kind::Flush, Kind::Close}) {
        m_descriptor->setContentID(0x12345678);
        makeSplitDisk();
        auto const files = yx::makeObject<FaultyFileSystem>(m_memory.get());
        auto const extent = openExtent(m_memory.get(), kFirstExtent);
        auto const updater = makeUpdater(files.get());
        files->add({.kinds = {kind}, .code = yx::CIOError::NoSpace});
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NoSpace, "Injected failure.",
                                                {{"uri", "file:///vm/disk.vmdk"}},
                                                [&] { updater->onDiskAboutToChange(*extent); }))
            << static_cast<int>(kind);
        EXPECT_EQ(m_descriptor->getContentID(), 0x12345678u);

        updater->onDiskAboutToChange(*extent);
        EXPECT_NE(m_descriptor->getContentID(), 0x12345678u);
        EXPECT_EQ(textInFile(), textWith(m_descriptor->getContentID()));
    }
}

TEST_F(ContentIDUpdater, TextWithoutContentIDStaysAsItIs) {
    makeSplitDisk();
    m_memory->putFile(kMainFile, toBuffer(fromText("key=in the file\n")));
    auto const extent = openExtent(m_memory.get(), kFirstExtent);
    auto const updater = makeUpdater(m_memory.get());
    EXPECT_TRUE(test_support::throwsError("VMDK descriptor value 'CID' not found.", {},
                                          [&] { updater->onDiskAboutToChange(*extent); }));
    EXPECT_EQ(textInFile(), "key=in the file\n");
    EXPECT_EQ(m_descriptor->getContentID(), 0x12345678u);
}

} // namespace

} // namespace content_id_updater_test
