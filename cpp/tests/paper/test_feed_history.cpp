#include <gtest/gtest.h>

#include <map>
#include <numeric>

#include "feed_fixtures.hpp"

namespace quorvex::paper {
namespace {

using namespace testing;
using core::Value;

TickRow row(Timestamp ts, const char* price, Quantity volume, Money amount) {
  TickRow r;
  r.ts = ts;
  r.close = *Price::parse(price);
  r.volume = volume;
  r.amount = amount;
  return r;
}

TEST(MinuteBars, AggregateEachMinutesTicksExactly) {
  const Timestamp nine = taipei(kTradingDay, 9, 0);
  const std::vector<TickRow> ticks = {
      row(nine, "100", 10, 1000), row(nine + 20 * kNanosPerSecond, "101.5", 1, 150),
      row(nine + 59 * kNanosPerSecond, "99", 2, 200), row(nine + kNanosPerMinute, "99.5", 3, 300),
      row(nine + 3 * kNanosPerMinute + 1, "98", 4, 400)};  // a quiet minute in between has no bar
  const std::vector<MinuteBar> bars = minute_bars(ticks);
  ASSERT_EQ(bars.size(), 3u);
  EXPECT_EQ(bars[0].ts, nine);
  EXPECT_EQ(bars[0].open, *Price::parse("100"));
  EXPECT_EQ(bars[0].high, *Price::parse("101.5"));
  EXPECT_EQ(bars[0].low, *Price::parse("99"));
  EXPECT_EQ(bars[0].close, *Price::parse("99"));
  EXPECT_EQ(bars[0].volume, 13);
  EXPECT_EQ(bars[0].amount, 1350);
  EXPECT_EQ(bars[1].ts, nine + kNanosPerMinute);
  EXPECT_EQ(bars[1].volume, 3);
  EXPECT_EQ(bars[2].ts, nine + 3 * kNanosPerMinute);
  EXPECT_TRUE(minute_bars({}).empty());
}

class HistoryTest : public ::testing::Test {
 protected:
  HistoryTest() : clock_(taipei(kTradingDay, 11, 0)), history_(model_, clock_, ledger_) {}

  std::vector<TickRow> all_day(const Contract& c, const Date& day) const {
    return history_.ticks(c, day, {});
  }

