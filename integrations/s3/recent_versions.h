#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "integrations/s3/object_location.h"
#include "integrations/s3/object_version.h"

namespace kelm::s3 {

/// What the server has said a moment ago of names, since who opens a disk looks at the same ones again
/// and again. Safe for several threads.
class RecentVersions {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// How long an answer counts.
    static constexpr Milliseconds kLifetime{2000};

    /// What is known: nothing inside for a name without an object.
    using Known = std::optional<ObjectVersion>;

    /// Nothing if too little is known. `now` is on a clock that only goes forward.
    std::optional<Known> find(ObjectLocation const& location, Milliseconds now);

    /// Keeps an answer to what was asked at `asked`.
    void add(ObjectLocation const& location, Known known, Milliseconds asked);

    /// Forgets a name that is to be changed.
    void remove(ObjectLocation const& location);

private:
    struct Entry {
        Known known;
        Milliseconds asked;
    };

    std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;
};

} // namespace kelm::s3
