// The trades the broker's own matching engine made for its clients, kept so that the quote
// feed publishes them as ticks and history and snapshots count them.
//
// Threading: every method may be called from any thread; one short internal lock, never held
// while calling out.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quorvex/paper/order.hpp"

namespace quorvex::paper {

struct OwnTrade {
  std::string code;
  Board board = Board::Common;
  DealId deal = 0;
  Timestamp ts = 0;
  Price price;
  Quantity quantity = 0;       // in the board's units: lots, shares or contracts
  Side aggressor = Side::Buy;  // the side that took the liquidity
};

class TradeLedger {
 public:
  // The trade of a client's fill; nullopt for every other event and for the market's own
  // liquidity.
  static std::optional<OwnTrade> from_event(const OrderEvent& event);

  // False when the deal is already recorded: a deal between two clients reports to both.
  bool record(OwnTrade trade);

  // Appends to `out` the trades of one contract and board recorded after the first `from`;
  // returns how many that book has recorded in all.
  std::size_t read(std::string_view code, Board board, std::size_t from, std::vector<OwnTrade>& out) const;

  // Changes with every recorded trade, so readers can skip a read when nothing is new.
  std::uint64_t version() const { return version_.load(std::memory_order_acquire); }

 private:
  static std::string key(std::string_view code, Board board);

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::vector<OwnTrade>> by_book_;
  std::atomic<std::uint64_t> version_{0};
};

}  // namespace quorvex::paper
