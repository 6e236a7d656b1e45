// The paper market's synthetic trades of one contract on one trading day: a seeded random walk
// on the contract's tick ladder, inside the day's price limits, that opens at the reference and
// ends at the day's closing price. The same plan always yields the same trades, so the live
// feed and every history query read one tape.
//
// Threading: a tape is a cursor with one owner; not safe to share between threads.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "quorvex/paper/feed/trading_schedule.hpp"
#include "quorvex/paper/market_rules.hpp"

namespace quorvex::paper {

class SeededRandom;

// The wire's tick_type: 0 an auction or unknown, 1 traded at the ask, 2 traded at the bid.
enum class TickSide : std::uint8_t { None = 0, Buy = 1, Sell = 2 };

// A contract's prices for one trading day.
struct DayPrices {
  Date day;
  Price reference;
  PriceLimits limits;
  Price close;  // where the day's tape ends: the price of its closing auction
};

struct TapeTrade {
  Timestamp ts = 0;
  Price price;
  Quantity volume = 0;  // board lots, shares on the odd-lot market, contracts; 0 for index values
  TickSide side = TickSide::None;
  bool night = false;
  // The best bid and ask right after the trade; zero for an empty side.
  Price bid;
  Price ask;
  // Seeds the volumes of the book's levels after this trade.
  std::uint64_t book_seed = 0;
};

struct TapePlan {
  Market market = Market::Stock;
  TickLadder ladder = TickLadder::Stock;
  DayPrices prices;
  std::vector<TradingSession> sessions;
  Timestamp mean_interval = kNanosPerSecond;  // between continuous trades in the regular session
  double step_sigma = 1.0;                    // ladder steps per trade, standard deviation of the walk
  double volume_mean = 1.0;                   // per continuous trade
  int trade_percent = 100;                    // periodic auctions: the chance that an auction trades
  std::uint64_t seed = 0;
};

class TickTape {
 public:
  static constexpr Timestamp kNever = std::numeric_limits<Timestamp>::max();

  // `price_source` (odd lots): the board-lot tape whose price each auction trades at.
  explicit TickTape(TapePlan plan, std::unique_ptr<TickTape> price_source = nullptr);
  TickTape(TickTape&&) noexcept;
  TickTape& operator=(TickTape&&) noexcept;
  ~TickTape();

  const TapePlan& plan() const { return plan_; }
  // When the next trade happens; kNever once the day is over.
  Timestamp next_ts() const { return next_ts_; }
  bool done() const { return next_ts_ == kNever; }
  // The trade at next_ts(); only while !done().
  TapeTrade next();
  // The last trade's price at or before `t`, advancing the tape; the reference before any trade.
  Price price_until(Timestamp t);

 private:
  double remaining_trades(Timestamp ts) const;
  std::int64_t walk_step(Timestamp ts, double sigma);
  void schedule_after(Timestamp ts, bool closing_auction);
  void schedule_session(std::size_t session);
  Timestamp next_periodic(const TradingSession& s, Timestamp from);
  Quantity continuous_volume();
  Price at(std::int64_t position) const { return price_at_position(plan_.ladder, position); }

  TapePlan plan_;
  std::unique_ptr<TickTape> source_;
  std::unique_ptr<SeededRandom> rng_;
  std::size_t session_ = 0;
  bool session_opened_ = false;
  Timestamp next_ts_ = kNever;
  // The walk moves the best bid; the best ask is one step above. low_ - 1 means no bids
  // (locked at the lower limit), high_ means no asks (locked at the upper limit).
  std::int64_t bid_ = 0;
  std::int64_t low_ = 0;
  std::int64_t high_ = 0;
  std::int64_t target_ = 0;
  Price last_price_;
  TickSide last_side_ = TickSide::Buy;
};

// Stable hashes for seeding: the same on every platform and standard library.
std::uint64_t mix_seed(std::uint64_t a, std::uint64_t b);
std::uint64_t text_seed(std::string_view text);

}  // namespace quorvex::paper
