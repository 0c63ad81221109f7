#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/tsl/htrie_map.h"
#include "core/tsl/htrie_set.h"

namespace {

template <typename Iterator>
std::vector<std::string> Keys(Iterator first, Iterator last) {
  std::vector<std::string> keys;
  for (; first != last; ++first)
    keys.push_back(first.key());
  return keys;
}

TEST(HtrieTest, SetInsertsFindsErasesAndComparesByContent) {
  tsl::htrie_set<char> set;
  EXPECT_TRUE(set.empty());
  EXPECT_TRUE(set.insert("b/x").second);
  EXPECT_FALSE(set.insert(std::string("b/x")).second);
  EXPECT_TRUE(set.emplace("a").second);
  EXPECT_TRUE(set.insert_ks("c\0d", 3).second);  // keys may hold any byte
  EXPECT_EQ(set.size(), 3u);
  EXPECT_EQ(set.count("a"), 1u);
  EXPECT_EQ(set.count(std::string_view("c\0d", 3)), 1u);
  EXPECT_EQ(set.count("c"), 0u);
  EXPECT_EQ(set.find("b/x").key(), "b/x");
  EXPECT_TRUE(set.find("b") == set.end());

  tsl::htrie_set<char> other{"c\0d", "a", "b/x"};
  EXPECT_FALSE(set == other);  // the literal "c\0d" stops at the NUL
  other.erase("c");
  other.insert(std::string_view("c\0d", 3));
  EXPECT_TRUE(set == other);

  EXPECT_EQ(set.erase("a"), 1u);
  EXPECT_EQ(set.erase("a"), 0u);
  auto next = set.erase(set.find("b/x"));
  EXPECT_EQ(next.key(), std::string("c\0d", 3));
  EXPECT_TRUE(set != other);
  set.clear();
  EXPECT_TRUE(set.empty());
  EXPECT_TRUE(set.begin() == set.end());
}

TEST(HtrieTest, PrefixRangesAndPrefixErase) {
  tsl::htrie_set<char> set{"docs", "docs/a", "docs/b/c", "docsx", "doc", "e", ""};
  auto [first, last] = set.equal_prefix_range("docs/");
  EXPECT_EQ(Keys(first, last), (std::vector<std::string>{"docs/a", "docs/b/c"}));
  auto all = set.equal_prefix_range("docs");
  EXPECT_EQ(Keys(all.first, all.second),
            (std::vector<std::string>{"docs", "docs/a", "docs/b/c", "docsx"}));
  auto none = set.equal_prefix_range("zz");
  EXPECT_TRUE(none.first == none.second);
  auto everything = set.equal_prefix_range("");
  EXPECT_EQ(Keys(everything.first, everything.second).size(), set.size());

  EXPECT_EQ(set.erase_prefix("docs/"), 2u);
  EXPECT_EQ(Keys(set.begin(), set.end()),
            (std::vector<std::string>{"", "doc", "docs", "docsx", "e"}));
}

TEST(HtrieTest, PrefixRangesAgreeWithAScanOnRandomKeys) {
  std::mt19937 random(11);
  std::uniform_int_distribution<int> letter('a', 'c');
  std::uniform_int_distribution<int> length(0, 6);
  tsl::htrie_set<char> set;
  std::set<std::string> reference;
  for (int i = 0; i < 2000; ++i) {
    std::string key;
    for (int n = length(random); n > 0; --n)
      key.push_back(static_cast<char>(letter(random)));
    EXPECT_EQ(set.insert(key).second, reference.insert(key).second);
  }
  for (const char* prefix : {"", "a", "ab", "cab", "ccc", "abcab"}) {
    std::vector<std::string> expected;
    for (const std::string& key : reference) {
      if (key.compare(0, std::string(prefix).size(), prefix) == 0)
        expected.push_back(key);
    }
    auto [first, last] = set.equal_prefix_range(prefix);
    EXPECT_EQ(Keys(first, last), expected) << prefix;
  }
}

TEST(HtrieTest, MapValuesIterationAndTuning) {
  tsl::htrie_map<char, std::string> map;
  map.max_load_factor(8.0f);
  map.burst_threshold(16384);
  EXPECT_EQ(map.max_load_factor(), 8.0f);
  EXPECT_EQ(map.burst_threshold(), 16384u);

  EXPECT_TRUE(map.insert("b/one", "1").second);
  EXPECT_FALSE(map.insert("b/one", "ignored").second);
  EXPECT_EQ(map.at("b/one"), "1");
  map["a"] = "x";
  map["a"] += "y";
  EXPECT_FALSE(map.insert_or_assign("a", "z").second);
  EXPECT_TRUE(map.emplace("c", 3, 'c').second);
  EXPECT_EQ(map.at("c"), "ccc");
  EXPECT_THROW(map.at("missing"), std::out_of_range);

  std::vector<std::pair<std::string, std::string>> seen;
  for (auto it = map.begin(); it != map.end(); ++it)
    seen.emplace_back(it.key(), it.value());
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                      {"a", "z"}, {"b/one", "1"}, {"c", "ccc"}}));

  auto it = map.find("b/one");
  *it = "changed";
  EXPECT_EQ(it->size(), 7u);
  const auto& const_map = map;
  tsl::htrie_map<char, std::string>::const_iterator found = const_map.find("b/one");
  EXPECT_EQ(found.value(), "changed");
  EXPECT_TRUE(found != const_map.end());

  tsl::htrie_map<char, std::string> copy = map;
  EXPECT_TRUE(copy == map);
  copy["a"] = "other";
  EXPECT_TRUE(copy != map);
  auto [first, last] = map.equal_prefix_range("b/");
  EXPECT_EQ(Keys(first, last), std::vector<std::string>{"b/one"});
  EXPECT_EQ(map.erase("c"), 1u);
  EXPECT_EQ(map.size(), 2u);
}

}  // namespace
