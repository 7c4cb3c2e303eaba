#include "integrations/s3/recent_versions.h"

namespace kelm::s3 {

namespace {

constexpr std::size_t kMaxEntries = 4096;

/// Each may have a thousand names.
constexpr std::size_t kMaxFolders = 16;

std::string makeName(ObjectLocation const& location) {
    return location.bucket + location.host + '\0' + location.key + location.escapedPath;
}

} // namespace

std::optional<RecentVersions::Known> RecentVersions::find(ObjectLocation const& location,
                                                          Milliseconds now) {
    std::lock_guard const guard(m_mutex);
    auto const found = m_entries.find(makeName(location));
    if (found == m_entries.end() || now - found->second.asked > kLifetime)
        return std::nullopt;
    return found->second.known;
}

void RecentVersions::add(ObjectLocation const& location, Known known, Milliseconds asked) {
    std::lock_guard const guard(m_mutex);
    if (m_entries.size() >= kMaxEntries) {
        std::erase_if(m_entries, [asked](auto const& entry) {
            return asked - entry.second.asked > kLifetime;
        });
        if (m_entries.size() >= kMaxEntries)
            m_entries.clear();
    }
    m_entries.insert_or_assign(makeName(location), Entry{std::move(known), asked});
}

std::optional<RecentVersions::KnownFolder> RecentVersions::findFolder(ObjectLocation const& folder,
                                                                      Milliseconds now) {
    std::lock_guard const guard(m_mutex);
    auto const found = m_folders.find(makeName(folder));
    if (found == m_folders.end() || now - found->second.asked > kLifetime)
        return std::nullopt;
    return found->second.known;
}

void RecentVersions::addFolder(ObjectLocation const& folder, KnownFolder known,
                               Milliseconds asked) {
    std::lock_guard const guard(m_mutex);
    if (m_folders.size() >= kMaxFolders)
        m_folders.clear();
    m_folders.insert_or_assign(makeName(folder), FolderEntry{std::move(known), asked});
}

void RecentVersions::remove(ObjectLocation const& location) {
    std::lock_guard const guard(m_mutex);
    m_entries.erase(makeName(location));
    m_folders.clear();
}

} // namespace kelm::s3
