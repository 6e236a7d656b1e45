// The running quote of one contract on one trading day: the day's prices and totals after each
// trade, and the best five bids and asks. ContractDay replays the day's tape merged with the
// broker's own trades, so the live feed, history and snapshots all read the same numbers.
//
// Threading: value types and single-owner cursors; not safe to share between threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "quorvex/paper/feed/market_model.hpp"
#include "quorvex/paper/feed/trade_ledger.hpp"
#include "quorvex/paper/order_book.hpp"

namespace quorvex::paper {

inline constexpr std::size_t kBookDepth = 5;

struct BookLevel {
  Price price;  // zero: no level
  Quantity volume = 0;
};

struct QuoteBook {
  std::array<BookLevel, kBookDepth> bids{};  // best first
  std::array<BookLevel, kBookDepth> asks{};  // best first

  Quantity bid_total() const;
  Quantity ask_total() const;
  friend bool operator==(const QuoteBook& a, const QuoteBook& b);
};

// Levels stepping down from `best_bid` and up from `best_ask` on the ladder, inside the limits,
// with volumes drawn from `seed` around `typical_volume`. A zero best price leaves its side empty.
QuoteBook shape_book(Price best_bid, Price best_ask, TickLadder ladder, const PriceLimits& limits,
                     double typical_volume, std::uint64_t seed);

// The market's book with resting orders added where they do not cross it: bids below the best
// ask and asks above the best bid join (or add to) the market's levels; the best five remain.
QuoteBook merge_resting(const QuoteBook& market, const std::vector<DepthLevel>& bids,
                        const std::vector<DepthLevel>& asks);

// The market's own book after a trade: its best prices and the seed of its level volumes.
// Shaping the levels costs more than applying the trade, so it happens only when they are read.
struct BookShape {
  Price best_bid;  // zero: no bids
  Price best_ask;  // zero: no asks
  std::uint64_t seed = 0;
  TickLadder ladder = TickLadder::Stock;
  PriceLimits limits;
  double typical_volume = 1;

  QuoteBook levels() const;
  BookLevel best_bid_level() const;
  BookLevel best_ask_level() const;
};

// Codes of the wire's chg_type.
enum class ChangeType : std::uint8_t { LimitUp = 1, Up = 2, Unchanged = 3, Down = 4, LimitDown = 5 };

struct QuoteState {
  Date day;
  Market market = Market::Stock;
  Price reference;
  PriceLimits limits;
  // Value of one unit of volume at a price of 1: shares per lot (stocks), 1 (odd lots),
  // the contract multiplier (futures and options), 0 (indices).
  std::int64_t value_per_unit = 1;

  Timestamp ts = 0;  // the last trade
  Price open, high, low, close;
  Quantity volume = 0;  // the last trade
  Quantity total_volume = 0;
  Money amount = 0;  // the last trade
  Money total_amount = 0;
  std::int64_t trades = 0;
  TickSide tick_type = TickSide::None;
  Quantity bid_side_total_vol = 0;  // traded at the bid
  Quantity ask_side_total_vol = 0;  // traded at the ask
  std::int64_t bid_side_total_cnt = 0;
  std::int64_t ask_side_total_cnt = 0;
  Quantity closing_oddlot_shares = 0;  // the broker's after-hours odd-lot trades
  Quantity fixed_trade_vol = 0;        // the broker's fixed-price after-hours trades
  bool night = false;
  BookShape book_shape;

  QuoteBook book() const { return book_shape.levels(); }

  bool traded() const { return trades > 0; }
  // The last price, or the reference before the first trade.
  Price last_price() const { return traded() ? close : reference; }
  ChangeType change_type() const;
  double price_change() const { return last_price().to_double() - reference.to_double(); }
  // Percent of the reference, rounded to two decimals.
  double percent_change() const;
  // Volume-weighted average price of the day; the last price before any volume.
  double average_price() const;
};

// One trade as ContractDay applied it.
struct AppliedTrade {
  TapeTrade trade;
  Money value = 0;
  bool own = false;   // made by the broker's matching engine
  bool board = true;  // a trade of the stream's own board; false for after-hours counters
};

class ContractDay {
 public:
  // `model` and `contract` must outlive the cursor.
  ContractDay(const MarketModel& model, const Contract& contract, Market market, const Date& day);

  const Contract& contract() const { return *contract_; }
  Market market() const { return market_; }
  const Date& day() const { return day_; }
  const QuoteState& state() const { return state_; }
  const TickTape& tape() const { return tape_; }

  // Takes the broker's trades of this day recorded since the last call.
  void sync(const TradeLedger& ledger);
  // When the next known trade happens; TickTape::kNever when none is left.
  Timestamp next_ts() const;
  // Applies the next trade due at or before `t`; nullopt when none is due.
  std::optional<AppliedTrade> step(Timestamp t);
  // Applies everything due at or before `t`.
  void advance_to(Timestamp t);

 private:
  struct BoardCursor {
    Board board;
    std::size_t read = 0;
  };
  AppliedTrade apply_own(const OwnTrade& own);
  void apply(const TapeTrade& trade, Money value);
  Money value_of(Price price, Quantity volume) const;
  void set_book(Price bid, Price ask, std::uint64_t seed);

  const MarketModel* model_;
  const Contract* contract_;
  Market market_;
  Date day_;
  TickTape tape_;
  QuoteState state_;
  std::vector<BoardCursor> boards_;
  std::vector<OwnTrade> pending_;  // the broker's trades not yet applied, in arrival order
};

}  // namespace quorvex::paper
