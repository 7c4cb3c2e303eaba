#include "yx/most_recently_used_cache.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using yx::makeObject;
using yx::P;

/// Writes its name into a record when it ends.
class Table : public yx::CBase {
public:
    Table(std::string name, std::string* ends) : m_name(std::move(name)), m_ends(ends) {}
    ~Table() override { *m_ends += m_name + " "; }
    std::string const& getName() const { return m_name; }

private:
    std::string m_name;
    std::string* m_ends;
};

using Cache = yx::TMostRecentlyUsedCache<int, Table>;

class MostRecentlyUsedCache : public testing::Test {
protected:
    void add(Cache& cache, int key, std::string const& name = "") {
        std::string const tableName = name.empty() ? "T" + std::to_string(key) : name;
        cache.set(key, makeObject<Table>(tableName, &ends).get());
    }

    static std::string show(Cache const& cache) {
        std::string text;
        for (Cache::CEnum entry(cache); !entry.atEnd(); entry.next())
            text += std::to_string(entry.getKey()) + ":" + entry.getValue()->getName() + " ";
        return text;
    }

    std::string ends;
};

TEST_F(MostRecentlyUsedCache, AHitAndNotTheOrderOfInsertionDecidesWhoGoes) {
    Cache cache(3);
    add(cache, 1);
    add(cache, 2);
    add(cache, 3);
    ASSERT_TRUE(cache.get(1));
    add(cache, 4);
    EXPECT_EQ("T2 ", ends);
    EXPECT_EQ("1:T1 3:T3 4:T4 ", show(cache));
}

TEST_F(MostRecentlyUsedCache, AHitOnTheNewestChangesNothing) {
    Cache cache(2);
    add(cache, 1);
    add(cache, 2);
    ASSERT_TRUE(cache.get(2));
    add(cache, 3);
    EXPECT_EQ("T1 ", ends);
}

TEST_F(MostRecentlyUsedCache, AMissIsNullAndChangesNothing) {
    Cache cache(2);
    add(cache, 1);
    add(cache, 2);
    EXPECT_FALSE(cache.get(3));
    EXPECT_EQ(2, cache.getCount());
    add(cache, 4);
    EXPECT_EQ("T1 ", ends);
}

TEST_F(MostRecentlyUsedCache, GivesANewReference) {
    Cache cache(2);
    add(cache, 1);
    P<Table> const held = cache.get(1);
    cache.clear();
    EXPECT_EQ("", ends);
    EXPECT_EQ("T1", held->getName());
}

TEST_F(MostRecentlyUsedCache, AnEvictedObjectLivesAsLongAsSomeoneHoldsIt) {
    Cache cache(1);
    add(cache, 1);
    P<Table> held = cache.get(1);
    add(cache, 2);
    EXPECT_FALSE(cache.get(1));
    EXPECT_EQ("", ends);
    held.reset();
    EXPECT_EQ("T1 ", ends);
}

TEST_F(MostRecentlyUsedCache, ReplacingAnObjectLeavesTheCountAndEvictsNothing) {
    Cache cache(2);
    cache.setAutoEnforceLimit(false);
    add(cache, 1);
    add(cache, 2);
    add(cache, 3);
    add(cache, 2, "new2");
    EXPECT_EQ("T2 ", ends);
    EXPECT_EQ(3, cache.getCount());
    EXPECT_EQ("1:T1 2:new2 3:T3 ", show(cache));
}

TEST_F(MostRecentlyUsedCache, ReplacingAnObjectIsAUse) {
    Cache cache(2);
    add(cache, 1);
    add(cache, 2);
    add(cache, 1, "new1");
    add(cache, 3);
    EXPECT_EQ("T1 T2 ", ends);
    EXPECT_EQ("1:new1 3:T3 ", show(cache));
}

TEST_F(MostRecentlyUsedCache, ReplacingAnObjectByItselfKeepsIt) {
    Cache cache(2);
    add(cache, 1);
    cache.set(1, cache.get(1).get());
    EXPECT_EQ("", ends);
    EXPECT_EQ("1:T1 ", show(cache));
}

TEST_F(MostRecentlyUsedCache, TheNewObjectIsInPlaceWhenTheOldOneEnds) {
    struct Watcher : yx::CBase {
        Watcher(yx::TMostRecentlyUsedCache<int, Watcher>* cache, Watcher** seen)
            : m_cache(cache), m_seen(seen) {}
        ~Watcher() override {
            if (m_seen)
                *m_seen = m_cache->get(1).get();
        }
        yx::TMostRecentlyUsedCache<int, Watcher>* m_cache;
        Watcher** m_seen;
    };
    yx::TMostRecentlyUsedCache<int, Watcher> cache(5);
    Watcher* seen = nullptr;
    cache.set(1, makeObject<Watcher>(&cache, &seen).get());
    P<Watcher> const next = makeObject<Watcher>(&cache, nullptr);
    cache.set(1, next.get());
    EXPECT_EQ(next.get(), seen);
}

