#include "host/backups/disk_upload.h"

#include "host/disk/safe_disk.h"
#include "host/disk/unfinished_disk.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/store_fixture.h"

namespace {

using kelm::host::DiskUpload;
using kelm::host::NewDisk;
using kelm::host::SafeDisk;
using test_support::Bytes;
using test_support::kGrainBytes;
using test_support::throwsIOError;

/// Takes whole files, and nothing else.
class BucketStandIn : public test_support::FolderStore, public kelm::host::IStoreUpload {
public:
    using FolderStore::FolderStore;

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override {
        if (access != yx::IIOStream::ReadOnly)
            refuse(uri);
        return FolderStore::openFile(uri, access, options);
    }
    void deleteFile(yx::CURI const& uri, bool) override { refuse(uri); }
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override { refuse(uri); }
    void verifyMayWriteIn(yx::CURI const& folder) override { refuse(folder); }

    void uploadFile(yx::CURI const& uri, kelm::host::Upload const& upload) override {
        uploaded.push_back(uri.getName().toStdString());
        if (uploaded.size() == failingUpload)
            throw yx::CIOError(yx::CIOError::NoSpace, "Injected failure.", yx::CProps(), nullptr);
        std::vector<unsigned char> bytes(static_cast<std::size_t>(upload.lengthBytes));
        constexpr __int64 kPieceBytes = 100'000;
        for (__int64 at = 0; at < upload.lengthBytes; at += kPieceBytes) {
            upload.check();
            upload.read(at, bytes.data() + at,
                        static_cast<int>(std::min(kPieceBytes, upload.lengthBytes - at)));
        }
        upload.progress(upload.lengthBytes, upload.lengthBytes);
        FolderStore::createFile(uri)->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    std::vector<std::string> uploaded;
    std::size_t failingUpload = 0;

private:
    [[noreturn]] static void refuse(yx::CURI const& uri) {
        throw yx::CIOError(yx::CIOError::AccessDenied, "The store is for reading only.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
};

class DiskUploadTest : public test_support::StoreTest {
protected:
    DiskUploadTest()
        : bucket(yx::makeObject<BucketStandIn>(bucketFolder.path().string())),
          bucketAdded("bucket", bucket) {}

    static yx::CURI inBucket(std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("bucket:/" + name)).toNormalized();
    }

    void make(std::string const& name, NewDisk request, unsigned char content,
              std::string const& parent = "", bool isComplete = true) {
        request.sizeBytes = test_support::kSmallestDiskBytes;
        request.isToBeFilled = true;
        if (!parent.empty())
            request.parent = folder.uri(parent);
        auto const guard = yx::makeObject<kelm::host::FileGuard>(files.get(), false);
        std::unique_ptr<SafeDisk> disk = SafeDisk::create(guard.get(), folder.uri(name), request);
        test_support::writeGrain(*disk, 0, Bytes(kGrainBytes, content));
        if (isComplete)
            disk->markComplete();
        disk.reset();
        guard->keep();
    }

    std::unique_ptr<SafeDisk> open(yx::CURI const& uri) {
        return std::make_unique<SafeDisk>(files.get(), uri, yx::IIOStream::ReadOnly, yx::String());
    }

    std::vector<yx::CURI> upload(std::string const& from, std::string const& to) {
        return DiskUpload(files.get(), folder.uri(from), inBucket(to), options).run();
    }

    test_support::TempDirectory bucketFolder;
    yx::P<BucketStandIn> bucket;
    kelm::host::AddedStore bucketAdded;
    kelm::host::DiskCopyOptions options;
};

TEST_F(DiskUploadTest, ReadsAsTheDiskUnderItsNewName) {
    make("a.vmdk", {}, 7);
    EXPECT_EQ(upload("a.vmdk", "full.vmdk"), std::vector{inBucket("full.vmdk")});
    EXPECT_EQ(test_support::readGrain(*open(inBucket("full.vmdk")), 0), Bytes(kGrainBytes, 7));
    EXPECT_EQ(open(inBucket("full.vmdk"))->listFiles(), std::vector{inBucket("full.vmdk")});
}

TEST_F(DiskUploadTest, OfASplitDiskBringsTheMainFileLast) {
    NewDisk request;
    request.fileSizeLimitBytes = test_support::kSmallestDiskBytes / 2;
    make("a.vmdk", request, 7);
    upload("a.vmdk", "b.vmdk");
    ASSERT_GT(bucket->uploaded.size(), 2U);
    EXPECT_EQ(bucket->uploaded.front(), "b-s00000.vmdk");
    EXPECT_EQ(bucket->uploaded.back(), "b.vmdk");
    EXPECT_EQ(test_support::readGrain(*open(inBucket("b.vmdk")), 0), Bytes(kGrainBytes, 7));
}

TEST_F(DiskUploadTest, ThatFailsGoesOnWithWhatIsThere) {
    NewDisk request;
    request.fileSizeLimitBytes = test_support::kSmallestDiskBytes / 2;
    make("a.vmdk", request, 7);
    bucket->failingUpload = 2;
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.", {},
                              [&] { upload("a.vmdk", "a.vmdk"); }));
    EXPECT_FALSE(files->fileExists(inBucket("a.vmdk")));
    bucket->failingUpload = 0;
    bucket->uploaded.clear();
    upload("a.vmdk", "a.vmdk");
    EXPECT_NE(bucket->uploaded.front(), "a-s00000.vmdk");
    EXPECT_EQ(test_support::readGrain(*open(inBucket("a.vmdk")), 0), Bytes(kGrainBytes, 7));
}

TEST_F(DiskUploadTest, LeavesOtherFilesAsTheyAre) {
    NewDisk request;
    request.fileSizeLimitBytes = test_support::kSmallestDiskBytes / 2;
    make("a.vmdk", request, 7);
    std::ofstream(bucketFolder.path() / "a-s00000.vmdk") << "another";
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "bucket:/a-s00000.vmdk"}},
                              [&] { upload("a.vmdk", "a.vmdk"); }));
    std::ofstream(bucketFolder.path() / "b.vmdk") << "another";
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "bucket:/b.vmdk"}}, [&] { upload("a.vmdk", "b.vmdk"); }));
    EXPECT_TRUE(bucket->uploaded.empty());
}

