// Every allocation of the operations of the format fails once.

#include <gtest/gtest.h>

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
