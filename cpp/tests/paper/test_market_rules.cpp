#include <gtest/gtest.h>

#include <ostream>

#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/market_rules.hpp"
#include "quorvex/paper/price.hpp"

namespace quorvex::paper {
namespace {

Price P(const char* text) { return *Price::parse(text); }

TEST(Price, ParsesAndPrintsWithoutBinaryFractions) {
  EXPECT_EQ(P("1085").units(), 108500);
  EXPECT_EQ(P("9.99").units(), 999);
  EXPECT_EQ(P("0.1").units(), 10);
  EXPECT_EQ(P("1085.50").to_string(), "1085.5");
  EXPECT_EQ(P("9.05").to_string(), "9.05");
  EXPECT_EQ(Price::from_double(0.1 + 0.2), P("0.3"));
  for (const char* bad : {"", ".5", "1.", "1.234", "1,5", "abc", "--1", "1e3"}) {
    EXPECT_FALSE(Price::parse(bad).has_value()) << bad;
  }
}

struct TickCase {
  TickLadder ladder;
  const char* price;
  const char* tick;
  const char* tick_below;
};

std::ostream& operator<<(std::ostream& os, const TickCase& c) {
  return os << to_text(c.ladder) << " at " << c.price;
}

class TickSize : public ::testing::TestWithParam<TickCase> {};

TEST_P(TickSize, FollowsTheBands) {
  const TickCase& c = GetParam();
  EXPECT_EQ(tick_size(c.ladder, P(c.price)), P(c.tick)) << c.price;
  EXPECT_EQ(tick_size_below(c.ladder, P(c.price)), P(c.tick_below)) << c.price;
}

INSTANTIATE_TEST_SUITE_P(
    Ladders, TickSize,
    ::testing::Values(
        TickCase{TickLadder::Stock, "9.99", "0.01", "0.01"},
        TickCase{TickLadder::Stock, "10", "0.05", "0.01"}, TickCase{TickLadder::Stock, "50", "0.1", "0.05"},
        TickCase{TickLadder::Stock, "100", "0.5", "0.1"}, TickCase{TickLadder::Stock, "500", "1", "0.5"},
        TickCase{TickLadder::Stock, "1000", "5", "1"}, TickCase{TickLadder::Etf, "49.99", "0.01", "0.01"},
        TickCase{TickLadder::Etf, "50", "0.05", "0.01"}, TickCase{TickLadder::IndexFuture, "23000", "1", "1"},
        TickCase{TickLadder::Option, "9.9", "0.1", "0.1"}, TickCase{TickLadder::Option, "10", "0.5", "0.1"},
        TickCase{TickLadder::Option, "50", "1", "0.5"}, TickCase{TickLadder::Option, "500", "5", "1"},
        TickCase{TickLadder::Option, "1000", "10", "5"}));

TEST(Ladder, OnLadderAndRounding) {
  EXPECT_TRUE(on_ladder(TickLadder::Stock, P("10.05")));
  EXPECT_FALSE(on_ladder(TickLadder::Stock, P("10.03")));
  EXPECT_FALSE(on_ladder(TickLadder::Stock, P("1002")));
  EXPECT_FALSE(on_ladder(TickLadder::Stock, P("0")));
  EXPECT_TRUE(on_ladder(TickLadder::Etf, P("49.99")));
  EXPECT_FALSE(on_ladder(TickLadder::Etf, P("50.01")));
  EXPECT_FALSE(on_ladder(TickLadder::IndexFuture, P("23000.5")));
  EXPECT_FALSE(on_ladder(TickLadder::Option, P("10.2")));
  EXPECT_EQ(round_down_to_ladder(TickLadder::Stock, P("10.03")), P("10"));
  EXPECT_EQ(round_up_to_ladder(TickLadder::Stock, P("10.03")), P("10.05"));
  EXPECT_EQ(round_up_to_ladder(TickLadder::Stock, P("49.97")), P("50"));
  EXPECT_EQ(round_up_to_ladder(TickLadder::Stock, P("1001")), P("1005"));
}

// Every ladder price steps to its neighbours and back, and positions count the steps.
TEST(Ladder, StepsAndPositionsAgreeAcrossBandEdges) {
  for (TickLadder ladder :
       {TickLadder::Stock, TickLadder::Etf, TickLadder::IndexFuture, TickLadder::Option}) {
    Price p = tick_size(ladder, Price::from_units(1));
    std::int64_t position = ladder_position(ladder, p);
    EXPECT_EQ(position, 1);
    for (int i = 0; i < 3000; ++i) {
      ASSERT_TRUE(on_ladder(ladder, p)) << to_text(ladder) << " " << p.to_string();
      const Price next = step_up(ladder, p);
      ASSERT_EQ(next - p, tick_size(ladder, p));
      ASSERT_EQ(step_down(ladder, next), p);
      ASSERT_EQ(ladder_position(ladder, next), ++position);
      ASSERT_EQ(price_at_position(ladder, position), next);
      p = next;
    }
  }
}

struct LimitCase {
  TickLadder ladder;
  const char* reference;
  const char* down;
  const char* up;
};

std::ostream& operator<<(std::ostream& os, const LimitCase& c) {
  return os << to_text(c.ladder) << " around " << c.reference;
}

class Limits : public ::testing::TestWithParam<LimitCase> {};

TEST_P(Limits, RoundInwardOntoTheLadder) {
  const LimitCase& c = GetParam();
  const PriceLimits limits = price_limits(c.ladder, P(c.reference));
  EXPECT_EQ(limits.limit_down, P(c.down)) << c.reference;
  EXPECT_EQ(limits.limit_up, P(c.up)) << c.reference;
  EXPECT_TRUE(on_ladder(c.ladder, limits.limit_down));
  EXPECT_TRUE(on_ladder(c.ladder, limits.limit_up));
}

INSTANTIATE_TEST_SUITE_P(Ladders, Limits,
                         ::testing::Values(LimitCase{TickLadder::Stock, "1000", "900", "1100"},
                                           LimitCase{TickLadder::Stock, "48.35", "43.55", "53.1"},
                                           LimitCase{TickLadder::Stock, "8.76", "7.89", "9.63"},
                                           LimitCase{TickLadder::Stock, "9.5", "8.55", "10.45"},
                                           LimitCase{TickLadder::Stock, "1250", "1125", "1375"},
                                           LimitCase{TickLadder::Stock, "183", "165", "201"},
                                           LimitCase{TickLadder::Etf, "195.35", "175.85", "214.85"},
                                           LimitCase{TickLadder::IndexFuture, "23001", "20701", "25301"}));

TEST(Limits, OptionsMoveByTenPercentOfTheIndex) {
  const PriceLimits limits = option_price_limits(P("120"), P("23000"));
  EXPECT_EQ(limits.limit_up, P("2420"));
  EXPECT_EQ(limits.limit_down, P("0.1"));
  const PriceLimits deep = option_price_limits(P("3000"), P("23000"));
  EXPECT_EQ(deep.limit_down, P("700"));
  EXPECT_EQ(deep.limit_up, P("5300"));
}

TEST(Calendar, DatesWeekdaysAndDeliveries) {
  EXPECT_EQ(Date::from_serial(0), (Date{1970, 1, 1}));
  EXPECT_EQ((Date{2026, 1, 5}).weekday(), 1);
  EXPECT_EQ((Date{1969, 12, 31}).weekday(), 3);
  EXPECT_EQ(third_wednesday(2026, 1), (Date{2026, 1, 21}));
  EXPECT_EQ(third_wednesday(2026, 12), (Date{2026, 12, 16}));
  EXPECT_EQ((Date{2026, 1, 9}).plus_business_days(2), (Date{2026, 1, 13}));
  EXPECT_EQ((Date{2024, 2, 28}).plus_days(1), (Date{2024, 2, 29}));
  EXPECT_EQ(Date::parse("2026-02-29"), std::nullopt);
  EXPECT_EQ(Date::parse("2024-02-29"), (Date{2024, 2, 29}));
  EXPECT_EQ((Date{2026, 3, 7}).to_string(), "2026-03-07");
  // 2026-01-05 00:30 in Taipei is still 2026-01-04 in UTC.
  EXPECT_EQ(taipei_date(taipei_instant(Date{2026, 1, 5}, 1800)), (Date{2026, 1, 5}));
  EXPECT_EQ(taipei_date(taipei_instant(Date{2026, 1, 5}) - 1), (Date{2026, 1, 4}));
}

}  // namespace
}  // namespace quorvex::paper
