#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "feed_fixtures.hpp"

namespace quorvex::paper {
namespace {

using namespace testing;
using core::Value;

// A feed on a manual market clock: tests move the clock, wake the feed and read what it sent.
class FeedTest : public ::testing::Test {
 protected:
  explicit FeedTest(RestingDepth depth = {})
      : clock_(taipei(kTradingDay, 9, 30)),
        feed_(model_, clock_, ledger_, std::move(depth), {std::chrono::microseconds(500)}) {
    feed_.start(published_.publisher());
  }

  // Lets `seconds` of market time pass and waits until the feed has published up to there.
  void run_market(int seconds) {
    clock_.advance(seconds * kNanosPerSecond);
    settle();
  }
  // Two whole rounds after the change: everything due by now is published.
  void settle() {
    const std::uint64_t before = feed_.stats().rounds;
    feed_.wake();
    ASSERT_TRUE(eventually([&] {
      feed_.wake();
      return feed_.stats().rounds >= before + 2;
    }));
  }
  void subscribe(const std::string& filter) {
    feed_.on_subscription(filter, true);
    ASSERT_TRUE(eventually([&] { return feed_.stats().streams > 0; }));
  }
  void unsubscribe(const std::string& filter) {
    feed_.on_subscription(filter, false);
    settle();
  }
  std::vector<std::pair<std::string, Value>> decoded() const {
    std::vector<std::pair<std::string, Value>> out;
    for (const auto& [topic, payload] : published_.messages()) out.emplace_back(topic, decode(payload));
    return out;
  }
  std::set<std::string> topics() const {
    std::set<std::string> out;
    for (const auto& [topic, payload] : published_.messages()) out.insert(topic);
    return out;
  }

