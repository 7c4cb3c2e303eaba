#pragma once

#include <vector>

#include "kelm/extent/data_provider.h"

namespace test_support {

/// A parent disk in memory, which records what it was asked.
class FakeDataProvider : public yx::CBase, public virtual kelm::IVMDKDataProvider {
public:
    struct Request {
        enum Kind {
            Data,
            PreparedGrain,
            IsWritten,
        };

        Kind kind;
        __int64 position;
        int sizeBytes; ///< of the data, or of a grain; 0 for `IsWritten`
        bool compressed;

        bool operator==(Request const&) const = default;
    };

    /// The byte that the disk has at `position`; no two neighbouring grains are alike.
    static unsigned char byteAt(__int64 position);

    /// The bytes of the disk from `position` on.
    static std::vector<unsigned char> bytesAt(__int64 position, int sizeBytes);

    std::vector<Request>& requests() { return m_requests; }

    /// What `getPreparedGrainData` hands out; the plain bytes of the disk if it was never set.
    void setPreparedGrain(std::vector<unsigned char> prepared);

    void setWritten(bool written) { m_written = written; }

    /// While set, each request is `CIOError` `IOFailure`, "Scripted provider failure.".
    void setFailing(bool failing) { m_failing = failing; }

    void getData(__int64 position, void* buffer, int bytes) override;
    void getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                              int grainSizeBytes, bool compressed) override;
    bool isGrainWritten(__int64 position) override;

private:
    void begin(Request const& request);

    std::vector<Request> m_requests;
    std::vector<unsigned char> m_prepared;
    bool m_isPreparedSet = false;
    bool m_written = false;
    bool m_failing = false;
};

} // namespace test_support
