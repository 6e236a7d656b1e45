// The paper market's history: ticks, one-minute bars, daily quotes, snapshots and scanner
// rankings, read from the same tapes the live feed publishes, with the broker's own trades
// among them. Nothing later than the market clock's now is ever reported, so history and
// snapshots agree with what the feed has published.
//
// Threading: every method may be called from any thread. Cached day states are guarded by one
// internal lock; the resting-depth source is called with no lock held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "quorvex/core/clock.hpp"
#include "quorvex/paper/feed/quote_feed.hpp"

namespace quorvex::paper {

struct TickRow {
  Timestamp ts = 0;
  Price close;
  Quantity volume = 0;
  Price bid_price;  // the best bid and ask right after the trade
  Quantity bid_volume = 0;
  Price ask_price;
  Quantity ask_volume = 0;
  TickSide tick_type = TickSide::None;
  Money amount = 0;  // the trade's value
};

// One minute of trading; `ts` is the minute's first instant.
struct MinuteBar {
  Timestamp ts = 0;
  Price open, high, low, close;
  Quantity volume = 0;
  Money amount = 0;
};

// Bars of every minute that has a trade, in time order; ticks must be in time order.
std::vector<MinuteBar> minute_bars(const std::vector<TickRow>& ticks);

struct TickSelection {
  enum class Kind { AllDay, RangeTime, LastCount };
  Kind kind = Kind::AllDay;
  // RangeTime: Taipei times of day, both included; a start after the end wraps past midnight.
  Timestamp from_time_of_day = 0;
  Timestamp to_time_of_day = 0;
  std::size_t last = 0;  // LastCount
};

struct DailyQuote {
  Date date;
  const Contract* contract = nullptr;
  Price open, high, low, close;
  Quantity volume = 0;
  std::int64_t transactions = 0;
  Money amount = 0;
};

struct ContractSnapshot {
  const Contract* contract = nullptr;
  QuoteState state;
  QuoteBook book;    // resting orders of the broker's book included
  Timestamp ts = 0;  // the last trade, or the time of the query before any
  Quantity yesterday_volume = 0;
};

enum class ScannerKind { ChangePercent, ChangePrice, DayRange, Volume, Amount, TickCount };

struct ScannerRow {
  ContractSnapshot snapshot;
  double rank_value = 0;
};

class MarketHistory {
 public:
  // `model`, `clock` and `ledger` must outlive the history.
  MarketHistory(const MarketModel& model, const core::Clock& clock, const TradeLedger& ledger,
                RestingDepth depth = {});

  const MarketModel& model() const { return model_; }
  Timestamp now() const { return to_timestamp(clock_.now()); }

  // Board-lot (or futures and options) trades of a contract on a trading day, up to now.
  std::vector<TickRow> ticks(const Contract& contract, const Date& day, const TickSelection& selection) const;
  // One-minute bars of every trading day from `start` to `end`, both included.
  std::vector<MinuteBar> kbars(const Contract& contract, const Date& start, const Date& end) const;
  // The day's quote of every stock (funds too unless excluded) that traded on `day`, by code.
  std::vector<DailyQuote> daily_quotes(const Date& day, bool exclude_funds) const;
  // The latest state: the trading day now running, or the last one begun.
  ContractSnapshot snapshot(const Contract& contract) const;
  // Stocks that traded on `day`, ranked; ties in code order.
  std::vector<ScannerRow> scan(ScannerKind kind, bool ascending, const Date& day, std::size_t count) const;

  // Cached day states are dropped past this many.
  static constexpr std::size_t kMaxCachedDays = 50000;

 private:
  using DayKey = std::tuple<std::string, Market, std::int64_t>;

  // The day's state at `now` (cache lock held by the caller).
  const QuoteState& day_state(const Contract& contract, Market market, const Date& day, Timestamp now) const;
  Quantity volume_before(const Contract& contract, const Date& day, Timestamp now) const;
  ContractSnapshot snapshot_locked(const Contract& contract, Market market, const Date& day,
                                   Timestamp now) const;
  void add_resting(ContractSnapshot& snapshot, Board board) const;

  const MarketModel& model_;
  const core::Clock& clock_;
  const TradeLedger& ledger_;
  RestingDepth depth_;
  mutable std::mutex mutex_;
  mutable std::map<DayKey, ContractDay> days_;
};

}  // namespace quorvex::paper
