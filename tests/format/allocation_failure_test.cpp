// Every allocation of the operations of the format fails once.

#include <gtest/gtest.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/content_id_updater.h"
#include "kelm/format/descriptor_accessor.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "kelm/format/file_reference.h"
#include "kelm/format/marker.h"
#include "kelm/format/sparse_extent_header.h"
#include "tests/support/byte_builder.h"
#include "tests/support/fail_each_allocation.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_stream.h"
#include "yx/memory_file_system.h"

namespace {

using kelm::CVMDKDescriptor;
using kelm::CVMDKDescriptorAccessor;
using kelm::CVMDKExtentInfo;
using kelm::CVMDKSparseExtentHeader;
using test_support::Bytes;
using test_support::failEachAllocation;
using test_support::fromText;
using test_support::ScriptedStream;
using test_support::toBuffer;
using test_support::zeroBuffer;

constexpr char kText[] = "# Disk DescriptorFile\n"
                         "version=1\n"
                         "CID=fffffffe\n"
                         "parentCID=ffffffff\n"
                         "createType=\"monolithicSparse\"\n"
                         "\n"
                         "RW 100 SPARSE \"a name that is too long for any short form.vmdk\"\n"
                         "RW 200 SPARSE \"b.vmdk\" 7\n"
                         "ddb.adapterType = \"ide\"\n";

/// What an operation works on and what it gives.
struct DescriptorCase {
    yx::P<CVMDKDescriptor> descriptor;
    yx::TArray<yx::P<CVMDKExtentInfo>> extents;
    yx::String text;
};

DescriptorCase caseOf(std::string_view text) {
    return {yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(text))), {}, {}};
}

std::string describe(DescriptorCase const& each) {
    CVMDKDescriptor probe(*each.descriptor);
    probe.addGenericLine("<here>", true);
    return probe.toString().toStdString() + std::to_string(each.extents.getSize()) +
           " extents, text " + each.text.toStdString();
}

template <class Run>
void failEach(char const* name, Run const& run) {
    for (char const* text : {kText, ""}) {
        failEachAllocation(
            name, [text] { return caseOf(text); }, run,
            [](DescriptorCase const& each) { return describe(each); });
    }
}

yx::String const kLong = "a value that is too long to be held in a string's own room";

TEST(FormatAllocations, ChangesOfADescriptorHappenWhollyOrNotAtAll) {
    using Case = DescriptorCase;
    failEach("change", [](Case& each) { each.descriptor->setValue("CID", kLong, false, true); });
    failEach("new in header",
             [](Case& each) { each.descriptor->setValue("new", kLong, true, true); });
    failEach("new at end",
             [](Case& each) { each.descriptor->setValue("new", kLong, true, false); });
    failEach("remove", [](Case& each) { each.descriptor->removeValue("version"); });
    failEach("typed values", [](Case& each) {
        each.descriptor->setParentFileNameHint(kLong);
        each.descriptor->setGeometrySectors(63);
        each.descriptor->setYxEncryptionIV(toBuffer(fromText("0123456789abcdef")));
        each.descriptor->removeParentFileNameHint();
    });
    failEach("assign", [](Case& each) {
        *each.descriptor = CVMDKDescriptor(toBuffer(fromText("other=1\nRW 1 SPARSE \"x\"\n")));
    });
}

TEST(FormatAllocations, AddedLinesAreThereOnce) {
    using Case = DescriptorCase;
    failEach("generic line in header",
             [](Case& each) { each.descriptor->addGenericLine(kLong, true); });
    failEach("generic line at end",
             [](Case& each) { each.descriptor->addGenericLine(kLong, false); });
    failEach("extent line", [](Case& each) {
        each.descriptor->addExtentEntry(
            yx::makeObject<CVMDKExtentInfo>("RW", 5, "SPARSE", kLong, -1).get());
    });
}

TEST(FormatAllocations, WhatADescriptorIsAskedComesWhole) {
    using Case = DescriptorCase;
    failEach("extents", [](Case& each) { each.descriptor->getExtentEntries(each.extents); });
    failEach("text", [](Case& each) { each.text = each.descriptor->toString(); });
    failEach("value", [](Case& each) { each.descriptor->tryGetValue("createType", each.text); });
    failEach("copy", [](Case& each) { each.text = CVMDKDescriptor(*each.descriptor).toString(); });
    failEach("clone", [](Case& each) {
        auto const extent = CVMDKExtentInfo::tryParseDescriptorLine("RW 3 SPARSE \"c.vmdk\" 1");
        each.text = extent->cloneDescriptorEntry()->toString();
    });
}