  MarketModel model_{small_master(), kSeed};
  TestClock clock_;
  TradeLedger ledger_;
  RecordingPublisher published_;
  QuoteFeed feed_;
};

struct FamilyCase {
  const char* name;
  std::function<std::string()> filter;
  std::string topic_prefix;
  std::size_t elements;  // typed content length, or the keys of an untyped message
  bool untyped;
};

class FeedFamilies : public FeedTest, public ::testing::WithParamInterface<FamilyCase> {};

TEST_P(FeedFamilies, PublishTheDocumentedLayoutOnTheSubscribedTopicOnly) {
  const FamilyCase& p = GetParam();
  subscribe(p.filter());
  const Timestamp subscribed_at = clock_.ts();
  run_market(300);
  const auto messages = decoded();
  ASSERT_FALSE(messages.empty());
  for (const auto& [topic, message] : messages) {
    SCOPED_TRACE(topic);
    EXPECT_EQ(topic.rfind(p.topic_prefix, 0), 0u);
    ASSERT_TRUE(message.is_map());
    if (p.untyped) {
      EXPECT_EQ(message.size(), p.elements);
      EXPECT_TRUE(message.get("Code").is_string());
      EXPECT_EQ(message.get("Date").as_string(), "2026/01/05");
      continue;
    }
    EXPECT_EQ(message.size(), 1u);
    const Value& content = message.get("content");
    ASSERT_EQ(content.size(), p.elements);
    const Timestamp ts = content.at(1).as_int() * 1000;
    EXPECT_GT(ts, subscribed_at);
    EXPECT_LE(ts, clock_.ts());
    EXPECT_TRUE(content.at(0).is_string());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Topics, FeedFamilies,
    ::testing::Values(FamilyCase{"StockTick", [] { return std::string("TIC/v1/STK/*/TSE/2330"); },
                                 "TIC/v1/STK/D/TSE/2330", 23, false},
                      FamilyCase{"StockBidAsk", [] { return std::string("QUO/v1/STK/*/TSE/2330"); },
                                 "QUO/v1/STK/D/TSE/2330", 10, false},
                      FamilyCase{"StockQuote", [] { return std::string("QUO/v2/STK/*/TSE/2330"); },
                                 "QUO/v2/STK/D/TSE/2330", 29, false},
                      FamilyCase{"OddLotTick", [] { return std::string("TIC/v1/ODD/*/TSE/2330"); },
                                 "TIC/v1/ODD/D/TSE/2330", 23, false},
                      FamilyCase{"OddLotBidAsk", [] { return std::string("QUO/v1/ODD/*/TSE/2330"); },
                                 "QUO/v1/ODD/D/TSE/2330", 10, false},
                      FamilyCase{"FutureTick", [] { return "TIC/v1/FOP/*/TFE/" + front_future().code; },
                                 "TIC/v1/FOP/D/TFE/", 19, false},
                      FamilyCase{"FutureBidAsk", [] { return "QUO/v1/FOP/*/TFE/" + front_future().code; },
                                 "QUO/v1/FOP/D/TFE/", 16, false},
                      FamilyCase{"OptionTick", [] { return "TIC/v1/FOP/*/TFE/" + near_option().code; },
                                 "TIC/v1/FOP/D/TFE/", 19, false},
                      FamilyCase{"UntypedTick", [] { return std::string("TIC/v0/STK/*/TSE/2330"); },
                                 "TIC/v0/STK/D/TSE/2330", 17, true},
                      FamilyCase{"UntypedBidAsk", [] { return std::string("QUO/v0/STK/*/TSE/2330"); },
                                 "QUO/v0/STK/D/TSE/2330", 10, true},
                      FamilyCase{"UntypedOddTick", [] { return std::string("TIC/v0/ODD/*/TSE/2330/ODDLOT"); },
                                 "TIC/v0/ODD/D/TSE/2330/ODDLOT", 7, true},
                      FamilyCase{"UntypedOddBidAsk",
                                 [] { return std::string("QUO/v0/ODD/*/TSE/2330/ODDLOT"); },
                                 "QUO/v0/ODD/D/TSE/2330/ODDLOT", 8, true},
                      FamilyCase{"UntypedFuture", [] { return "TIC/v0/FOP/*/TFE/" + front_future().code; },
                                 "TIC/v0/FOP/D/TFE/", 17, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(FeedTest, TicksAgreeWithHistoryAndBidAsksWithTheirTrades) {
  subscribe("TIC/v1/STK/*/TSE/2317");
  subscribe("QUO/v1/STK/*/TSE/2317");
  const Timestamp from = clock_.ts();
  run_market(600);
  const MarketHistory history(model_, clock_, ledger_);
  std::vector<TickRow> expected;
  for (const TickRow& r : history.ticks(contract("2317"), kTradingDay, {})) {
    if (r.ts > from && r.ts <= clock_.ts()) expected.push_back(r);
  }
  std::vector<Value> ticks, bidasks;
  for (const auto& [topic, message] : decoded()) {
    (topic.rfind("TIC", 0) == 0 ? ticks : bidasks).push_back(message.get("content"));
  }
  ASSERT_FALSE(expected.empty());
  ASSERT_EQ(ticks.size(), expected.size());
  ASSERT_EQ(bidasks.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(ticks[i].at(1).as_int() * 1000, expected[i].ts);
    EXPECT_DOUBLE_EQ(ticks[i].at(3).as_double(), expected[i].close.to_double());
    EXPECT_EQ(ticks[i].at(9).as_int(), expected[i].volume);
    EXPECT_EQ(ticks[i].at(11).as_int(), static_cast<int>(expected[i].tick_type));
    // The book after the trade: best bid and ask as history recorded them, around the price.
    const Value& bid_prices = bidasks[i].at(2);
    const Value& ask_prices = bidasks[i].at(5);
    EXPECT_DOUBLE_EQ(bid_prices.at(0).as_double(), expected[i].bid_price.to_double());
    EXPECT_DOUBLE_EQ(ask_prices.at(0).as_double(), expected[i].ask_price.to_double());
    EXPECT_LE(bid_prices.at(0).as_double(), expected[i].close.to_double());
    EXPECT_GE(ask_prices.at(0).as_double(), expected[i].close.to_double());
    for (std::size_t level = 1; level < kBookDepth; ++level) {
      EXPECT_LT(bid_prices.at(level).as_double(), bid_prices.at(level - 1).as_double());
      EXPECT_GT(ask_prices.at(level).as_double(), ask_prices.at(level - 1).as_double());
    }
  }
}

TEST_F(FeedTest, WildcardsCoverEveryMatchingStreamAndUnsubscribingStopsThem) {
  subscribe("TIC/v1/STK/*/TSE/>");
  run_market(60);
  const std::set<std::string> seen = topics();
  EXPECT_GT(seen.size(), 5u);
  for (const std::string& t : seen) EXPECT_EQ(t.rfind("TIC/v1/STK/D/TSE/", 0), 0u) << t;

  unsubscribe("TIC/v1/STK/*/TSE/>");
  EXPECT_EQ(feed_.stats().streams, 0u);
  published_.clear();
  run_market(120);
  EXPECT_EQ(published_.size(), 0u);
}

TEST_F(FeedTest, AStreamStaysWhileAnyFilterCoversIt) {
  subscribe("TIC/v1/STK/*/TSE/2330");
  subscribe("TIC/v1/>");
  unsubscribe("TIC/v1/>");
  published_.clear();
  run_market(60);
  EXPECT_EQ(topics(), std::set<std::string>{"TIC/v1/STK/D/TSE/2330"});
  unsubscribe("TIC/v1/STK/*/TSE/2330");
  unsubscribe("TIC/v1/STK/*/TSE/2330");  // a second removal is harmless
  published_.clear();
  run_market(60);
  EXPECT_EQ(published_.size(), 0u);
}

TEST_F(FeedTest, AfterHoursSessionPublishesOnSessionN) {
  const std::string code = front_future().code;
  clock_.set(taipei(kTradingDay, 15, 30));
  subscribe("TIC/v1/FOP/*/TFE/" + code);
  run_market(60);
  ASSERT_GT(published_.size(), 0u);
  EXPECT_EQ(topics(), std::set<std::string>{"TIC/v1/FOP/N/TFE/" + code});
}

class FeedWithRestingOrders : public FeedTest {
 protected:
  FeedWithRestingOrders()
      : FeedTest([this](const std::string& code, Board board) -> std::optional<BookSnapshot> {
          std::lock_guard lock(mutex_);
          if (code != "2330" || board != Board::Common) return std::nullopt;
          return resting_;
        }) {}

  std::mutex mutex_;
  BookSnapshot resting_;
};

TEST_F(FeedWithRestingOrders, ShowInTheBidAsksWhereTheyDoNotCrossTheMarket) {
  subscribe("QUO/v1/STK/*/TSE/2330");
  run_market(1);
  const MarketHistory history(model_, clock_, ledger_);
  const ContractSnapshot now = history.snapshot(contract("2330"));
  const Price best_bid = now.book.bids[0].price;
  const Price best_ask = now.book.asks[0].price;
  {
    std::lock_guard lock(mutex_);
    // A client's bid one step inside the spread is impossible on a one-step market, so it joins
    // at the best bid; an ask below the market's bid would cross it and is left out.
    resting_.bids = {{best_bid, 1000, 1}};
    resting_.asks = {{step_down(TickLadder::Stock, best_bid), 500, 1}, {best_ask, 700, 2}};
  }
  published_.clear();
  feed_.book_changed("2330", Board::Common);
  ASSERT_TRUE(eventually([&] { return published_.size() > 0; }));
  const Value content = decoded().front().second.get("content");
  EXPECT_DOUBLE_EQ(content.at(2).at(0).as_double(), best_bid.to_double());
  EXPECT_EQ(content.at(3).at(0).as_int(), now.book.bids[0].volume + 1000);
  EXPECT_EQ(content.at(4).at(0).as_int(), 1000);  // the diff since the last message
  EXPECT_DOUBLE_EQ(content.at(5).at(0).as_double(), best_ask.to_double());
  EXPECT_EQ(content.at(6).at(0).as_int(), now.book.asks[0].volume + 700);
}

TEST(FeedLifecycle, StopsCleanlyStartsAgainAndCountsPublisherFailures) {
  const MarketModel model(small_master(), kSeed);
  TestClock clock(taipei(kTradingDay, 10, 0));
  TradeLedger ledger;
  std::atomic<int> calls{0};
  auto feed = std::make_unique<QuoteFeed>(model, clock, ledger, RestingDepth{},
                                          FeedOptions{std::chrono::microseconds(200)});
  feed->on_subscription("TIC/v1/STK/*/TSE/2330", true);
  feed->start([&](const std::string&, std::string) {
    ++calls;
    throw std::runtime_error("the bus is closed");
  });
  ASSERT_TRUE(eventually([&] { return feed->stats().streams == 1; }));
  clock.advance(60 * kNanosPerSecond);
  ASSERT_TRUE(eventually([&] { return feed->stats().publish_errors > 0; }));
  EXPECT_EQ(feed->stats().messages, 0u);
  feed->stop();
  const int after_stop = calls.load();
  clock.advance(60 * kNanosPerSecond);
  feed->wake();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(calls.load(), after_stop);
  feed->stop();  // idempotent

  // Started again, it has forgotten the old bus's subscriptions until the new one tells it;
  // told a market minute before it runs, it sends every trade since the subscription, and none
  // from before.
  feed->on_subscription("TIC/v1/STK/*/TSE/2330", true);
  const Timestamp subscribed = clock.ts();
  clock.advance(60 * kNanosPerSecond);
  RecordingPublisher again;
  const std::uint64_t rounds = feed->stats().rounds;
  feed->start(again.publisher());
  ASSERT_TRUE(eventually([&] { return feed->stats().rounds > rounds + 2; }));
  feed.reset();
  std::vector<Timestamp> expected;
  for (const TickRow& r : MarketHistory(model, clock, ledger).ticks(contract("2330"), kTradingDay, {})) {
    if (r.ts > subscribed) expected.push_back(r.ts);
  }
  std::vector<Timestamp> sent;
  for (const auto& [topic, payload] : again.messages())
    sent.push_back(decode(payload).get("content").at(1).as_int() * 1000);
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(sent, expected);

  // Never started: destroying it is immediate.
  QuoteFeed idle(model, clock, ledger);
  idle.on_subscription("TIC/v1/>", true);
}

}  // namespace
}  // namespace quorvex::paper