  MarketModel model_{small_master(), kSeed};
  TestClock clock_;
  TradeLedger ledger_;
  MarketHistory history_;
};

TEST_F(HistoryTest, TicksStopAtTheMarketClock) {
  const auto today = all_day(contract("2330"), kTradingDay);
  ASSERT_FALSE(today.empty());
  EXPECT_LE(today.back().ts, clock_.ts());
  EXPECT_EQ(today.front().ts, taipei(kTradingDay, 9, 0));
  EXPECT_TRUE(all_day(contract("2330"), kTradingDay.plus_days(1)).empty());  // tomorrow has not happened
  const auto yesterday = all_day(contract("2330"), kTradingDay.plus_business_days(-1));
  EXPECT_EQ(yesterday.back().ts, taipei(kTradingDay.plus_business_days(-1), 13, 30));
}

TickSelection range(int from_hour, int to_hour) {
  TickSelection s;
  s.kind = TickSelection::Kind::RangeTime;
  s.from_time_of_day = from_hour * 3600 * kNanosPerSecond;
  s.to_time_of_day = to_hour * 3600 * kNanosPerSecond;
  return s;
}

TEST_F(HistoryTest, TickSelectionsAreSlicesOfTheWholeDay) {
  const Date day = kTradingDay.plus_business_days(-1);
  const auto whole = all_day(contract("2317"), day);
  const auto in_range = history_.ticks(contract("2317"), day, range(10, 11));
  const auto in_hour = [](const TickRow& r) {
    return taipei_time_of_day(r.ts) / (3600 * kNanosPerSecond) == 10;
  };
  ASSERT_EQ(in_range.size(), static_cast<std::size_t>(std::count_if(whole.begin(), whole.end(), in_hour)));
  EXPECT_TRUE(std::all_of(in_range.begin(), in_range.end(), in_hour));

  TickSelection last;
  last.kind = TickSelection::Kind::LastCount;
  last.last = 7;
  const auto tail = history_.ticks(contract("2317"), day, last);
  ASSERT_EQ(tail.size(), 7u);
  for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(tail[i].ts, whole[whole.size() - 7 + i].ts);

  // A range that wraps past midnight covers the evening and the small hours.
  const auto late = history_.ticks(front_future(), day, range(22, 2));
  ASSERT_FALSE(late.empty());
  for (const TickRow& r : late) {
    const Timestamp t = taipei_time_of_day(r.ts) / (3600 * kNanosPerSecond);
    EXPECT_TRUE(t >= 22 || t < 2);
  }
}

TEST_F(HistoryTest, KbarsAreTheMinutesOfTheTicksAndDailyQuotesTheDay) {
  const Contract& c = contract("2603");
  const Date day = kTradingDay.plus_business_days(-2);
  const auto ticks = all_day(c, day);
  const auto bars = history_.kbars(c, day, day);
  const auto expected = minute_bars(ticks);
  ASSERT_EQ(bars.size(), expected.size());
  for (std::size_t i = 0; i < bars.size(); ++i) {
    EXPECT_EQ(bars[i].ts, expected[i].ts);
    EXPECT_EQ(bars[i].close, expected[i].close);
    EXPECT_EQ(bars[i].amount, expected[i].amount);
  }

  const auto quotes = history_.daily_quotes(day, false);
  const auto quote =
      std::find_if(quotes.begin(), quotes.end(), [&](const DailyQuote& q) { return q.contract == &c; });
  ASSERT_NE(quote, quotes.end());
  EXPECT_EQ(quote->close, ticks.back().close);
  EXPECT_EQ(quote->open, ticks.front().close);
  EXPECT_EQ(quote->transactions, static_cast<std::int64_t>(ticks.size()));
  EXPECT_EQ(quote->volume, std::accumulate(bars.begin(), bars.end(), Quantity{0},
                                           [](Quantity sum, const MinuteBar& b) { return sum + b.volume; }));
  EXPECT_EQ(quote->close, model_.day_prices(c, day)->close);

  const auto without_funds = history_.daily_quotes(day, true);
  EXPECT_LT(without_funds.size(), quotes.size());
  for (const DailyQuote& q : without_funds) EXPECT_FALSE(q.contract->is_etf());
  EXPECT_TRUE(history_.daily_quotes({2026, 1, 10}, false).empty());  // a Saturday
}

TEST_F(HistoryTest, ASnapshotAgreesWithTheLastTick) {
  for (const Contract* c : {&contract("2330"), &front_future(), &near_option()}) {
    SCOPED_TRACE(c->code);
    const auto ticks = all_day(*c, kTradingDay);
    ASSERT_FALSE(ticks.empty());
    const ContractSnapshot s = history_.snapshot(*c);
    EXPECT_EQ(s.ts, ticks.back().ts);
    EXPECT_EQ(s.state.close, ticks.back().close);
    EXPECT_EQ(s.state.volume, ticks.back().volume);
    EXPECT_EQ(s.state.trades, static_cast<std::int64_t>(ticks.size()));
    EXPECT_EQ(s.state.total_volume,
              std::accumulate(ticks.begin(), ticks.end(), Quantity{0},
                              [](Quantity sum, const TickRow& r) { return sum + r.volume; }));
    EXPECT_EQ(s.book.bids[0].price, ticks.back().bid_price);
    EXPECT_EQ(s.book.asks[0].price, ticks.back().ask_price);
    const auto yesterday = all_day(*c, kTradingDay.plus_business_days(-1));
    EXPECT_EQ(s.yesterday_volume,
              std::accumulate(yesterday.begin(), yesterday.end(), Quantity{0},
                              [](Quantity sum, const TickRow& r) { return sum + r.volume; }));
  }
}

TEST_F(HistoryTest, TheBrokersTradesJoinTheTicksAndTheTotals) {
  const Contract& c = contract("2881");
  const auto before = history_.snapshot(c);
  OwnTrade trade;
  trade.code = c.code;
  trade.deal = 1;
  trade.ts = clock_.ts() - kNanosPerSecond;
  trade.price = before.state.close;
  trade.quantity = 77;
  trade.aggressor = Side::Sell;
  EXPECT_TRUE(ledger_.record(trade));
  EXPECT_FALSE(ledger_.record(trade));  // the other side's report of the same deal

  const auto ticks = all_day(c, kTradingDay);
  const auto own = std::find_if(ticks.begin(), ticks.end(),
                                [&](const TickRow& r) { return r.volume == 77 && r.ts == trade.ts; });
  ASSERT_NE(own, ticks.end());
  EXPECT_EQ(own->close, trade.price);
  EXPECT_EQ(own->tick_type, TickSide::Sell);
  EXPECT_EQ(own->bid_price, trade.price);  // a sell hits the bid
  EXPECT_TRUE(std::is_sorted(ticks.begin(), ticks.end(),
                             [](const TickRow& a, const TickRow& b) { return a.ts < b.ts; }));

  const auto after = history_.snapshot(c);
  EXPECT_EQ(after.state.total_volume, before.state.total_volume + 77);
  EXPECT_EQ(after.state.trades, before.state.trades + 1);
}

struct ScanCase {
  ScannerKind kind;
  bool ascending;
  std::size_t count;
};

class Scanners : public HistoryTest, public ::testing::WithParamInterface<ScanCase> {};

TEST_P(Scanners, RankTradedStocksInOrderAndCount) {
  const ScanCase& p = GetParam();
  const Date day = kTradingDay.plus_business_days(-1);
  const auto rows = history_.scan(p.kind, p.ascending, day, p.count);
  const std::size_t traded = history_.daily_quotes(day, false).size();
  ASSERT_EQ(rows.size(), std::min(p.count, traded));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const ScannerRow& a = rows[i - 1];
    const ScannerRow& b = rows[i];
    if (a.rank_value == b.rank_value) {
      EXPECT_LT(a.snapshot.contract->code, b.snapshot.contract->code);
    } else {
      EXPECT_EQ(a.rank_value < b.rank_value, p.ascending);
    }
  }
  for (const ScannerRow& r : rows) {
    const QuoteState& s = r.snapshot.state;
    switch (p.kind) {
      case ScannerKind::ChangePercent: EXPECT_DOUBLE_EQ(r.rank_value, s.percent_change()); break;
      case ScannerKind::ChangePrice: EXPECT_DOUBLE_EQ(r.rank_value, s.price_change()); break;
      case ScannerKind::Volume: EXPECT_DOUBLE_EQ(r.rank_value, static_cast<double>(s.total_volume)); break;
      case ScannerKind::Amount: EXPECT_DOUBLE_EQ(r.rank_value, to_dollars(s.total_amount)); break;
      case ScannerKind::TickCount: EXPECT_DOUBLE_EQ(r.rank_value, static_cast<double>(s.trades)); break;
      case ScannerKind::DayRange: EXPECT_GE(r.rank_value, 0.0); break;
    }
    EXPECT_EQ(s.day, day);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Scanners,
                         ::testing::Values(ScanCase{ScannerKind::ChangePercent, false, 10},
                                           ScanCase{ScannerKind::ChangePercent, true, 10},
                                           ScanCase{ScannerKind::ChangePrice, false, 3},
                                           ScanCase{ScannerKind::DayRange, false, 200},
                                           ScanCase{ScannerKind::Volume, true, 1},
                                           ScanCase{ScannerKind::Amount, false, 5},
                                           ScanCase{ScannerKind::TickCount, false, 50}));

// ---- the services' replies

class MarketDataReplies : public ::testing::Test {
 protected:
  MarketDataReplies() : clock_(taipei(kTradingDay, 10, 0)), data_(small_master(), clock_, {}, {kSeed, {}}) {}

