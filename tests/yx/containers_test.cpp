#include <string>

#include <gtest/gtest.h>

#include "yx/array.h"
#include "yx/list.h"
#include "yx/map.h"
#include "yx/opt_ref.h"
#include "yx/props.h"

namespace {

using yx::String;
using yx::TArray;
using yx::TList;
using yx::TMap;

template <class Range>
std::string show(Range const& range) {
    std::string text;
    for (auto const& item : range)
        text += std::to_string(item) + " ";
    return text;
}

TEST(TArray, GrowsAtTheEndAndInBetween) {
    TArray<int> array;
    EXPECT_EQ(0, array.getSize());
    EXPECT_TRUE(array.isEmpty());
    array.add(1);
    array.add(3);
    array.insert(1, 2);
    array.insert(0, 0);
    array.insert(4, 4);
    EXPECT_EQ("0 1 2 3 4 ", show(array));
    EXPECT_EQ(5, array.getSize());
    EXPECT_FALSE(array.isEmpty());
}

TEST(TArray, RemovesAndClears) {
    TArray<int> array;
    for (int i = 0; i < 5; ++i)
        array.add(i);
    array.remove(4);
    array.remove(0);
    array.remove(1);
    EXPECT_EQ("1 3 ", show(array));
    array.clear();
    EXPECT_EQ(0, array.getSize());
}

TEST(TArray, GivesItemsByIndexForReadingAndWriting) {
    TArray<std::pair<String, __int64>> array;
    array.add({"a", 1});
    array[0].second = 0x100000000LL;
    auto const& constant = array;
    EXPECT_TRUE(constant[0].first == "a");
    EXPECT_EQ(0x100000000LL, constant[0].second);
    for (auto& item : array)
        item.second = 5;
    EXPECT_EQ(5, constant[0].second);
}

TEST(TArray, CopyIsIndependent) {
    TArray<int> array;
    array.add(1);
    TArray<int> copy = array;
    copy.add(2);
    EXPECT_EQ("1 ", show(array));
    array = copy;
    EXPECT_EQ("1 2 ", show(array));
}

TEST(TArray, ReleasesObjectsThatLeave) {
    class Item : public yx::CBase {
    public:
        explicit Item(int* ends) : m_ends(ends) {}
        ~Item() override { ++*m_ends; }

    private:
        int* m_ends;
    };
    int ends = 0;
    TArray<yx::P<Item>> array;
    array.add(yx::makeObject<Item>(&ends));
    array.add(yx::makeObject<Item>(&ends));
    array.remove(0);
    EXPECT_EQ(1, ends);
    array.clear();
    EXPECT_EQ(2, ends);
}

TEST(TList, PushesAndPopsAtBothEnds) {
    TList<int> list;
    EXPECT_TRUE(list.isEmpty());
    list.pushBack(2);
    list.pushBack(3);
    list.pushFront(1);
    EXPECT_EQ("1 2 3 ", show(list));
    EXPECT_EQ(3, list.getSize());
    EXPECT_EQ(1, list.front());
    EXPECT_EQ(3, list.back());
    list.front() = 7;
    list.back() = 9;
    EXPECT_EQ("7 2 9 ", show(list));
    list.popFront();
    list.popBack();
    EXPECT_EQ("2 ", show(list));
    list.clear();
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(0, list.getSize());
}

TEST(TList, IsIteratedForWritingToo) {
    TList<String> list;
    list.pushBack("a");
    for (String& item : list)
        item += "b";
    TList<String> const& constant = list;
    EXPECT_TRUE(constant.front() == "ab");
    EXPECT_TRUE(constant.back() == "ab");
}

TEST(TMap, EnumeratesInKeyOrder) {
    TMap<int, String> map;
    map[3] = "c";
    map[-1] = "a";
    map[2] = "b";
    std::string text;
    for (auto const& [key, value] : map)
        text += std::to_string(key) + value.toStdString() + " ";
    EXPECT_EQ("-1a 2b 3c ", text);
    EXPECT_EQ(3, map.getSize());
}

TEST(TMap, FindsAndInserts) {
    TMap<String, int> map;
    EXPECT_TRUE(map.isEmpty());
    EXPECT_TRUE(map.find("a") == map.end());
    EXPECT_EQ(0, map["a"]);
    map["a"] = 5;
    TMap<String, int> const& constant = map;
    auto const found = constant.find("a");
    ASSERT_TRUE(found != constant.end());
    EXPECT_EQ(5, found->second);
    map.find("a")->second = 6;
    EXPECT_EQ(6, map["a"]);
    EXPECT_EQ(1, map.getSize());
    map.remove("b");
    EXPECT_EQ(1, map.getSize());
    map.remove("a");
    EXPECT_TRUE(map.isEmpty());
    map["x"] = 1;
    map.clear();
    EXPECT_EQ(0, map.getSize());
}

/// Ranges of which overlapping ones are equivalent.
struct Range {
    int start;
    int size;
    bool operator<(Range const& other) const { return start + size <= other.start; }
};

TEST(TMap, EquivalentKeysShareAnEntry) {
    TMap<Range, int> map;
    map[{0, 10}] = 1;
    map[{10, 10}] = 2;
    EXPECT_EQ(2, map.find({15, 1})->second);
    EXPECT_EQ(1, map.find({9, 1})->second);
    EXPECT_TRUE(map.find({20, 1}) == map.end());
    map[{3, 1}] = 5;
    EXPECT_EQ(2, map.getSize());
    EXPECT_EQ(0, map.begin()->first.start);
    EXPECT_EQ(10, map.begin()->first.size);
}

TEST(CProps, KeepsPairsInOrderAndChains) {
    yx::CProps props;
    EXPECT_EQ(0, props.getCount());
    yx::CProps& same = props.add("uri", "file:///a").add("position", "5").add("uri", "file:///b");
    EXPECT_EQ(&props, &same);
    ASSERT_EQ(3, props.getCount());
    EXPECT_TRUE(props.getName(0) == "uri");
    EXPECT_TRUE(props.getValue(0) == "file:///a");
    EXPECT_TRUE(props.getName(1) == "position");
    EXPECT_TRUE(props.getValue(1) == "5");
    EXPECT_TRUE(props.getName(2) == "uri");
    EXPECT_TRUE(props.getValue(2) == "file:///b");
}

TEST(CProps, FindsTheFirstOfAName) {
    yx::CProps props;
    props.add("uri", "file:///a").add("uri", "file:///b");
    ASSERT_NE(nullptr, props.find("uri"));
    EXPECT_TRUE(*props.find("uri") == "file:///a");
    EXPECT_EQ(nullptr, props.find("URI"));
    EXPECT_EQ(nullptr, yx::CProps().find(""));
}

TEST(TConstOptRef, RefersOrIsAbsent) {
    String const text = "abc";
    yx::TConstOptRef<String> const present = text;
    EXPECT_TRUE(present.isPresent());
    EXPECT_TRUE(static_cast<bool>(present));
    EXPECT_EQ(&text, &*present);
    EXPECT_EQ(&text, present.get());
    EXPECT_EQ(3, present->getLength());
    EXPECT_FALSE(yx::TConstOptRef<String>().isPresent());
    EXPECT_FALSE(yx::TConstOptRef<String>(nullptr));
    EXPECT_EQ(nullptr, yx::TConstOptRef<String>().get());
    EXPECT_TRUE(yx::TConstOptRef<String>(&text).isPresent());
}

} // namespace