TEST(FormatAllocations, TextIsReadInItsOwnEncodingOrNotAtAll) {
    for (std::string const& text :
         {std::string(kText) + "k=\xC3\xBC\n", std::string("encoding=\"UTF-8\"\nk=\xC3\xBC\n"),
          std::string("encoding=\"latin1\"\nk=\xFC\n")}) {
        failEachAllocation(
            text.c_str(), [] { return DescriptorCase(); },
            [&](DescriptorCase& each) {
                each.descriptor = yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(text)));
            },
            [](DescriptorCase const& each) { return describe(each); });
    }
}

Bytes contentOf(yx::P<ScriptedStream> const& stream) {
    return stream->content();
}

TEST(FormatAllocations, StoredDescriptorIsWhole) {
    yx::TBuffer<unsigned char> const zeros = zeroBuffer(2048);
    failEachAllocation(
        "store", [] { return yx::makeObject<ScriptedStream>(Bytes(4096, 0xEE)); },
        [&](yx::P<ScriptedStream> const& stream) {
            stream->seek(512);
            caseOf(kText).descriptor->store(*stream, 2048, zeros);
        },
        contentOf);
    failEachAllocation(
        "accessor",
        [] {
            Bytes file = fromText(kText);
            file.resize(2048);
            return yx::makeObject<ScriptedStream>(file);
        },
        [](yx::P<ScriptedStream> const& stream) {
            CVMDKDescriptorAccessor accessor(stream.get(), yx::IIOStream::ReadWrite);
            accessor.getDescriptor()->setContentID(5);
            accessor.storeDescriptor(true);
        },
        contentOf);
}

/// Has one digit, so that no ID that is drawn makes the text shorter: where memory ends between a
/// shorter text and its padding, the end of the text before it is still there.
constexpr unsigned int kOldContentID = 1;

/// What an ID that is drawn at random leaves to compare: whether it is a new one, and the text
/// around it.
std::string describeChange(CVMDKDescriptor const& descriptor) {
    CVMDKDescriptor copy(descriptor);
    bool const isNew = copy.getContentID() != kOldContentID;
    copy.setContentID(kOldContentID);
    return (isNew ? "new ID in " : "old ID in ") + copy.toString().toStdString();
}

constexpr char kTextWithID[] = "encoding=\"UTF-8\"\nCID=1\nkey=value\n";

/// With zeros behind the text, so that every ID that is drawn has room.
Bytes fileWithID() {
    Bytes file = fromText(kTextWithID);
    file.resize(1024);
    return file;
}

struct AccessorCase {
    AccessorCase() {
        stream = yx::makeObject<ScriptedStream>(fileWithID());
        accessor = yx::makeObject<CVMDKDescriptorAccessor>(stream.get(), yx::IIOStream::ReadWrite);
    }

    yx::P<ScriptedStream> stream;
    yx::P<CVMDKDescriptorAccessor> accessor;
    unsigned int drawn = 0;
};

TEST(FormatAllocations, ContentIDThatIsDrawnIsTheOneThatIsSet) {
    failEachAllocation(
        "change", [] { return AccessorCase(); },
        [](AccessorCase& each) { each.drawn = each.accessor->changeContentID(); },
        [](AccessorCase const& each) {
            EXPECT_EQ(each.drawn, each.accessor->getDescriptor()->getContentID());
            return describeChange(*each.accessor->getDescriptor()) +
                   test_support::toText(each.stream->content());
        });
}

/// A disk in memory with an extent of it, open, and the updater of its content ID.
struct UpdaterCase {
    explicit UpdaterCase(bool isEmbedded) {
        kelm::createEmptyVMDKSparseExtentFile(
            files.get(), isEmbedded ? mainFile : extentFile, false, 16, 8, zeroBuffer(2048),
            isEmbedded ? descriptor.get() : nullptr, isEmbedded ? 1 : 0, {});
        if (!isEmbedded)
            files->putFile(mainFile, toBuffer(fileWithID()));
        extent = yx::makeObject<kelm::CVMDKSparseExtentFile>(
            kelm::openVMDKFileStream(files.get(), isEmbedded ? mainFile : extentFile,
                                     yx::IIOStream::ReadWrite)
                .get(),
            yx::IIOStream::ReadWrite, 0, 1, cache.get(), nullptr, nullptr, nullptr,
            yx::TCryptBuffer<unsigned char>(), yx::TBuffer<unsigned char>());
    }

    /// The descriptor as it is in the file.
    yx::P<CVMDKDescriptor> readStored() const {
        unsigned int options = 0;
        yx::P<yx::IIOStream> const stream =
            files->openFile(mainFile, yx::IIOStream::ReadOnly, &options);
        return CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
    }

    yx::CURI mainFile = yx::CURI("mem:///d/disk.vmdk");
    yx::CURI extentFile = yx::CURI("mem:///d/disk-s001.vmdk");
    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<CVMDKDescriptor> descriptor =
        yx::makeObject<CVMDKDescriptor>(toBuffer(fromText(kTextWithID)));
    yx::P<kelm::CVMDKGrainTableCache> cache = yx::makeObject<kelm::CVMDKGrainTableCache>();
    yx::P<kelm::CVMDKContentIDUpdater> updater =
        yx::makeObject<kelm::CVMDKContentIDUpdater>(files.get(), mainFile, descriptor.get());
    yx::P<kelm::CVMDKSparseExtentFile> extent;
};

