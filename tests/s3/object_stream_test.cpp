#include <thread>

#include <gtest/gtest.h>

#include "tests/s3/fake_bucket.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace s3_test {
namespace {

using test_support::Bytes;
using test_support::pattern;
using test_support::sameBytes;
using test_support::throwsIOError;

constexpr int kBlock = kelm::s3::kBlockBytes;
constexpr char kReplaced[] = "The object was replaced while it was read.";

std::string toString(Bytes const& bytes) {
    return {bytes.begin(), bytes.end()};
}

class ObjectStream : public testing::Test {
protected:
    ObjectStream() { bucket.put("a.vmdk", toString(content)); }

    yx::P<yx::IIOStream> open(std::string const& key = "a.vmdk") {
        return store->openFile(FakeBucket::uri(key), yx::IIOStream::ReadOnly, nullptr);
    }

    /// The ranges of the requests for content, in order.
    std::vector<std::string> getRanges() const {
        std::vector<std::string> ranges;
        for (Request const& request : bucket.getServer().getRequests()) {
            if (request.method == "GET")
                ranges.push_back(request.header("range"));
        }
        return ranges;
    }

    /// Lets the answers to the requests for content be changed, `times` times.
    void changeAnswers(int times, std::function<void(Reply&)> const& change) {
        bucket.intervene = [this, times, change,
                            done = 0](Request const& request) mutable -> std::optional<Reply> {
            if (request.method != "GET" || done == times)
                return std::nullopt;
            ++done;
            Reply reply = bucket.answer(request);
            change(reply);
            return reply;
        };
    }

    testing::AssertionResult readFails(yx::IIOStream& stream, yx::CIOError::Code code,
                                       std::string const& message) {
        return throwsIOError(code, message, {{"uri", stream.getURI().toString(true).toStdString()}},
                             [&stream] { test_support::readAt(stream, 0, 10); });
    }

    /// Made once, since that takes longer than the tests.
    static Bytes const& makeContent() {
        static Bytes const made = pattern(std::size_t{40} * kBlock + 1234, 7);
        return made;
    }

    Bytes const& content = makeContent();
    mutable FakeBucket bucket;
    yx::P<kelm::s3::CBucketStore> store = bucket.makeStore();
};

TEST_F(ObjectStream, ReadsWhatIsThere) {
    yx::P<yx::IIOStream> const stream = open();
    EXPECT_EQ(stream->getLength(), static_cast<__int64>(content.size()));
    for (auto const& [position, size] :
         std::vector<std::pair<std::size_t, std::size_t>>{{0, 1},
                                                          {kBlock - 1, 2},
                                                          {5 * kBlock + 7, 9 * kBlock},
                                                          {content.size() - 3, 10},
                                                          {content.size(), 1},
                                                          {content.size() + 5, 1},
                                                          {0, content.size()}}) {
        EXPECT_TRUE(sameBytes(test_support::slice(content, position, size),
                              test_support::readAt(*stream, static_cast<__int64>(position), size)))
            << position;
    }
}

TEST_F(ObjectStream, AsksOnConditionThatItIsTheSame) {
    test_support::readAt(*open(), 0, 1);
    Request const request = bucket.getServer().getRequests().back();
    EXPECT_EQ(request.header("if-match"), FakeBucket::makeTag(toString(content)));
    EXPECT_EQ(request.header("range"), "bytes=0-262143");
    EXPECT_EQ(request.header("authorization"), "");
}

TEST_F(ObjectStream, AsksForMoreWhereReadingGoesOn) {
    yx::P<yx::IIOStream> const stream = open();
    for (std::size_t position = 0; position < content.size(); position += 65536)
        test_support::readAt(*stream, static_cast<__int64>(position), 65536);
    EXPECT_EQ(getRanges(),
              (std::vector<std::string>{"bytes=0-262143", "bytes=262144-786431",
                                        "bytes=786432-1835007", "bytes=1835008-3932159",
                                        "bytes=3932160-8126463", "bytes=8126464-10486993"}));
}

TEST_F(ObjectStream, JumpsFetchASingleBlock) {
    yx::P<yx::IIOStream> const stream = open();
    for (int block : {30, 3, 20, 11})
        test_support::readAt(*stream, block * kBlock + 100, 10);
    EXPECT_EQ(getRanges(),
              (std::vector<std::string>{"bytes=7864320-8126463", "bytes=786432-1048575",
                                        "bytes=5242880-5505023", "bytes=2883584-3145727"}));
    bucket.getServer().forgetRequests();
    for (int block : {30, 3, 20, 11})
        test_support::readAt(*stream, block * kBlock, 1000);
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
}

TEST_F(ObjectStream, StreamsOnOneVersionShareItsBlocks) {
    yx::P<yx::IIOStream> const first = open();
    yx::P<yx::IIOStream> const second = open();
    test_support::readAt(*first, 0, 10);
    test_support::readAt(*second, 0, 10);
    EXPECT_EQ(getRanges().size(), 1U);
    bucket.put("a.vmdk", "another one");
    bucket.passTime();
    EXPECT_EQ(test_support::toText(test_support::readAt(*open(), 0, 20)), "another one");
    EXPECT_EQ(getRanges().size(), 2U);
}

TEST_F(ObjectStream, WhatIsCachedHasABound) {
    // 64 MiB, of which the cache holds half.
    std::string const large(std::size_t{64} << 20, 'x');
    bucket.put("large", large);
    yx::P<yx::IIOStream> const stream = open("large");
    auto const readAll = [&] {
        for (__int64 position = 0; position < static_cast<__int64>(large.size());
             position += kBlock)
            test_support::readAt(*stream, position, 1);
        std::size_t const count = getRanges().size();
        bucket.getServer().forgetRequests();
        return count;
    };
    EXPECT_EQ(readAll(), 20U);
    EXPECT_GT(readAll(), 10U);
}

TEST_F(ObjectStream, ThreadsAskForABlockOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, &good] {
            yx::P<yx::IIOStream> const stream = open();
            Bytes const read = test_support::readAt(*stream, 0, content.size());
            good += read == content ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 4);
    std::vector<std::string> ranges = getRanges();
    std::ranges::sort(ranges);
    EXPECT_EQ(std::ranges::adjacent_find(ranges), ranges.end());
}

