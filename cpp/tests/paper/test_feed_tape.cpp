#include <gtest/gtest.h>

#include <thread>

#include "feed_fixtures.hpp"
#include "quorvex/paper/feed/market_clock.hpp"

namespace quorvex::paper {
namespace {

using namespace testing;

std::vector<TapeTrade> whole_day(TickTape tape) {
  std::vector<TapeTrade> trades;
  while (!tape.done()) trades.push_back(tape.next());
  return trades;
}

struct TapeCase {
  const char* name;
  std::function<const Contract&()> contract;
  int day_offset;  // business days from the master's trading day
};

class TapeOfEveryKind : public ::testing::TestWithParam<TapeCase> {
 protected:
  MarketModel model_{small_master(), kSeed};
};

TEST_P(TapeOfEveryKind, WalksTheLadderInsideTheLimitsAndClosesAtTheDaysClose) {
  const Contract& c = GetParam().contract();
  const Date day = kTradingDay.plus_business_days(GetParam().day_offset);
  const Market market = board_market(c);
  const DayPrices prices = *model_.day_prices(c, day);
  const std::vector<TapeTrade> trades = whole_day(model_.tape(c, market, day));
  const std::vector<TradingSession> sessions = trading_sessions(market, day);
  ASSERT_GT(trades.size(), 50u);

  EXPECT_EQ(trades.front().ts, sessions.front().open);
  EXPECT_EQ(trades.back().ts, sessions.back().close);
  EXPECT_EQ(trades.back().price, prices.close);
  Timestamp previous = 0;
  for (const TapeTrade& t : trades) {
    SCOPED_TRACE(t.price.to_string());
    EXPECT_GT(t.ts, previous);
    previous = t.ts;
    EXPECT_TRUE(on_ladder(c.ladder, t.price));
    EXPECT_TRUE(prices.limits.contains(t.price));
    const bool in_session = std::any_of(sessions.begin(), sessions.end(), [&](const TradingSession& s) {
      return s.open <= t.ts && t.ts <= s.close && s.night == t.night;
    });
    EXPECT_TRUE(in_session);
    if (market == Market::Index) continue;
    // The book meets the trade: buyers take the ask, sellers hit the bid.
    if (t.bid.is_positive() && t.ask.is_positive()) {
      EXPECT_LT(t.bid, t.ask);
    }
    EXPECT_EQ(t.price, t.side == TickSide::Buy ? t.ask : t.bid);
    EXPECT_GT(t.volume, 0);
  }
}

TEST_P(TapeOfEveryKind, IsTheSameForTheSameCodeAndDayOnly) {
  const Contract& c = GetParam().contract();
  const Date day = kTradingDay.plus_business_days(GetParam().day_offset);
  const auto a = whole_day(model_.tape(c, board_market(c), day));
  const auto b = whole_day(MarketModel(small_master(), kSeed).tape(c, board_market(c), day));
  const auto other_day = whole_day(model_.tape(c, board_market(c), day.plus_business_days(1)));
  const auto other_seed = whole_day(MarketModel(small_master(), kSeed + 1).tape(c, board_market(c), day));
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i].ts, b[i].ts);
    ASSERT_EQ(a[i].price, b[i].price);
    ASSERT_EQ(a[i].volume, b[i].volume);
  }
  auto differs = [&](const std::vector<TapeTrade>& x) {
    if (x.size() != a.size()) return true;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (x[i].price != a[i].price || x[i].volume != a[i].volume) return true;
    }
    return false;
  };
  EXPECT_TRUE(differs(other_day));
  EXPECT_TRUE(differs(other_seed));
}