TEST(FormatAllocations, ContentIDOfADiskIsOneInTheFileAndInMemory) {
    for (bool const isEmbedded : {false, true}) {
        failEachAllocation(
            isEmbedded ? "embedded" : "separate",
            [isEmbedded] { return std::make_unique<UpdaterCase>(isEmbedded); },
            [](std::unique_ptr<UpdaterCase> const& each) {
                // Whatever failed before has left a disk with a descriptor.
                EXPECT_NE(each->readStored()->toString().wx().find(L"key=value"), wxString::npos);
                each->updater->onDiskAboutToChange(*each->extent);
            },
            [](std::unique_ptr<UpdaterCase> const& each) {
                yx::P<CVMDKDescriptor> const stored = each->readStored();
                EXPECT_EQ(stored->getContentID(), each->descriptor->getContentID());
                return describeChange(*stored) + describeChange(*each->descriptor);
            });
    }
}

TEST(FormatAllocations, HeaderIsWhole) {
    CVMDKSparseExtentHeader encrypted;
    encrypted.setEncryptionExtensionEnabled(true);
    encrypted.setEncryptionKeyHash(toBuffer(Bytes(32, 0x77)));
    for (bool const isEncrypted : {false, true}) {
        CVMDKSparseExtentHeader const source = isEncrypted ? encrypted : CVMDKSparseExtentHeader();
        failEachAllocation(
            "header", [] { return yx::makeObject<ScriptedStream>(); },
            [&](yx::P<ScriptedStream> const& stream) {
                stream->seek(0);
                yx::CDataOutStream out(stream.get());
                CVMDKSparseExtentHeader(source).store(out);
                stream->seek(0);
                yx::CDataInStream in(stream.get());
                CVMDKSparseExtentHeader loaded;
                loaded.load(in);
                stream->seek(512);
                loaded.store(out);
            },
            contentOf);
        // Turned into the other variant, it needs a padding of another size.
        failEachAllocation(
            "variant", [&] { return yx::makeObject<CVMDKSparseExtentHeader>(source); },
            [&](yx::P<CVMDKSparseExtentHeader> const& header) {
                header->setEncryptionExtensionEnabled(!isEncrypted);
                header->setEncryptionKeyHash(toBuffer(Bytes(100, 0x55)));
            },
            [](yx::P<CVMDKSparseExtentHeader> const& header) {
                auto const stream = yx::makeObject<ScriptedStream>();
                yx::CDataOutStream out(stream.get());
                header->store(out);
                return stream->content();
            });
    }
}

TEST(FormatAllocations, ReferencesAndMarkersAreWhole) {
    failEachAllocation(
        "reference", [] { return std::string(); },
        [](std::string& target) {
            target = kelm::vmdkFileReferenceToURI(yx::CURI("file:///a/b/"), "..\\c d\\e.vmdk")
                         .toString(true)
                         .toStdString();
        },
        [](std::string const& target) { return target; });
    yx::TBuffer<unsigned char> const zeros = zeroBuffer(512);
    failEachAllocation(
        "markers", [] { return yx::makeObject<ScriptedStream>(); },
        [&](yx::P<ScriptedStream> const& stream) {
            stream->seek(0);
            yx::CDataOutStream out(stream.get());
            kelm::writeVMDKMarker(out, kelm::VMDKMarkerFooter, 1, zeros);
            kelm::writeEmptyVMDKGrainDirectoryAndTables(out, 3, zeros, true);
            kelm::writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, 3, zeros);
        },
        contentOf);
}

TEST(FormatAllocations, EmptyExtentIsWholeOrAbsent) {
    test_support::LogCapture const quiet;
    yx::TBuffer<unsigned char> const zeros = zeroBuffer(4096);
    yx::CURI const uri("mem:///a.vmdk");
    for (bool const isCompressed : {false, true}) {
        failEachAllocation(
            "empty extent", [] { return yx::makeObject<yx::CMemoryFileSystem>(); },
            [&](yx::P<yx::CMemoryFileSystem> const& files) {
                EXPECT_FALSE(files->fileExists(uri));
                kelm::createEmptyVMDKSparseExtentFile(files.get(), uri, isCompressed, 700, 8, zeros,
                                                      caseOf(kText).descriptor.get(), 4,
                                                      toBuffer(Bytes(32, 0x77)));
            },
            [&](yx::P<yx::CMemoryFileSystem> const& files) {
                return test_support::toBytes(files->getFile(uri));
            });
    }
}

} // namespace
