#include "integrations/s3/bucket_upload.h"

#include <gtest/gtest.h>

#include "host/system/cancel.h"
#include "tests/s3/fake_bucket.h"
#include "tests/support/expect_error.h"

namespace s3_test {
namespace {

using kelm::host::Upload;
using kelm::s3::BucketUpload;
using test_support::throwsIOError;

constexpr __int64 kPart = BucketUpload::kMinPartBytes;

class BucketUploads : public testing::Test {
protected:
    /// Content of which every part is another.
    static std::string makeContent(__int64 lengthBytes) {
        std::string content(static_cast<std::size_t>(lengthBytes), '\0');
        for (std::size_t i = 0; i < content.size(); i += 4096)
            content[i] = static_cast<char>(i / 4096 % 251);
        return content;
    }

    Upload makeUpload(std::string const& content) {
        Upload upload;
        upload.lengthBytes = static_cast<__int64>(content.size());
        upload.read = [this, &content](__int64 position, void* target, int size) {
            EXPECT_EQ(position, readBytes);
            readBytes += size;
            content.copy(static_cast<char*>(target), static_cast<std::size_t>(size),
                         static_cast<std::size_t>(position));
        };
        return upload;
    }

    void upload(std::string const& content) {
        readBytes = 0;
        store->uploadFile(uri, makeUpload(content));
    }

    testing::AssertionResult fails(yx::CIOError::Code code, std::string const& message,
                                   std::string const& content) {
        return throwsIOError(code, message, {{"uri", "s3://disks/a%20b.vmdk"}},
                             [&] { upload(content); });
    }

    /// Lets the bucket be asked by a function before it answers requests of that kind.
    void intervene(std::string const& method, std::string const& inQuery,
                   std::function<std::optional<Reply>(Request const&)> answer) {
        bucket.intervene = [=](Request const& request) -> std::optional<Reply> {
            if (request.method != method || request.query.find(inQuery) == std::string::npos)
                return std::nullopt;
            return answer(request);
        };
    }