INSTANTIATE_TEST_SUITE_P(
    Contracts, TapeOfEveryKind,
    ::testing::Values(TapeCase{"StockAcrossABand", [] { return std::cref(contract("2330")); }, 0},
                      TapeCase{"CheapStockBefore", [] { return std::cref(contract("2888")); }, -3},
                      TapeCase{"EtfAfter", [] { return std::cref(contract("0050")); }, 2},
                      TapeCase{"FrontFuture", [] { return std::cref(front_future()); }, 0},
                      TapeCase{"FutureAfter", [] { return std::cref(front_future()); }, 1},
                      TapeCase{"Option", [] { return std::cref(near_option()); }, 0},
                      TapeCase{"Index", [] { return std::cref(contract("001")); }, -1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DayPrices, ChainFromTheMastersDayEachCloseBeingTheNextReference) {
  const MarketModel model(small_master(), kSeed);
  for (const Contract* c :
       {&contract("2330"), &contract("2603"), &front_future(), &near_option(), &contract("001")}) {
    SCOPED_TRACE(c->code);
    const DayPrices anchor = *model.day_prices(*c, kTradingDay);
    EXPECT_EQ(anchor.reference, c->reference);
    if (c->limit_up.is_positive()) {
      EXPECT_EQ(anchor.limits.limit_up, c->limit_up);
      EXPECT_EQ(anchor.limits.limit_down, c->limit_down);
    }
    for (int offset = -6; offset <= 6; ++offset) {
      const Date day = kTradingDay.plus_business_days(offset);
      const DayPrices today = *model.day_prices(*c, day);
      const DayPrices next = *model.day_prices(*c, day.plus_business_days(1));
      EXPECT_EQ(today.close, next.reference) << day.to_string();
      EXPECT_TRUE(today.limits.contains(today.close));
      EXPECT_TRUE(on_ladder(c->ladder, today.reference));
    }
  }
}

struct DayAtCase {
  Market market;
  Date date;
  int hour, minute;
  Date expected;
};

class TradingDayAt : public ::testing::TestWithParam<DayAtCase> {};

TEST_P(TradingDayAt, IsTheDayRunningOrTheLastBegun) {
  const DayAtCase& c = GetParam();
  EXPECT_EQ(trading_day_at(c.market, taipei(c.date, c.hour, c.minute)), c.expected)
      << to_text(c.market) << " " << c.date.to_string() << " " << c.hour << ":" << c.minute;
}

INSTANTIATE_TEST_SUITE_P(
    Calendar, TradingDayAt,
    ::testing::Values(DayAtCase{Market::Stock, {2026, 1, 6}, 10, 0, {2026, 1, 6}},
                      DayAtCase{Market::Stock, {2026, 1, 6}, 8, 59, {2026, 1, 5}},
                      DayAtCase{Market::Stock, {2026, 1, 6}, 20, 0, {2026, 1, 6}},
                      DayAtCase{Market::Stock, {2026, 1, 11}, 12, 0, {2026, 1, 9}},  // Sunday: Friday's
                      DayAtCase{Market::FuturesOptions, {2026, 1, 6}, 14, 30, {2026, 1, 6}},
                      DayAtCase{Market::FuturesOptions, {2026, 1, 6}, 15, 0, {2026, 1, 7}},
                      DayAtCase{Market::FuturesOptions, {2026, 1, 7}, 3, 0, {2026, 1, 7}},
                      DayAtCase{Market::FuturesOptions, {2026, 1, 9}, 16, 0, {2026, 1, 12}},  // Friday night
                      DayAtCase{
                          Market::FuturesOptions, {2026, 1, 10}, 4, 59, {2026, 1, 12}},  // Saturday dawn
                      DayAtCase{Market::IntradayOdd, {2026, 1, 6}, 9, 0, {2026, 1, 5}}));

TEST(OddLotTape, AuctionsOnTheMinuteAtTheBoardsPrice) {
  const MarketModel model(small_master(), kSeed);
  const Contract& c = contract("2330");
  TickTape board = model.tape(c, Market::Stock, kTradingDay);
  const std::vector<TapeTrade> odd = whole_day(model.tape(c, Market::IntradayOdd, kTradingDay));
  ASSERT_GT(odd.size(), 100u);
  for (const TapeTrade& t : odd) {
    EXPECT_EQ(taipei_time_of_day(t.ts) % kNanosPerMinute, 0);
    EXPECT_EQ(t.price, board.price_until(t.ts));
    EXPECT_GE(t.volume, 1);
    EXPECT_LE(t.volume, 999);
  }
}

TEST(MarketClock, RunsFasterThanRealTimeFromItsStart) {
  const Timestamp start = taipei(kTradingDay, 9, 0);
  const AcceleratedClock clock(start, 1000.0);
  const Timestamp first = to_timestamp(clock.now());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(to_timestamp(clock.now()) - first, 20 * 1000 * 1'000'000LL);  // 20 ms at 1000x: at least 20 s
  EXPECT_GE(first, start);
  EXPECT_THROW(AcceleratedClock(start, 0.0), std::invalid_argument);
  EXPECT_THROW(AcceleratedClock(start, -2.0), std::invalid_argument);
}

TEST(MarketClock, ParsesTaipeiInstants) {
  EXPECT_EQ(parse_taipei_instant("2026-01-05T09:30"), taipei(kTradingDay, 9, 30));
  EXPECT_EQ(parse_taipei_instant("2026-01-05 09:30:15"), taipei(kTradingDay, 9, 30, 15));
  EXPECT_EQ(parse_taipei_instant("2026-01-05"), taipei(kTradingDay, 0, 0));
  for (const char* bad :
       {"", "2026-01-05T9:30", "2026-01-05T24:00", "2026-13-05", "2026-01-05X09:30", "tomorrow"}) {
    EXPECT_FALSE(parse_taipei_instant(bad)) << bad;
  }
}

}  // namespace
}  // namespace quorvex::paper