TEST_F(ObjectStream, ConnectionsAreUsedAgain) {
    yx::P<yx::IIOStream> const stream = open();
    test_support::readAt(*stream, 0, content.size());
    EXPECT_EQ(bucket.getServer().countConnections(), 1);
}

TEST_F(ObjectStream, AnEmptyObjectIsAFile) {
    bucket.put("empty", "");
    yx::P<yx::IIOStream> const stream = open("empty");
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_TRUE(getRanges().empty());
}

TEST_F(ObjectStream, AReplacedObjectIsNotRead) {
    yx::P<yx::IIOStream> const stream = open();
    test_support::readAt(*stream, 0, 1);
    bucket.put("a.vmdk", toString(pattern(content.size(), 8)));
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, kReplaced, {{"uri", "s3://disks/a.vmdk"}},
                              [&] { test_support::readAt(*stream, kBlock, 1); }));
    bucket.remove("a.vmdk");
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotFound, "Cannot read from the file: No such file or directory",
        {{"uri", "s3://disks/a.vmdk"}}, [&] { test_support::readAt(*stream, kBlock, 1); }));
}

TEST_F(ObjectStream, AReplacementIsNoticedWhereTheServerMissesTheCondition) {
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(1, [](Reply& reply) { reply.headers["ETag"] = "\"another\""; });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure, kReplaced));
    changeAnswers(1, [](Reply& reply) {
        reply.headers["Content-Range"] = "bytes 0-262143/10000000000";
        reply.headers.erase("ETag");
    });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure, kReplaced));
}

/// Answers as a web server without tags, or with weak ones.
void weaken(FakeBucket& bucket, std::string const& tag, std::string const* date) {
    bucket.intervene = [&bucket, tag, date](Request const& request) -> std::optional<Reply> {
        Reply reply = bucket.answer(request);
        reply.headers.erase("ETag");
        if (!tag.empty())
            reply.headers["ETag"] = tag;
        reply.headers["Last-Modified"] = *date;
        std::string const condition = request.header("if-range");
        if (!condition.empty() && condition != *date) {
            Request whole = request;
            whole.headers.erase("range");
            std::string const body = bucket.answer(whole).body;
            reply.status = 200;
            reply.headers.erase("Content-Range");
            reply.body = body;
        }
        return reply;
    };
}

TEST_F(ObjectStream, ADateTellsWhereThereIsNoStrongTag) {
    for (char const* const tag : {"", "W/\"weak\""}) {
        SCOPED_TRACE(tag);
        std::string date = "Mon, 05 Jan 2026 10:00:00 GMT";
        weaken(bucket, tag, &date);
        yx::P<yx::IIOStream> const stream = open();
        test_support::readAt(*stream, 0, 1);
        Request const request = bucket.getServer().getRequests().back();
        EXPECT_EQ(request.header("if-match"), "");
        EXPECT_EQ(request.header("if-range"), date);
        date = "Mon, 05 Jan 2026 10:00:01 GMT";
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, kReplaced,
                                  {{"uri", "s3://disks/a.vmdk"}},
                                  [&] { test_support::readAt(*stream, kBlock, 1); }));
    }
}