    FakeBucket bucket;
    yx::P<kelm::s3::CBucketStore> store = bucket.makeStore();
    yx::CURI const uri = FakeBucket::uri("a%20b.vmdk");
    __int64 readBytes = 0;
};

TEST_F(BucketUploads, PartsAreLargeEnoughForTheirNumber) {
    constexpr __int64 kMiB = __int64{1} << 20;
    EXPECT_EQ(BucketUpload::choosePartBytes(0), 8 * kMiB);
    EXPECT_EQ(BucketUpload::choosePartBytes(80000 * kMiB), 8 * kMiB);
    EXPECT_EQ(BucketUpload::choosePartBytes(80000 * kMiB + 1), 9 * kMiB);
    EXPECT_EQ(BucketUpload::choosePartBytes(__int64{5} << 40), 525 * kMiB);
}

TEST_F(BucketUploads, OfAnyLengthArriveWhole) {
    for (__int64 const length :
         {__int64{0}, __int64{1}, kPart, kPart + 1, 3 * kPart, 4 * kPart - 7}) {
        SCOPED_TRACE(length);
        bucket.remove("a b.vmdk");
        std::string const content = makeContent(length);
        upload(content);
        EXPECT_TRUE(bucket.get("a b.vmdk") == content);
        EXPECT_EQ(bucket.countUploads(), 0U);
        EXPECT_EQ(readBytes, length);
    }
}

TEST_F(BucketUploads, PromiseWhatTheySend) {
    bucket.settings.keys = kelm::s3::AccessKeys{"id", "secret", ""};
    upload(makeContent(kPart + 5));
    int parts = 0;
    for (Request const& request : bucket.getServer().getRequests()) {
        if (request.method != "PUT")
            continue;
        ++parts;
        EXPECT_EQ(request.header("x-amz-content-sha256").size(), 64U);
        EXPECT_EQ(request.header("content-md5").size(), 24U);
    }
    EXPECT_EQ(parts, 2);
    // A part that was changed on its way is noticed by the server, as the bucket of the tests does.
    intervene("PUT", "partNumber", [this](Request request) {
        request.body[0] = 'x';
        return std::optional(bucket.answer(request));
    });
    bucket.remove("a b.vmdk");
    EXPECT_TRUE(fails(yx::CIOError::IOFailure,
                      "Cannot upload the file: The server answers 400 (BadDigest).",
                      makeContent(kPart + 5)));
}

TEST_F(BucketUploads, ReplaceNothingUnlessTold) {
    for (__int64 const length : {__int64{10}, kPart + 1}) {
        bucket.put("a b.vmdk", "old");
        bucket.getServer().forgetRequests();
        EXPECT_TRUE(
            fails(yx::CIOError::AlreadyExists, "The file exists already.", makeContent(length)));
        EXPECT_EQ(bucket.getServer().getRequests().size(), 1U);
        EXPECT_EQ(bucket.get("a b.vmdk"), "old");

        readBytes = 0;
        std::string const content = makeContent(length);
        Upload replacing = makeUpload(content);
        replacing.replacesExisting = true;
        store->uploadFile(uri, replacing);
        EXPECT_TRUE(bucket.get("a b.vmdk") == content);
    }
}

TEST_F(BucketUploads, ReplaceNothingThatAppearsMeanwhile) {
    for (bool const knowsConditions : {true, false}) {
        for (__int64 const length : {__int64{10}, kPart + 1}) {
            SCOPED_TRACE(length);
            bucket.knowsConditions = knowsConditions;
            bucket.remove("a b.vmdk");
            intervene("PUT", "", [this](Request const& request) {
                bucket.put("a b.vmdk", "of another one");
                return std::optional(bucket.answer(request));
            });
            EXPECT_TRUE(fails(yx::CIOError::AlreadyExists, "The file exists already.",
                              makeContent(length)));
            EXPECT_EQ(bucket.get("a b.vmdk"), "of another one");
            EXPECT_EQ(bucket.countUploads(), 0U);
        }
    }
}

TEST_F(BucketUploads, EndWithoutAConditionWhereTheServerKnowsNone) {
    bucket.knowsConditions = false;
    for (__int64 const length : {__int64{10}, kPart + 1}) {
        bucket.remove("a b.vmdk");
        std::string const content = makeContent(length);
        upload(content);
        EXPECT_TRUE(bucket.get("a b.vmdk") == content);
    }
}

TEST_F(BucketUploads, LeaveNothingWhereAPartFails) {
    intervene("PUT", "partNumber=2",
              [](Request const&) { return std::optional(refuse(403, "AccessDenied")); });
    EXPECT_TRUE(fails(yx::CIOError::AccessDenied,
                      "Cannot upload the file: The server refuses it (403 AccessDenied).",
                      makeContent(3 * kPart)));
    EXPECT_EQ(bucket.get("a b.vmdk"), std::nullopt);
    EXPECT_EQ(bucket.countUploads(), 0U);
}

TEST_F(BucketUploads, LeaveNothingWhereTheEndFails) {
    intervene("POST", "uploadId", [](Request const&) {
        Reply reply = refuse(200, "InternalError");
        return std::optional(reply);
    });
    EXPECT_TRUE(fails(yx::CIOError::IOFailure,
                      "Cannot upload the file: The server could not put it together "
                      "(InternalError).",
                      makeContent(kPart + 1)));
    EXPECT_EQ(bucket.get("a b.vmdk"), std::nullopt);
    EXPECT_EQ(bucket.countUploads(), 0U);
}

TEST_F(BucketUploads, PartsAreSentAgain) {
    int failures = 0;
    intervene("PUT", "partNumber=1", [&failures](Request const&) -> std::optional<Reply> {
        if (++failures > 3)
            return std::nullopt;
        Reply reply = refuse(503, "SlowDown");
        if (failures == 2)
            reply.breakAfterBytes = 0;
        return reply;
    });
    std::string const content = makeContent(2 * kPart);
    upload(content);
    EXPECT_TRUE(bucket.get("a b.vmdk") == content);
    EXPECT_EQ(failures, 4);
}

TEST_F(BucketUploads, ALostAnswerToTheEndIsNoFailure) {
    for (__int64 const length : {__int64{10}, kPart + 1}) {
        SCOPED_TRACE(length);
        bucket.remove("a b.vmdk");
        intervene(length > kPart ? "POST" : "PUT", length > kPart ? "uploadId" : "",
                  [this](Request const& request) {
                      Reply reply = bucket.answer(request);
                      reply.body = "lost";
                      reply.breakAfterBytes = 0;
                      return std::optional(reply);
                  });
        std::string const content = makeContent(length);
        upload(content);
        EXPECT_TRUE(bucket.get("a b.vmdk") == content);
    }
}

TEST_F(BucketUploads, ALostAnswerToTheEndDoesNotHideAnotherOne) {
    intervene("POST", "uploadId", [this](Request const&) {
        bucket.put("a b.vmdk", "of another one");
        return std::optional(Reply{.body = "lost", .breakAfterBytes = 0});
    });
    EXPECT_THROW(upload(makeContent(kPart + 1)), yx::CIOError);
    EXPECT_EQ(bucket.get("a b.vmdk"), "of another one");
    EXPECT_EQ(bucket.countUploads(), 0U);
}

TEST_F(BucketUploads, AnotherLengthInTheEndIsAnError) {
    intervene("PUT", "", [this](Request const& request) {
        bucket.answer(request);
        bucket.put("a b.vmdk", "short");
        return std::optional(Reply());
    });
    EXPECT_TRUE(fails(yx::CIOError::IOFailure,
                      "Cannot upload the file: The server has another length than was sent.",
                      makeContent(10)));
}

TEST_F(BucketUploads, TellHowFarTheyAre) {
    std::string const content = makeContent(3 * kPart + 1);
    Upload watched = makeUpload(content);
    std::vector<__int64> told;
    watched.progress = [&](__int64 done, __int64 total) {
        EXPECT_EQ(total, watched.lengthBytes);
        told.push_back(done);
    };
    store->uploadFile(uri, watched);
    ASSERT_FALSE(told.empty());
    EXPECT_TRUE(std::ranges::is_sorted(told));
    EXPECT_EQ(told.back(), watched.lengthBytes);
}

TEST_F(BucketUploads, CancelledOnesLeaveNothing) {
    std::string const content = makeContent(3 * kPart);
    kelm::host::CancelFlag flag;
    Upload watched = makeUpload(content);
    watched.check = [&flag] { flag.check(); };
    intervene("PUT", "partNumber=2", [&flag](Request const&) {
        flag.set();
        return std::optional(Reply{.body = "x", .stallAfterBytes = 0});
    });
    EXPECT_THROW(store->uploadFile(uri, watched), kelm::host::CancelledError);
    EXPECT_EQ(bucket.get("a b.vmdk"), std::nullopt);
    EXPECT_EQ(bucket.countUploads(), 0U);
}

TEST_F(BucketUploads, ASourceThatFailsEndsThem) {
    struct SourceError {};
    for (__int64 const length : {__int64{10}, 3 * kPart}) {
        Upload broken;
        broken.lengthBytes = length;
        broken.read = [](__int64 position, void*, int) {
            if (position + kPart > kPart || position == 0)
                throw SourceError();
        };
        EXPECT_THROW(store->uploadFile(uri, broken), SourceError);
        EXPECT_EQ(bucket.get("a b.vmdk"), std::nullopt);
        EXPECT_EQ(bucket.countUploads(), 0U);
    }
}

TEST_F(BucketUploads, FoldersAndWhatIsTooLongAreRefused) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::AccessDenied, "Cannot open the file: Is a directory",
                              {{"uri", "s3://disks/a/"}},
                              [this] { store->uploadFile(FakeBucket::uri("a/"), {}); }));
    Upload huge;
    huge.lengthBytes = __int64{1} << 50;
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace, "Cannot upload the file: It is longer than an object may be.",
        {{"uri", "s3://disks/a%20b.vmdk"}}, [&] { store->uploadFile(uri, huge); }));
}

TEST_F(BucketUploads, AnAbandonedStoreUploadsNothing) {
    store->abandon();
    EXPECT_TRUE(fails(yx::CIOError::IOFailure, "Cannot upload the file: The server was given up.",
                      makeContent(10)));
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
}

} // namespace
} // namespace s3_test
