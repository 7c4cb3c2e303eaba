// Disks in a bucket, by way of what programs open them with.

#include <gtest/gtest.h>

#include "host/check/disk_check.h"
#include "host/disk/safe_disk.h"
#include "host/store/file_systems.h"
#include "host/store/stores.h"
#include "host/transfer/raw_export.h"
#include "host/transfer/raw_target.h"
#include "tests/s3/fake_bucket.h"
#include "tests/s3/local_disks.h"
#include "tests/support/expect_error.h"
#include "tests/support/log_capture.h"

namespace s3_test {
namespace {

class BucketDisk : public testing::TestWithParam<test_support::DiskKind> {
protected:
    void SetUp() override { disks.make(GetParam()); }

    /// Puts all files of the folder into the bucket.
    void putFiles() {
        for (auto const& [name, content] : disks.readFiles())
            bucket.put("backups/" + name, content);
    }

    std::string exportDisk(std::string const& name) {
        kelm::host::SafeDisk disk(files.get(), FakeBucket::uri("backups/" + name),
                                  yx::IIOStream::ReadOnly, GetParam().password);
        std::string const path = (disks.getFolder() / "exported").string();
        kelm::host::RawTarget target(path, true);
        exportRaw(disk, target, {});
        return LocalDisks::readFile(path);
    }

    LocalDisks disks;
    FakeBucket bucket;
    kelm::host::AddedStore added{"s3", bucket.makeStore()};
    yx::P<kelm::host::FileSystems> files =
        yx::makeObject<kelm::host::FileSystems>(yx::makeObject<yx::CNativeFileSystem>());
};

TEST_P(BucketDisk, IsExportedByteForByte) {
    putFiles();
    EXPECT_TRUE(exportDisk("full.vmdk") == disks.getFullImage());
    EXPECT_TRUE(exportDisk("child.vmdk") == disks.getChildImage());
}

TEST_P(BucketDisk, IsSound) {
    putFiles();
    EXPECT_EQ(kelm::host::checkDisk(files.get(), FakeBucket::uri("backups/child.vmdk"),
                                    GetParam().password, {},
                                    [](yx::CURI const& file, std::string const& text) {
                                        ADD_FAILURE() << file << ": " << text;
                                    }),
              0);
}

TEST_P(BucketDisk, WithoutItsParentIsNotRead) {
    test_support::LogCapture const quiet;
    putFiles();
    bucket.remove("backups/full.vmdk");
    EXPECT_THROW(exportDisk("child.vmdk"), yx::CError);
}

TEST_P(BucketDisk, IsNotOpenedForWriting) {
    putFiles();
    EXPECT_THROW(kelm::host::SafeDisk(files.get(), FakeBucket::uri("backups/full.vmdk"),
                                      yx::IIOStream::ReadWrite, GetParam().password),
                 yx::CError);
    for (Request const& request : bucket.getServer().getRequests())
        EXPECT_TRUE(request.method == "HEAD" || request.method == "GET") << request.method;
}

TEST_P(BucketDisk, ThatIsReplacedWhileItIsReadIsAnError) {
    putFiles();
    kelm::host::SafeDisk disk(files.get(), FakeBucket::uri("backups/full.vmdk"),
                              yx::IIOStream::ReadOnly, GetParam().password);
    for (auto const& [name, content] : disks.readFiles())
        bucket.put("backups/" + name, content + "x");
    std::string const path = (disks.getFolder() / "exported").string();
    kelm::host::RawTarget target(path, true);
    EXPECT_THROW(exportRaw(disk, target, {}), yx::CError);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, BucketDisk, testing::ValuesIn(test_support::allDiskKinds()),
                         [](auto const& parameter) { return std::string(parameter.param.name); });

TEST(BucketDiskErrors, AreThoseOfTheStore) {
    FakeBucket bucket;
    kelm::host::AddedStore const added("s3", bucket.makeStore());
    yx::P<kelm::host::FileSystems> const files =
        yx::makeObject<kelm::host::FileSystems>(yx::makeObject<yx::CNativeFileSystem>());
    auto const open = [&] {
        kelm::host::SafeDisk disk(files.get(), FakeBucket::uri("a.vmdk"), yx::IIOStream::ReadOnly,
                                  "");
    };
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                                            {{"uri", "s3://disks/a.vmdk"}}, open));
    bucket.intervene = [](Request const&) { return refuse(403, "InvalidAccessKeyId"); };
    bucket.passTime();
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::AccessDenied,
        "Cannot query the file: The server refuses it (403 InvalidAccessKeyId).",
        {{"uri", "s3://disks/a.vmdk"}}, open));
}

} // namespace
} // namespace s3_test
