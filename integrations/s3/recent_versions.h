#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "integrations/s3/object_location.h"
#include "integrations/s3/object_version.h"

namespace kelm::s3 {

/// What the server has said a moment ago of names, since who opens a disk looks at the same ones
/// again and again, and of folders, since he looks for many names there that are missing. Safe for
/// several threads.
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

    /// The names in a folder, and whether each is a folder's alone; nothing inside for a folder of
    /// which that is not known as a whole.
    using KnownFolder = std::optional<std::map<std::string, bool>>;

    /// As for names. The key of `folder` is empty or ends in a separator.
    std::optional<KnownFolder> findFolder(ObjectLocation const& folder, Milliseconds now);
    void addFolder(ObjectLocation const& folder, KnownFolder known, Milliseconds asked);

    /// Forgets a name that is to be changed, and the folders.
    void remove(ObjectLocation const& location);

private:
    struct Entry {
        Known known;
        Milliseconds asked;
    };

    struct FolderEntry {
        KnownFolder known;
        Milliseconds asked;
    };

    std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;
    std::map<std::string, FolderEntry> m_folders;
};

} // namespace kelm::s3