TEST_F(DiskUploadTest, OfAChildRefersToTheParentThatIsThere) {
    make("a.vmdk", {}, 7);
    make("b.vmdk", {}, 8, "a.vmdk");
    upload("a.vmdk", "a.vmdk");
    upload("b.vmdk", "b.vmdk");
    EXPECT_EQ(open(inBucket("b.vmdk"))->getDisk().getParentDiskMainURI(), inBucket("a.vmdk"));
    // A file of that name with another content is not the parent.
    make("other.vmdk", {}, 9);
    std::filesystem::create_directory(bucketFolder.path() / "else");
    upload("other.vmdk", "else/a.vmdk");
    upload("b.vmdk", "else/b.vmdk");
    EXPECT_EQ(open(inBucket("else/b.vmdk"))->getDisk().getParentDiskMainURI(),
              folder.uri("a.vmdk"));
}

TEST_F(DiskUploadTest, IsOfDisksThatAreFinishedAndThatNobodyChanges) {
    make("a.vmdk", {}, 7, "", false);
    EXPECT_THROW(upload("a.vmdk", "a.vmdk"), kelm::host::UnfinishedDiskError);
    make("b.vmdk", {}, 7);
    SafeDisk const writer(files.get(), folder.uri("b.vmdk"), yx::IIOStream::ReadWrite,
                          yx::String());
    EXPECT_THROW(upload("b.vmdk", "b.vmdk"), yx::CLockFileError);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", folder.uri("none.vmdk").toString(true).toStdString()}},
                              [&] { upload("none.vmdk", "a.vmdk"); }));
    EXPECT_TRUE(bucket->uploaded.empty());
}

TEST_F(DiskUploadTest, CanBeInterrupted) {
    make("a.vmdk", {}, 7);
    kelm::host::CancelFlag cancel;
    cancel.set();
    options.work.cancel = &cancel;
    EXPECT_THROW(upload("a.vmdk", "a.vmdk"), kelm::host::CancelledError);
    EXPECT_FALSE(files->fileExists(inBucket("a.vmdk")));
}

} // namespace
