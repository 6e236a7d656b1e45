#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "quorvex/core/topic.hpp"
#include "quorvex/core/topic_index.hpp"

using namespace quorvex::core;

namespace {

using Index = TopicFilterIndex<int>;

// What the index reports for a topic: its exact filter (if any) and every wildcard match.
std::set<std::string> matched(const Index& index, const std::string& topic) {
  std::set<std::string> out;
  if (index.find(topic) != nullptr) out.insert(topic);
  index.for_each_wildcard_match(topic, [&](const std::string& filter, const int&) {
    EXPECT_TRUE(out.insert(filter).second || filter == topic) << filter << " reported twice for " << topic;
  });
  return out;
}

// What topic_matches says, filter by filter.
std::set<std::string> oracle(const std::set<std::string>& filters, const std::string& topic) {
  std::set<std::string> out;
  for (const auto& filter : filters) {
    if (topic_matches(filter, topic)) out.insert(filter);
  }
  return out;
}

// Levels drawn from a small alphabet so that filters and topics collide often: empty levels,
// wildcards, and wildcard characters inside longer levels.
std::string random_text(std::mt19937& rng, const std::vector<std::string>& alphabet, bool filter) {
  const int levels = std::uniform_int_distribution<int>(1, 5)(rng);
  std::string text;
  for (int i = 0; i < levels; ++i) {
    std::string level = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(rng)];
    const bool last = i == levels - 1;
    if (filter && level == ">" && !last && rng() % 4 != 0) level = "*";  // mostly checked filters
    if (i > 0) text += '/';
    text += level;
  }
  return text;
}

}  // namespace

TEST(TopicFilterIndex, AgreesWithTopicMatchesOverRandomFiltersAndTopics) {
  const std::vector<std::string> filter_levels{"a", "b", "", "*", "*", ">", ">", "a*", ">b", "c"};
  const std::vector<std::string> topic_levels{"a", "b", "", "a*", ">b", "c", "d", "*", ">"};
  std::mt19937 rng(20240305);
  for (int round = 0; round < 40; ++round) {
    Index index;
    std::set<std::string> filters;
    const int count = std::uniform_int_distribution<int>(1, 60)(rng);
    for (int i = 0; i < count; ++i) {
      const std::string filter = random_text(rng, filter_levels, true);
      index[filter] = i;
      filters.insert(filter);
    }
    // Erasing some filters must leave the others found, and nothing of the erased ones.
    for (int i = 0; i < count / 3; ++i) {
      const std::string filter = random_text(rng, filter_levels, true);
      EXPECT_EQ(index.erase(filter), filters.erase(filter) == 1) << filter;
    }
    ASSERT_EQ(index.size(), filters.size());
    for (int i = 0; i < 200; ++i) {
      const std::string topic = random_text(rng, topic_levels, false);
      const auto expected = oracle(filters, topic);
      ASSERT_EQ(matched(index, topic), expected) << "topic " << topic << " in round " << round;
      ASSERT_EQ(index.matches_any(topic), !expected.empty()) << topic;
    }
  }
}

TEST(TopicFilterIndex, ErasingEveryFilterLeavesNothingToMatch) {
  Index index;
  const std::vector<std::string> filters{"a/*/c", "a/*/>", "a/b/c", ">", "*", "a/*", "a/b/>", "*/*/*"};
  for (const auto& f : filters) index[f] = 1;
  EXPECT_EQ(matched(index, "a/b/c"),
            (std::set<std::string>{"a/*/c", "a/*/>", "a/b/c", ">", "*/*/*", "a/b/>"}));
  for (const auto& f : filters) EXPECT_TRUE(index.erase(f)) << f;
  EXPECT_FALSE(index.erase("a/*/c"));
  EXPECT_TRUE(index.empty());
  for (const char* topic : {"a", "a/b", "a/b/c", "x/y/z/w"}) EXPECT_FALSE(index.matches_any(topic)) << topic;
  index["a/*/c"] = 2;  // the pruned branch grows again
  EXPECT_EQ(matched(index, "a/x/c"), (std::set<std::string>{"a/*/c"}));
}

TEST(TopicFilterIndex, OneSubscriptionPerStockFindsOnlyItsOwn) {
  TopicFilterIndex<std::string> index;
  for (int code = 1000; code < 3000; ++code) {
    const std::string filter = "TIC/v1/STK/*/TSE/" + std::to_string(code);
    index[filter] = filter;
  }
  index["TIC/v1/>"] = "all";
  std::vector<std::string> seen;
  index.for_each_wildcard_match("TIC/v1/STK/D/TSE/2330",
                                [&](const std::string&, const std::string& v) { seen.push_back(v); });
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"TIC/v1/STK/*/TSE/2330", "all"}));
  // A callback returning true ends the walk at the first match.
  int calls = 0;
  EXPECT_TRUE(
      index.for_each_wildcard_match("TIC/v1/STK/D/TSE/2330", [&](const std::string&, const std::string&) {
        ++calls;
        return true;
      }));
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(index.matches_any("QUO/v1/STK/D/TSE/2330"));
}
