#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "integrations/s3/bucket_store.h"
#include "tests/s3/test_server.h"

namespace s3_test {

/// A server with one bucket, called `disks`, in memory. It knows no keys, but checks what clients
/// promise of bodies. A test may answer in its place.
class FakeBucket {
public:
    explicit FakeBucket(TestServer::Protocol protocol = TestServer::Protocol::Plain);

    /// Asked first; nothing to have the bucket answer. Set it before the first request, or between
    /// requests that have ended.
    std::function<std::optional<Reply>(Request const&)> intervene;

    /// Whether it knows "If-None-Match" at the end of uploads; else it answers 501.
    bool knowsConditions = true;

    void put(std::string const& key, std::string const& content);
    void remove(std::string const& key);
    std::optional<std::string> get(std::string const& key);

    /// Uploads that were begun and not ended.
    std::size_t countUploads();

    TestServer& getServer() { return m_server; }

    /// A store of which this is the endpoint. It waits for nothing: `waits` has what it would have
    /// waited for.
    yx::P<kelm::s3::CBucketStore> makeStore();

    /// "s3://disks/" and the key, which may be escaped.
    static yx::CURI uri(std::string const& key);

    std::vector<std::chrono::milliseconds> waits;

    /// Lets so much time pass that stores ask anew for what they know.
    void passTime();

    /// Made for `makeStore`; a test may change them first.
    kelm::s3::ServerSettings settings;
    kelm::s3::RetryPolicy policy;

    /// The tag that a content gets.
    static std::string makeTag(std::string const& content);

    /// The same answers with what the test changes in them.
    Reply answer(Request const& request);

private:
    Reply answerObject(Request const& request, std::string const& key);
    Reply giveObject(Request const& request, std::string const& key);
    Reply giveList(std::map<std::string, std::string> const& query);
    Reply takePart(Request const& request, std::string const& key,
                   std::map<std::string, std::string> const& query);
    Reply endUpload(Request const& request, std::string const& key, std::string const& id);

    struct UploadParts {
        std::map<int, std::string> parts;
    };

    std::mutex m_mutex;
    std::map<std::string, std::string> m_objects;

    std::map<std::string, std::string> m_tags;
    std::map<std::string, UploadParts> m_uploads;
    int m_lastUpload = 0;
    std::atomic<std::chrono::milliseconds> m_time{std::chrono::milliseconds(0)};
    TestServer m_server;
};

/// An answer with an error, as buckets give it.
Reply refuse(int status, std::string const& code);

} // namespace s3_test