TEST_F(ObjectStream, AnObjectThatCannotBeToldFromAnotherIsRefused) {
    bucket.intervene = [this](Request const& request) {
        Reply reply = bucket.answer(request);
        reply.headers.erase("ETag");
        reply.headers.erase("Last-Modified");
        return std::optional(reply);
    };
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported,
                              "Cannot open the file: The server gives the object neither a tag nor "
                              "a date, so one that is replaced could not be told from it.",
                              {{"uri", "s3://disks/a.vmdk"}}, [this] { open(); }));
    bucket.intervene = [this](Request const& request) {
        Reply reply = bucket.answer(request);
        reply.claimedLength = -1;
        return std::optional(reply);
    };
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NotSupported,
                      "Cannot open the file: The server does not say how long the object is.",
                      {{"uri", "s3://disks/a.vmdk"}}, [this] { open(); }));
}

struct WrongAnswer {
    char const* name;
    std::function<void(Reply&)> change;
    yx::CIOError::Code code;
    char const* message;
};

class ObjectStreamAnswer : public ObjectStream, public testing::WithParamInterface<WrongAnswer> {};

TEST_P(ObjectStreamAnswer, IsRefused) {
    WrongAnswer const& wrong = GetParam();
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(1, wrong.change);
    EXPECT_TRUE(
        readFails(*stream, wrong.code, std::string("Cannot read from the file: ") + wrong.message));
    // Nothing wrong was kept, and the next attempt succeeds.
    EXPECT_TRUE(
        sameBytes(test_support::slice(content, 0, 1000), test_support::readAt(*stream, 0, 1000)));
}

constexpr char kOtherPart[] = "The server gives another part of the object than was asked for.";
constexpr char kOtherLength[] = "The server gives another length than it was asked for.";

INSTANTIATE_TEST_SUITE_P(
    Wrong, ObjectStreamAnswer,
    testing::Values(
        WrongAnswer{
            "OtherPart",
            [](Reply& reply) { reply.headers["Content-Range"] = "bytes 1-262144/10486994"; },
            yx::CIOError::IOFailure, kOtherPart},
        WrongAnswer{"NoRange", [](Reply& reply) { reply.headers.erase("Content-Range"); },
                    yx::CIOError::IOFailure, kOtherPart},
        WrongAnswer{"Short", [](Reply& reply) { reply.body.pop_back(); }, yx::CIOError::IOFailure,
                    kOtherLength},
        WrongAnswer{"Long", [](Reply& reply) { reply.body += "x"; }, yx::CIOError::IOFailure,
                    kOtherLength},
        WrongAnswer{"Whole",
                    [](Reply& reply) {
                        reply.status = 200;
                        reply.headers.erase("Content-Range");
                        reply.body += "and the rest";
                    },
                    yx::CIOError::NotSupported, "The server does not give parts of objects."},
        WrongAnswer{"NoContent", [](Reply& reply) { reply = {.status = 204}; },
                    yx::CIOError::NotSupported, "The server does not give parts of objects."},
        WrongAnswer{"Refused", [](Reply& reply) { reply = refuse(403, "ExpiredToken"); },
                    yx::CIOError::AccessDenied, "The server refuses it (403 ExpiredToken)."},
        WrongAnswer{"RefusedInOddWords",
                    [](Reply& reply) { reply = refuse(403, "secret=\xff&amp;x"); },
                    yx::CIOError::AccessDenied, "The server refuses it (403)."},
        WrongAnswer{"BadRequest", [](Reply& reply) { reply = refuse(400, "Odd"); },
                    yx::CIOError::IOFailure, "The server answers 400 (Odd)."},
        WrongAnswer{"Elsewhere", [](Reply& reply) { reply = refuse(301, "PermanentRedirect"); },
                    yx::CIOError::IOFailure,
                    "The server leads elsewhere (301 PermanentRedirect)."}),
    [](auto const& parameter) { return std::string(parameter.param.name); });

TEST_F(ObjectStream, AWholeObjectMayComeForItsOnlyPart) {
    bucket.put("small", "content");
    yx::P<yx::IIOStream> const stream = open("small");
    changeAnswers(1, [](Reply& reply) {
        reply.status = 200;
        reply.headers.erase("Content-Range");
    });
    EXPECT_EQ(test_support::toText(test_support::readAt(*stream, 0, 100)), "content");
}

TEST_F(ObjectStream, WhatPassesIsTriedAgain) {
    for (int const status : {429, 500, 502, 503, 504}) {
        SCOPED_TRACE(status);
        bucket.waits.clear();
        changeAnswers(2, [status](Reply& reply) { reply = refuse(status, "SlowDown"); });
        yx::P<yx::IIOStream> const stream = open();
        EXPECT_TRUE(
            sameBytes(test_support::slice(content, 0, 10), test_support::readAt(*stream, 0, 10)));
        ASSERT_EQ(bucket.waits.size(), 2U);
        // Half of 200 and 400 milliseconds is left to chance.
        EXPECT_GE(bucket.waits[0].count(), 100);
        EXPECT_LE(bucket.waits[0].count(), 200);
        EXPECT_GE(bucket.waits[1].count(), 200);
        EXPECT_LE(bucket.waits[1].count(), 400);
    }
}