  Value ask(std::string_view service, Value payload, bool paper = true) const {
    return data_.answer(service, payload, paper);
  }
  static Value contract_fields(const Contract& c) {
    return Value::map({{"security_type", std::string(to_text(c.security_type))},
                       {"exchange", std::string(to_text(c.exchange))},
                       {"code", c.code},
                       {"target_code", ""}});
  }

  TestClock clock_;
  PaperMarketData data_;
};

TEST_F(MarketDataReplies, TicksKbarsAndDailyQuotesAreColumns) {
  const Value ticks = ask("ticks", Value::map({{"contract", contract_fields(contract("2330"))},
                                               {"date", "2026-01-05"},
                                               {"query_type", "AllDay"},
                                               {"time_range", nullptr},
                                               {"last_cnt", 0}}));
  ASSERT_EQ(ticks.get("status").get_int("status_code"), 200) << ticks;
  const Value& columns = ticks.get("response");
  const std::size_t n = columns.get("ts").size();
  ASSERT_GT(n, 0u);
  for (const char* key :
       {"close", "volume", "bid_price", "bid_volume", "ask_price", "ask_volume", "tick_type"}) {
    EXPECT_EQ(columns.get(key).size(), n) << key;
  }
  // Taipei wall time counted as UTC: the first trade reads 09:00 of the day.
  EXPECT_EQ(columns.get("ts").at(0).as_int(), taipei_wall_nanos(taipei(kTradingDay, 9, 0)));
  EXPECT_EQ(columns.get("ts").at(0).as_int() % (86400 * kNanosPerSecond), 9 * 3600 * kNanosPerSecond);
  EXPECT_TRUE(columns.get("close").at(0).kind() == Value::Kind::Double);
  EXPECT_TRUE(columns.get("volume").at(0).is_int());

  const Value kbars = ask("kbars", Value::map({{"contract", contract_fields(contract("2330"))},
                                               {"start", "2026-01-02"},
                                               {"end", "2026-01-05"}}));
  ASSERT_EQ(kbars.get("status").get_int("status_code"), 200) << kbars;
  for (const char* key : {"ts", "Open", "High", "Low", "Close", "Volume", "Amount"}) {
    EXPECT_GT(kbars.get("response").get(key).size(), 200u) << key;
  }

  const Value daily = ask("daily_quotes", Value::map({{"date", "2026-01-02"}, {"exclude", false}}));
  ASSERT_EQ(daily.get("status").get_int("status_code"), 200) << daily;
  EXPECT_EQ(daily.get("response").get("Code").size(), daily.get("response").get("Transaction").size());
  EXPECT_EQ(daily.get("response").get("Date").at(0).as_string(), "2026-01-02");
}

struct RefusalCase {
  const char* name;
  const char* service;
  std::function<Value()> payload;
  int status;
  const char* detail;  // a piece of the detail text
};

class MarketDataRefusals : public MarketDataReplies, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(MarketDataRefusals, SayWhatWasWrong) {
  const Value reply = ask(GetParam().service, GetParam().payload());
  EXPECT_EQ(reply.get("status").get_int("status_code"), GetParam().status) << reply;
  EXPECT_NE(reply.get("response").get_string("detail").find(GetParam().detail), std::string::npos) << reply;
}

Value stock_2330() { return Value::map({{"security_type", "STK"}, {"exchange", "TSE"}, {"code", "2330"}}); }

INSTANTIATE_TEST_SUITE_P(
    Requests, MarketDataRefusals,
    ::testing::Values(
        RefusalCase{"UnknownContract", "ticks",
                    [] {
                      return Value::map({{"contract", Value::map({{"code", "9999X"}})},
                                         {"date", "2026-01-05"},
                                         {"query_type", "AllDay"}});
                    },
                    404, "unknown contract code \"9999X\""},
        RefusalCase{"BadDate", "ticks",
                    [] {
                      return Value::map(
                          {{"contract", stock_2330()}, {"date", "2026/01/05"}, {"query_type", "AllDay"}});
                    },
                    400, "YYYY-MM-DD"},
        RefusalCase{"RangeWithoutTimes", "ticks",
                    [] {
                      return Value::map({{"contract", stock_2330()},
                                         {"date", "2026-01-05"},
                                         {"query_type", "RangeTime"},
                                         {"time_range", nullptr}});
                    },
                    400, "time_range"},
        RefusalCase{"LastCountZero", "ticks",
                    [] {
                      return Value::map({{"contract", stock_2330()},
                                         {"date", "2026-01-05"},
                                         {"query_type", "LastCount"},
                                         {"last_cnt", 0}});
                    },
                    400, "last_cnt"},
        RefusalCase{
            "KbarsBackwards", "kbars",
            [] {
              return Value::map({{"contract", stock_2330()}, {"start", "2026-01-05"}, {"end", "2026-01-02"}});
            },
            400, "before start"},
        RefusalCase{"ScannerCountAbove", "scanner",
                    [] {
                      return Value::map({{"scanner_type", "VolumeRank"},
                                         {"date", "2026-01-05"},
                                         {"ascending", false},
                                         {"count", 201}});
                    },
                    400, "1 to 200"},
        RefusalCase{
            "CreditForAFuture", "credit_enquire",
            [] {
              return Value::map({{"contracts", Value::array({Value::map({{"code", front_future().code}})})}});
            },
            400, "stocks only"},
        RefusalCase{"ShortSourcesInSimulation", "short_stock_sources",
                    [] {
                      return Value::map({{"contracts", Value::array({stock_2330()})}});
                    },
                    403, "simulation"},
        RefusalCase{"NotAMap", "snapshots", [] { return Value(Value::array({})); }, 400, "map of fields"},
        RefusalCase{"UnknownService", "quotes", [] { return Value::map({}); }, 404,
                    "no market-data service"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvex::paper
