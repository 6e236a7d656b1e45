#include <gtest/gtest.h>

#include <string>

#include "quorvex/core/topic.hpp"

using namespace quorvex::core;

struct MatchCase {
  const char* filter;
  const char* topic;
  bool matches;
};

class TopicMatching : public ::testing::TestWithParam<MatchCase> {};

TEST_P(TopicMatching, FollowsTheWildcardRules) {
  EXPECT_EQ(topic_matches(GetParam().filter, GetParam().topic), GetParam().matches)
      << GetParam().filter << " vs " << GetParam().topic;
}

INSTANTIATE_TEST_SUITE_P(
    Topic, TopicMatching,
    ::testing::Values(MatchCase{"a/b/c", "a/b/c", true}, MatchCase{"a/b/c", "a/b", false},
                      MatchCase{"a/b", "a/b/c", false}, MatchCase{"a/b/c", "a/b/cd", false},
                      // "*" is exactly one level, empty ones included.
                      MatchCase{"a/*/c", "a/b/c", true}, MatchCase{"a/*/c", "a//c", true},
                      MatchCase{"a/*/c", "a/b/x/c", false}, MatchCase{"a/*", "a", false},
                      MatchCase{"*", "abc", true}, MatchCase{"*", "a/b", false},
                      // ">" at the end is one or more levels.
                      MatchCase{"a/>", "a/b", true}, MatchCase{"a/>", "a/b/c/d", true},
                      MatchCase{"a/>", "a", false}, MatchCase{"a/>", "a/", true}, MatchCase{">", "x/y", true},
                      MatchCase{"*/b/>", "a/b/c", true}, MatchCase{"*/b/>", "a/c/c", false},
                      // Wildcard characters inside a longer level are plain text.
                      MatchCase{"TIC*/x", "TICK/x", false}, MatchCase{"TIC*/x", "TIC*/x", true},
                      MatchCase{"TIC/v1/STK/*/TSE/2330", "TIC/v1/STK/17/TSE/2330", true},
                      MatchCase{"TIC/v1/>", "TIC/v1/STK/17/TSE/2330", true}),
    [](const auto& info) { return "case" + std::to_string(info.index); });

TEST(Topic, FiltersAndTopicsAreChecked) {
  EXPECT_NO_THROW(check_topic_filter("a/*/>"));
  EXPECT_NO_THROW(check_topic("api/v1/login"));
  EXPECT_THROW(check_topic_filter(""), TopicError);
  EXPECT_THROW(check_topic_filter("a/>/b"), TopicError);
  EXPECT_THROW(check_topic("a/*/b"), TopicError);
  EXPECT_THROW(check_topic("a/>"), TopicError);
  EXPECT_THROW(check_topic(std::string_view("a\0b", 3)), TopicError);
  try {
    check_topic("a/*/b");
  } catch (const TopicError& e) {
    EXPECT_NE(std::string(e.what()).find("'a/*/b'"), std::string::npos);
  }
  EXPECT_TRUE(has_wildcard("a/*"));
  EXPECT_TRUE(has_wildcard(">"));
  EXPECT_FALSE(has_wildcard("a*/b>"));
}