TEST_F(ObjectStream, ABrokenConnectionIsMadeAgain) {
    yx::P<yx::IIOStream> const stream = open();
    int round = 0;
    changeAnswers(3, [&round](Reply& reply) {
        ++round;
        reply.claimedLength = static_cast<long long>(reply.body.size());
        reply.breakAfterBytes = round == 1 ? 0 : 1000 * round;
    });
    EXPECT_TRUE(
        sameBytes(test_support::slice(content, 0, 5000), test_support::readAt(*stream, 0, 5000)));
    EXPECT_EQ(round, 3);
    EXPECT_EQ(bucket.waits.size(), 3U);
}

TEST_F(ObjectStream, WhatDoesNotPassIsToldAfterSixAttempts) {
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(100, [](Reply& reply) { reply = refuse(503, "SlowDown"); });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure,
                          "Cannot read from the file: The server answers 503 (SlowDown)."));
    EXPECT_EQ(getRanges().size(), 6U);
    bucket.getServer().forgetRequests();
    changeAnswers(100, [](Reply& reply) {
        reply.claimedLength = 1000;
        reply.breakAfterBytes = 10;
    });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure,
                          "Cannot read from the file: The server does not answer: Transferred a "
                          "partial file."));
    EXPECT_EQ(getRanges().size(), 6U);
}

TEST_F(ObjectStream, RefusalsAreNotTriedAgain) {
    yx::P<yx::IIOStream> const stream = open();
    for (int const status : {400, 401, 403, 404, 405, 409, 412, 416}) {
        bucket.getServer().forgetRequests();
        changeAnswers(100, [status](Reply& reply) { reply = refuse(status, "No"); });
        EXPECT_THROW(test_support::readAt(*stream, 0, 1), yx::CIOError) << status;
        EXPECT_EQ(getRanges().size(), 1U) << status;
    }
    EXPECT_TRUE(bucket.waits.empty());
}

TEST_F(ObjectStream, TheServerSaysHowLongToWait) {
    changeAnswers(2, [](Reply& reply) {
        reply = refuse(503, "SlowDown");
        reply.headers["Retry-After"] = "7";
    });
    test_support::readAt(*open(), 0, 1);
    EXPECT_EQ(bucket.waits, (std::vector<std::chrono::milliseconds>(2, std::chrono::seconds(7))));
    // Two minutes in all are the most.
    bucket.waits.clear();
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(100, [](Reply& reply) {
        reply = refuse(503, "SlowDown");
        reply.headers["Retry-After"] = "50";
    });
    EXPECT_THROW(test_support::readAt(*stream, kBlock, 1), yx::CIOError);
    EXPECT_EQ(bucket.waits.size(), 2U);
}

TEST_F(ObjectStream, AbandoningEndsWhatWaits) {
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(1, [](Reply& reply) { reply.stallAfterBytes = 1000; });
    std::thread abandoning([this] {
        bucket.getServer().waitForStall();
        store->abandon();
    });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure,
                          "Cannot read from the file: The server was given up."));
    abandoning.join();
    bucket.getServer().forgetRequests();
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                              "Cannot open the file: The server was given up.",
                              {{"uri", "s3://disks/a.vmdk"}}, [this] { open(); }));
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
}

TEST_F(ObjectStream, AbandoningEndsADelay) {
    // With the real clock: the delay would be a minute and a half.
    bucket.policy.now = nullptr;
    bucket.policy.wait = nullptr;
    store = bucket.makeStore();
    yx::P<yx::IIOStream> const stream = open();
    changeAnswers(1, [](Reply& reply) {
        reply = refuse(503, "SlowDown");
        reply.headers["Retry-After"] = "90";
    });
    std::thread abandoning([this] {
        while (getRanges().empty())
            std::this_thread::yield();
        store->abandon();
    });
    EXPECT_TRUE(readFails(*stream, yx::CIOError::IOFailure,
                          "Cannot read from the file: The server was given up."));
    abandoning.join();
}

TEST_F(ObjectStream, IsForReadingOnly) {
    yx::P<yx::IIOStream> const stream = open();
    test_support::Props const props{{"uri", "s3://disks/a.vmdk"}};
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file is open for reading only.", props,
                              [&] { stream->write("x", 1, nullptr); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file is open for reading only.", props,
                              [&] { stream->setLength(1); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "The stream does not support locking.",
                              props, [&] { stream->lockRange(0, 1, yx::IStreamBase::Shared); }));
    EXPECT_NO_THROW(stream->flush());
    stream->close();
    EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.", props,
                              [&] { stream->getLength(); }));
}

} // namespace
} // namespace s3_test
