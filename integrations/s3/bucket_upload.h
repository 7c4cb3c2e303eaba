#pragma once

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/store/store_upload.h"
#include "integrations/s3/object_server.h"

namespace kelm::s3 {

/// The upload of one file to a bucket, to be run once.
///
/// A file of more than `kMinPartBytes` goes up in parts, several at once, each with its digest;
/// they become an object only when all are there. If that fails, the bucket is told to forget them.
/// Where it cannot be told (it does not answer, or the store was abandoned), parts stay that are no
/// object but take room, until a rule of the bucket removes them.
///
/// Nothing is replaced unless that is wanted: the bucket is asked before the upload and before its
/// end, and servers that know conditions ("If-None-Match") refuse it by themselves.
class BucketUpload {
public:
    /// Bounds that servers set: of parts the last alone may be shorter, and 10,000 are the most.
    static constexpr __int64 kMinPartBytes = __int64{8} << 20;
    static constexpr __int64 kMaxParts = 10000;

    /// The largest part that is sent; longer files are refused.
    static constexpr __int64 kMaxPartBytes = __int64{1} << 30;

    /// What the parts that are on their way at once take, but for a single one.
    static constexpr __int64 kMaxMemoryBytes = __int64{256} << 20;
    static constexpr __int64 kMaxThreads = 4;

    /// All must outlive this.
    BucketUpload(ObjectServer& server, ObjectLocation const& location, yx::CURI const& uri,
                 host::Upload const& upload);
    BucketUpload(BucketUpload const&) = delete;
    BucketUpload& operator=(BucketUpload const&) = delete;
    ~BucketUpload() = default;

    /// See `IStoreUpload::uploadFile`. A file longer than `kMaxParts` parts of `kMaxPartBytes` is
    /// `NoSpace`.
    void run();

    /// The length of all parts but the last of a file.
    static __int64 choosePartBytes(__int64 lengthBytes);

private:
    struct Part {
        std::string entityTag; ///< that the server gave it
        std::string md5;       ///< the bytes of its digest
    };

    void sendInParts();
    void begin();
    void sendParts();
    void work();
    bool takePart(__int64& index, std::string& data);
    void sendPart(__int64 index, std::string const& data);
    void watch(std::size_t workers);
    void fail(std::exception_ptr error);
    void finish();
    HTTPAnswer askToFinish(std::string const& list, bool hasCondition);
    void giveUp() noexcept;

    void sendWhole(std::string const& data);
    void acceptEnd(HTTPAnswer const& answer);
    HTTPAnswer sendLast(ObjectRequest const& request);
    HTTPAnswer askForObject();
    std::optional<HTTPAnswer> findObject();
    void verifyNothingIsThere();
    void verifyResult();
    bool isExpectedObject(HTTPAnswer const& answer) const;
    std::string makeExpectedTag() const;
    ObjectRequest makeRequest(char const* method) const;

    ObjectServer& m_server;
    ObjectLocation const& m_location;
    yx::CURI const& m_uri;
    host::Upload const& m_upload;
    __int64 const m_partBytes;
    std::string m_uploadID;

    /// Held while a part is read.
    std::mutex m_readMutex;
    __int64 m_nextPart = 0;

    std::atomic<bool> m_isCancelled{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Part> m_parts;
    std::exception_ptr m_error;
    __int64 m_doneBytes = 0;
    std::size_t m_endedWorkers = 0;
};

} // namespace kelm::s3
