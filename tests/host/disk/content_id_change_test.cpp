#include "host/disk/content_id_change.h"

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

using kelm::host::ContentIDChange;
using kelm::host::drawContentIDLike;

namespace test_support {
namespace {

using ContentIDChangeTest = HostTest;

TEST(DrawContentID, KeepsTheNumberOfDigits) {
    for (unsigned int const old :
         {0x1U, 0xFU, 0x10U, 0xFFFU, 0x1000U, 0xFFFFFFFU, 0x10000000U, 0xFFFFFFFEU}) {
        for (int i = 0; i < 100; ++i) {
            unsigned int const drawn = drawContentIDLike(old);
            EXPECT_NE(old, drawn);
            EXPECT_NE(0U, drawn);
            EXPECT_NE(0xFFFFFFFFU, drawn);
            EXPECT_EQ(yx::toHexString(old).wx().length(), yx::toHexString(drawn).wx().length());
        }
    }
}

TEST_F(ContentIDChangeTest, IsDoneOnceAndBroughtToTheDevice) {
    createSafe({});
    yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
    unsigned int const before = disk->getDescriptor()->getContentID();
    ContentIDChange change(*disk);
    EXPECT_EQ(before, disk->getDescriptor()->getContentID());
    change.ensureDone();
    unsigned int const after = disk->getDescriptor()->getContentID();
    EXPECT_NE(before, after);
    change.ensureDone();
    DiskTest::writeAt(*disk, 0, pattern(100, 1));
    EXPECT_EQ(after, disk->getDescriptor()->getContentID());
    EXPECT_EQ(after, kelm::CVMDKDescriptorAccessor(
                         kelm::openVMDKFileStream(files.get(), uriOf("disk.vmdk"), kReadOnly).get(),
                         kReadOnly)
                         .getDescriptor()
                         ->getContentID());
}

TEST_F(ContentIDChangeTest, IsTriedAgainAfterAFailure) {
    createSafe({});
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
        faulty.get(), uriOf("disk.vmdk"), kReadWrite, "", 1, nullptr, nullptr);
    unsigned int const before = disk->getDescriptor()->getContentID();
    ContentIDChange change(*disk);
    faulty->add({.kinds = {FileOperation::Kind::Write}, .code = yx::CIOError::NoSpace});
    EXPECT_THROW(change.ensureDone(), yx::CIOError);
    EXPECT_EQ(before, disk->getDescriptor()->getContentID());
    change.ensureDone();
    EXPECT_NE(before, disk->getDescriptor()->getContentID());
}

} // namespace
} // namespace test_support
