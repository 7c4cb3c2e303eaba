#include "host/disk/descriptor_room.h"

#include "tests/host/host_fixture.h"

using kelm::host::giveDescriptorRoom;

namespace test_support {
namespace {

class DescriptorRoomTest : public HostTest {
protected:
    int lengthAfter(std::string const& text) {
        putText("disk.vmdk", text);
        giveDescriptorRoom(files.get(), uriOf("disk.vmdk"));
        return files->getFile(uriOf("disk.vmdk")).getUsed();
    }

    static constexpr char kText[] = "version=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                                    "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                                    "RW 128 SPARSE \"a.vmdk\"\n";
    static constexpr int kTextBytes = static_cast<int>(sizeof kText) - 1;
};

TEST_F(DescriptorRoomTest, IsFourSectorsBehindATextThatFillsItsFile) {
    EXPECT_EQ(kTextBytes + 4 * 512, lengthAfter(kText));
    std::string const text = toText(toBytes(files->getFile(uriOf("disk.vmdk"))));
    EXPECT_EQ(kText + std::string(4 * 512, '\0'), text);
}

TEST_F(DescriptorRoomTest, IsNotGivenTwice) {
    lengthAfter(kText);
    giveDescriptorRoom(files.get(), uriOf("disk.vmdk"));
    EXPECT_EQ(kTextBytes + 4 * 512, files->getFile(uriOf("disk.vmdk")).getUsed());
    EXPECT_EQ(kTextBytes + 1, lengthAfter(kText + std::string(1, '\0')));
}

TEST_F(DescriptorRoomTest, IsNotGivenInsideAnExtentFile) {
    createSafe({});
    Bytes const before = toBytes(files->getFile(uriOf("disk.vmdk")));
    giveDescriptorRoom(files.get(), uriOf("disk.vmdk"));
    EXPECT_TRUE(sameBytes(before, toBytes(files->getFile(uriOf("disk.vmdk")))));
}

} // namespace
} // namespace test_support
