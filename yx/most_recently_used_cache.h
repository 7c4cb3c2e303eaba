#pragma once

#include <cassert>
#include <list>
#include <map>

#include "yx/base.h"

namespace yx {

/// A map of at most `limit` reference-counted objects, from which the least recently used go first.
/// A negative limit means no limit; a limit of 0 evicts each new entry at once. An entry that
/// leaves gives up the cache's reference to its object and does nothing else with it.
///
/// Every entry knows its place in the list of recency and back, so a hit costs one ordered search.
/// Not thread-safe.
template <class K, class V>
class TMostRecentlyUsedCache : public CBase {
    struct Entry;
    using Entries = std::map<K, Entry>;
    using Recency = std::list<typename Entries::iterator>;

    struct Entry {
        P<V> value;
        typename Recency::iterator place;
    };

public:
    /// Empty.
    explicit TMostRecentlyUsedCache(int limit) : m_limit(limit) {}
    TMostRecentlyUsedCache(TMostRecentlyUsedCache const&) = delete;
    TMostRecentlyUsedCache& operator=(TMostRecentlyUsedCache const&) = delete;
    ~TMostRecentlyUsedCache() override { clear(); }

    /// The object of the key, which thereby becomes the most recently used; null if there is none.
    P<V> get(K const& key) {
        // Usually it is the entry that was used last.
        if (!m_recency.empty() && isSame(m_recency.front()->first, key))
            return m_recency.front()->second.value;
        auto const found = m_entries.find(key);
        if (found == m_entries.end())
            return {};
        touch(found);
        return found->second.value;
    }

    /// Inserts or replaces, and makes the entry the most recently used. The new object is in place
    /// before the old one is released. Only an insertion evicts, and only if the limit is enforced
    /// automatically.
    void set(K const& key, V* value) {
        auto const found = m_entries.find(key);
        if (found != m_entries.end()) {
            P<V> replaced(value);
            replaced.swap(found->second.value);
            touch(found);
            return;
        }
        insert(key, value);
        if (m_autoEnforceLimit)
            enforceLimit();
    }

    /// Removes the entry of the key, if there is one.
    void remove(K const& key) {
        auto const found = m_entries.find(key);
        if (found != m_entries.end())
            erase(found);
    }

    /// Evicts the least recently used entries until the count is within the limit.
    void enforceLimit() {
        while (m_limit >= 0 && m_entries.size() > static_cast<std::size_t>(m_limit))
            erase(m_recency.back());
    }

    /// Whether insertions evict; true at first. Switching it on evicts at once.
    void setAutoEnforceLimit(bool enabled) {
        if (enabled == m_autoEnforceLimit)
            return;
        m_autoEnforceLimit = enabled;
        if (enabled)
            enforceLimit();
    }

    /// Drops all entries, in key order.
    void clear() {
        while (!m_entries.empty())
            erase(m_entries.begin());
    }

    /// How many entries there are.
    int getCount() const { return static_cast<int>(m_entries.size()); }

    /// Enumerates the entries in key order and leaves recency alone. The cache must not change
    /// meanwhile.
    class CEnum {
    public:
        /// Starts at the first entry.
        explicit CEnum(TMostRecentlyUsedCache const& cache)
            : m_position(cache.m_entries.begin()), m_end(cache.m_entries.end()) {}

        /// Starts at the first entry whose key does not precede `first`.
        CEnum(TMostRecentlyUsedCache const& cache, K const& first)
            : m_position(cache.m_entries.lower_bound(first)), m_end(cache.m_entries.end()) {}

        /// Whether all entries have been passed; if not, `next` goes on by one.
        bool atEnd() const { return m_position == m_end; }
        void next() { ++m_position; }

        /// The present entry's key and object; not at the end.
        K const& getKey() const { return m_position->first; }
        P<V> const& getValue() const { return m_position->second.value; }

    private:
        typename Entries::const_iterator m_position;
        typename Entries::const_iterator m_end;
    };

private:
    static bool isSame(K const& left, K const& right) { return !(left < right) && !(right < left); }

    void touch(typename Entries::iterator entry) {
        assert(*entry->second.place == entry);
        m_recency.splice(m_recency.begin(), m_recency, entry->second.place);
    }

    /// Both containers gain their element or, on a failure, neither.
    void insert(K const& key, V* value) {
        Recency node(1, m_entries.end());
        node.front() = m_entries.emplace(key, Entry{P<V>(value), node.begin()}).first;
        m_recency.splice(m_recency.begin(), node);
        assert(m_entries.size() == m_recency.size());
    }

    void erase(typename Entries::iterator entry) {
        assert(*entry->second.place == entry);
        P<V> const released = std::move(entry->second.value);
        m_recency.erase(entry->second.place);
        m_entries.erase(entry);
        assert(m_entries.size() == m_recency.size());
    }

    int m_limit;
    Entries m_entries;
    Recency m_recency;
    bool m_autoEnforceLimit = true;
};

} // namespace yx
