// The paper broker's market data in one place: the price model, the ledger of the broker's own
// trades, the live quote feed and the history services, wired to one clock. The broker's
// services hand it their subscription changes, their matching engine's events and the
// requests on the market-data topics (api/v1/data/...); it hands back replies and publishes
// quotes through the publisher it is started with.
//
// Threading: every method may be called from any thread. answer() runs on the caller's thread
// and never waits for the feed; on_order_event() and on_subscription() return at once.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "quorvex/core/value.hpp"
#include "quorvex/paper/feed/market_history.hpp"

namespace quorvex::paper {

struct MarketDataOptions {
  std::uint64_t seed = 20260105;  // the market's prices follow from it
  FeedOptions feed;
};

// The services answered by PaperMarketData::answer, by the last component of their topic.
inline constexpr std::string_view kMarketDataServices[] = {
    "ticks", "kbars", "daily_quotes", "snapshots", "scanner", "credit_enquire", "short_stock_sources"};

class PaperMarketData {
 public:
  // `contracts` and `clock` must outlive the market data.
  PaperMarketData(const ContractMaster& contracts, const core::Clock& clock, RestingDepth depth = {},
                  MarketDataOptions options = {});
  ~PaperMarketData();
  PaperMarketData(const PaperMarketData&) = delete;
  PaperMarketData& operator=(const PaperMarketData&) = delete;

  // Publishes quotes through `publisher` until stop(); the books and history stay across stops.
  void start(QuotePublisher publisher) { feed_.start(std::move(publisher)); }
  // Stops publishing; returns once the feed's thread has ended.
  void stop() { feed_.stop(); }

  // Every event of the matching engine: clients' fills become trades on the feed, and any
  // change to a book republishes its bid/asks.
  void on_order_event(const OrderEvent& event);
  // A client's fill, told once per deal or more (repeats of a deal are dropped): a trade on the
  // feed, in history and snapshots.
  void record_trade(const OwnTrade& trade);
  // The bus's subscription watcher: a filter gained its first subscriber or lost its last.
  void on_subscription(const std::string& filter, bool active) { feed_.on_subscription(filter, active); }

  // The whole reply to a request on a market-data service: {"status": {"status_code": 200},
  // "response": {...}} or a refusal with its status code and detail. `paper_session`: the
  // requester logged in for simulation.
  core::Value answer(std::string_view service, const core::Value& payload, bool paper_session) const;

  const MarketModel& model() const { return model_; }
  const MarketHistory& history() const { return history_; }
  const TradeLedger& ledger() const { return ledger_; }
  QuoteFeed& feed() { return feed_; }

 private:
  MarketModel model_;
  TradeLedger ledger_;
  MarketHistory history_;
  QuoteFeed feed_;
};

}  // namespace quorvex::paper