TEST_F(MostRecentlyUsedCache, AnObjectThatRemovesItsKeyWhileItEndsDoesNoHarm) {
    struct Remover : yx::CBase {
        explicit Remover(yx::TMostRecentlyUsedCache<int, Remover>* cache) : m_cache(cache) {}
        ~Remover() override {
            if (m_cache)
                m_cache->remove(1);
        }
        yx::TMostRecentlyUsedCache<int, Remover>* m_cache;
    };
    yx::TMostRecentlyUsedCache<int, Remover> cache(5);
    cache.set(1, makeObject<Remover>(&cache).get());
    cache.set(1, makeObject<Remover>(nullptr).get());
    EXPECT_EQ(0, cache.getCount());
    cache.set(1, makeObject<Remover>(&cache).get());
    cache.clear();
    EXPECT_EQ(0, cache.getCount());
}

TEST_F(MostRecentlyUsedCache, WithoutAutoEnforcementTheCountPassesTheLimit) {
    Cache cache(2);
    cache.setAutoEnforceLimit(false);
    for (int key = 1; key <= 5; ++key)
        add(cache, key);
    EXPECT_EQ(5, cache.getCount());
    EXPECT_EQ("", ends);
    cache.setAutoEnforceLimit(false);
    EXPECT_EQ(5, cache.getCount());
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ("T1 T2 T3 ", ends);
    EXPECT_EQ(2, cache.getCount());
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(2, cache.getCount());
    add(cache, 6);
    EXPECT_EQ("T1 T2 T3 T4 ", ends);
}

TEST_F(MostRecentlyUsedCache, EnforceLimitEvictsWhateverTheSwitchSays) {
    Cache cache(1);
    cache.setAutoEnforceLimit(false);
    add(cache, 1);
    add(cache, 2);
    add(cache, 3);
    cache.get(1);
    cache.enforceLimit();
    EXPECT_EQ("T2 T3 ", ends);
    cache.enforceLimit();
    EXPECT_EQ("1:T1 ", show(cache));
}

TEST_F(MostRecentlyUsedCache, LimitZeroEvictsEachNewEntryAtOnce) {
    Cache cache(0);
    add(cache, 1);
    EXPECT_EQ("T1 ", ends);
    EXPECT_EQ(0, cache.getCount());
    P<Table> const held = makeObject<Table>("held", &ends);
    cache.set(2, held.get());
    EXPECT_EQ(0, cache.getCount());
    EXPECT_EQ("T1 ", ends);
}

TEST_F(MostRecentlyUsedCache, NegativeLimitMeansNoLimit) {
    Cache cache(-1);
    for (int key = 0; key < 5000; ++key)
        add(cache, key);
    cache.enforceLimit();
    EXPECT_EQ(5000, cache.getCount());
    EXPECT_EQ("", ends);
}

TEST_F(MostRecentlyUsedCache, RemovesOneEntry) {
    Cache cache(5);
    add(cache, 1);
    add(cache, 2);
    cache.remove(1);
    EXPECT_EQ("T1 ", ends);
    cache.remove(1);
    cache.remove(9);
    EXPECT_EQ("2:T2 ", show(cache));
    add(cache, 1);
    EXPECT_EQ(2, cache.getCount());
}

TEST_F(MostRecentlyUsedCache, ClearDropsEverythingWithAndWithoutAutoEnforcement) {
    for (bool const autoEnforce : {true, false}) {
        ends.clear();
        Cache cache(5);
        cache.setAutoEnforceLimit(autoEnforce);
        add(cache, 2);
        add(cache, 1);
        cache.clear();
        EXPECT_EQ(0, cache.getCount());
        EXPECT_EQ(6u, ends.size());
        add(cache, 3);
        EXPECT_EQ("3:T3 ", show(cache));
    }
}

TEST_F(MostRecentlyUsedCache, DestructorReleasesEverything) {
    {
        Cache cache(5);
        add(cache, 2);
        add(cache, 1);
    }
    EXPECT_EQ("T1 T2 ", ends);
}

TEST_F(MostRecentlyUsedCache, EnumeratesInKeyOrderAndLeavesRecencyAlone) {
    Cache cache(3);
    add(cache, 3);
    add(cache, 1);
    add(cache, 2);
    EXPECT_EQ("1:T1 2:T2 3:T3 ", show(cache));
    add(cache, 4);
    EXPECT_EQ("T3 ", ends);
}

TEST_F(MostRecentlyUsedCache, EnumeratesFromAKeyOn) {
    Cache cache(5);
    add(cache, 1);
    add(cache, 3);
    Cache::CEnum entry(cache, 2);
    ASSERT_FALSE(entry.atEnd());
    EXPECT_EQ(3, entry.getKey());
    entry.next();
    EXPECT_TRUE(entry.atEnd());
    EXPECT_TRUE(Cache::CEnum(cache, 4).atEnd());
    EXPECT_TRUE(Cache::CEnum(Cache(1)).atEnd());
}

TEST_F(MostRecentlyUsedCache, KeysOfTwoPartsNeverMeet) {
    using Key = std::pair<void const*, long long>;
    int directories[2] = {};
    yx::TMostRecentlyUsedCache<Key, Table> cache(10);
    cache.set({&directories[0], 5}, makeObject<Table>("a", &ends).get());
    cache.set({&directories[1], 5}, makeObject<Table>("b", &ends).get());
    EXPECT_EQ("a", cache.get({&directories[0], 5})->getName());
    EXPECT_EQ("b", cache.get({&directories[1], 5})->getName());
    EXPECT_EQ(2, cache.getCount());
}

} // namespace
