#include "host/disk/parent_link.h"

#include "tests/host/host_fixture.h"

using kelm::host::dropParentLink;
using kelm::host::makeIndependentOfParent;
using kelm::host::ParentCheck;
using kelm::host::repointToParent;

namespace test_support {
namespace {

class ParentLinkTest : public HostTest {
protected:
    /// "parent.vmdk" and "child.vmdk", which differs from it.
    void makeChain(DiskKind const& kind) { makeChain(kind, kind); }

    void makeChain(DiskKind const& parentKind, DiskKind const& childKind) {
        {
            std::unique_ptr<SafeDisk> const parent = createSafe(parentKind, "parent.vmdk");
            writeTo(*parent, 0, mixedContent());
        }
        std::unique_ptr<SafeDisk> const child = createSafe(childKind, "child.vmdk", "parent.vmdk");
        writeTo(*child, 100, textPattern(100, 9));
    }

    void moveParent(std::string const& to) {
        files->putFile(uriOf(to), files->getFile(uriOf("parent.vmdk")));
        files->deleteFile(uriOf("parent.vmdk"), false);
    }

    unsigned int contentID(std::string const& name) {
        return openSafe(name, kReadOnly)->getDisk().getDescriptor()->getContentID();
    }
};

TEST_F(ParentLinkTest, ChildFindsAParentThatHasMoved) {
    for (bool const compressed : {false, true}) {
        makeChain({.compressed = compressed});
        Bytes const content = contentAfterReopening("child.vmdk");
        unsigned int const childID = contentID("child.vmdk");
        moveParent("elsewhere/parent.vmdk");
        {
            std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
            repointToParent(*child, *openSafe("elsewhere/parent.vmdk", kReadOnly),
                            ParentCheck::Content);
        }
        EXPECT_EQ(content, contentAfterReopening("child.vmdk"));
        EXPECT_EQ("elsewhere/parent.vmdk", openSafe("child.vmdk", kReadOnly)
                                               ->getDisk()
                                               .getDescriptor()
                                               ->getParentFileNameHint()
                                               .toStdString());
        EXPECT_EQ(childID, contentID("child.vmdk"));
        for (char const* name : {"child.vmdk", "elsewhere/parent.vmdk"})
            files->deleteFile(uriOf(name), false);
    }
}

/// A text of other software, that fills its file to the last byte.
TEST_F(ParentLinkTest, TextWithoutRoomGetsRoomForALongerPath) {
    makeChain({}, {.fileSizeLimit = kSplitLimit});
    Bytes const content = contentAfterReopening("child.vmdk");
    moveParent("elsewhere/in/a/folder/of/a/rather/long/name/parent.vmdk");
    std::string text = toText(toBytes(files->getFile(uriOf("child.vmdk"))));
    text.resize(text.find('\0'));
    // Room enough for what an opening looks after, and for nothing else.
    text += std::string(24, '\0');
    putText("child.vmdk", text);
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        repointToParent(
            *child, *openSafe("elsewhere/in/a/folder/of/a/rather/long/name/parent.vmdk", kReadOnly),
            ParentCheck::Content);
    }
    EXPECT_EQ(content, contentAfterReopening("child.vmdk"));
}

TEST_F(ParentLinkTest, PathThatEndsInABlankIsKeptByALineWithoutQuotesToo) {
    makeChain({}, {.fileSizeLimit = kSplitLimit});
    Bytes const content = contentAfterReopening("child.vmdk");
    moveParent("parent%20");
    std::string text = toText(toBytes(files->getFile(uriOf("child.vmdk"))));
    std::string const quoted = "parentFileNameHint=\"parent.vmdk\"";
    ASSERT_NE(std::string::npos, text.find(quoted));
    text.replace(text.find(quoted), quoted.size(), "parentFileNameHint=parent.vmdk");
    putText("child.vmdk", text);
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        repointToParent(*child, *openSafe("parent%20", kReadOnly), ParentCheck::Content);
    }
    EXPECT_EQ("parent ", openSafe("child.vmdk", kReadOnly)
                             ->getDisk()
                             .getDescriptor()
                             ->getParentFileNameHint()
                             .toStdString());
    EXPECT_EQ(content, contentAfterReopening("child.vmdk"));
}

TEST_F(ParentLinkTest, ParentOfOtherContentIsRefusedAndNothingChanges) {
    makeChain({});
    { createSafe({}, "other.vmdk"); }
    Bytes const before = toBytes(files->getFile(uriOf("child.vmdk")));
    std::unique_ptr<SafeDisk> child = openSafe("child.vmdk");
    std::unique_ptr<SafeDisk> const other = openSafe("other.vmdk", kReadOnly);
    auto const hex = [](unsigned int id) { return yx::toHexString(id).toStdString(); };
    unsigned int const otherID = other->getDisk().getDescriptor()->getContentID();
    unsigned int const parentID = child->getDisk().getDescriptor()->getParentContentID();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The new parent is not what the child disk was made of.",
                              {{"parentURI", "mem:///disks/other.vmdk"},
                               {"expectedContentID", hex(parentID)},
                               {"actualContentID", hex(otherID)}},
                              [&] { repointToParent(*child, *other, ParentCheck::Content); }));
    child.reset();
    EXPECT_EQ(before, toBytes(files->getFile(uriOf("child.vmdk"))));
}

TEST_F(ParentLinkTest, ParentOfOtherContentIsTakenIfThatIsMeant) {
    makeChain({});
    {
        std::unique_ptr<SafeDisk> const other = createSafe({}, "other.vmdk");
        writeTo(*other, 3 * kGrainBytes, textPattern(1000, 5));
    }
    repointToParent(*openSafe("child.vmdk"), *openSafe("other.vmdk", kReadOnly), ParentCheck::None);
    std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk", kReadOnly);
    EXPECT_EQ(textPattern(1000, 5), readFrom(*child, 3 * kGrainBytes, 1000));
    EXPECT_EQ(textPattern(100, 9), readFrom(*child, 100, 100));
}

TEST_F(ParentLinkTest, DroppedLinkLeavesADiskOfItsOwn) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        Bytes const content = contentAfterReopening("child.vmdk", kind.password);
        unsigned int childID = 0;
        {
            std::unique_ptr<SafeDisk> const child =
                openSafe("child.vmdk", kReadWrite, kind.password);
            childID = child->getDisk().getDescriptor()->getContentID();
            makeIndependentOfParent(*child, {});
            dropParentLink(*child);
        }
        files->deleteFile(uriOf("parent.vmdk"), false);
        std::unique_ptr<SafeDisk> child = openSafe("child.vmdk", kReadOnly, kind.password);
        EXPECT_FALSE(child->hasParent());
        yx::String const text = child->getDisk().getDescriptor()->toString();
        EXPECT_EQ(wxString::npos, text.wx().find("parentFileNameHint"));
        // The content is what it was, so the children of this disk know it still.
        EXPECT_EQ(childID, child->getDisk().getDescriptor()->getContentID());
        child.reset();
        EXPECT_EQ(content, contentAfterReopening("child.vmdk", kind.password));
        for (std::string const& name : fileNames())
            files->deleteFile(uriOf(name), false);
    }
}

} // namespace
} // namespace test_support
