// The paper market: one OrderBook per contract and board (odd lots on their own books),
// the broker's record of every order, and synthetic resting liquidity for demos.
//
// Threading: every method may be called from any thread. Operations are serialised by one
// internal lock. Events are never delivered while that lock is held: each operation queues
// its events, releases the lock, and then delivers. Delivery is in the order the events
// happened across all threads: while one thread is delivering, events queued by others are
// delivered by that same thread, after the ones before them. The event handler may call back
// into the engine; the events of such a call are delivered after the current batch. The
// handler should not throw: if it does, the remaining events are still delivered and the first
// exception is rethrown to the caller whose thread was delivering (its operation has taken effect).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "quorvex/core/clock.hpp"
#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/order.hpp"
#include "quorvex/paper/order_book.hpp"

namespace quorvex::paper {

// Synthetic resting orders around the last price (or the reference before any trade), placed
// when a book opens and replenished after every operation on it.
struct LiquidityProfile {
  bool enabled = true;
  int levels_per_side = 5;
  Quantity min_quantity = 1;  // board lots or contracts; odd-lot boards scale to shares
  Quantity max_quantity = 20;
  std::uint64_t seed = 1;
};

struct EngineConfig {
  LiquidityProfile liquidity;
  // Finished orders are kept for status queries and cancel races up to this many; the oldest
  // are forgotten first, and a later cancel of one is answered as an unknown order.
  std::size_t finished_order_retention = 1'000'000;
};

using OrderEventHandler = std::function<void(const OrderEvent&)>;

struct BookSnapshot {
  std::string code;
  Board board = Board::Common;
  std::vector<DepthLevel> bids;  // best first
  std::vector<DepthLevel> asks;  // best first
  std::optional<Price> last_price;
  Quantity volume = 0;
};

class MatchingEngine {
 public:
  // `contracts` and `clock` must outlive the engine.
  MatchingEngine(const ContractMaster& contracts, const core::Clock& clock, EngineConfig config = {},
                 OrderEventHandler handler = {});
  ~MatchingEngine();
  MatchingEngine(const MatchingEngine&) = delete;
  MatchingEngine& operator=(const MatchingEngine&) = delete;

  // Replaces the handler; batches already being delivered finish with the old one.
  void set_event_handler(OrderEventHandler handler);

  // An id for a coming placement, so that funds or holdings can be held under it first.
  OrderId issue_order_id();
  // Places under a new id, or under `id` from issue_order_id (each issued id places once).
  // A refused placement is still recorded (status Failed) and reported as a Refused event.
  Result<OrderReceipt> place(const OrderTicket& ticket, std::optional<OrderId> issued = std::nullopt);
  // A finished order answers NothingToCancel (sts_code 74006); an unknown id UnknownOrder.
  Result<OrderReceipt> cancel(OrderId id);
  Result<OrderReceipt> change_price(OrderId id, Price price);
  // Takes `by` off the remaining quantity; taking all of it cancels the order.
  Result<OrderReceipt> reduce_quantity(OrderId id, Quantity by);

  std::optional<OrderRecord> order(OrderId id) const;
  // Every retained order of an account, oldest first.
  std::vector<OrderRecord> orders_of(std::string_view account) const;
  // Empty book (no orders, no trades) when the contract has not traded on that board.
  Result<BookSnapshot> book(std::string_view code, Board board = Board::Common, std::size_t depth = 5) const;

 private:
  struct BookState;
  struct Entry {
    OrderRecord record;         // seqno and ordno are filled in the copies handed out
    BookState* book = nullptr;  // while the order works
  };

  Result<BookState*> open_book(const std::string& code, Board board);
  Result<OrderReceipt> modify(OrderId id, OrderOperation op, Price price, Quantity by);
  Outcome refuse_finished(OrderId id, OrderOperation op, const OrderRecord& record);
  static OrderRecord handed_out(const OrderRecord& record);
  void settle_events(BookState* book);
  void replenish(BookState& state);
  void apply(const OrderEvent& event);
  void prune_finished();
  OrderReceipt receipt(OrderId id) const;
  Result<OrderReceipt> conclude(std::unique_lock<std::mutex>& lock, BookState* book, OrderId id,
                                Outcome refused);
  void deliver();

  const ContractMaster& contracts_;
  Timestamp clock_now() const { return to_timestamp(clock_.now()); }

  const core::Clock& clock_;
  EngineConfig config_;

  mutable std::mutex mutex_;
  std::shared_ptr<const OrderEventHandler> handler_;
  std::unordered_map<std::string, std::unique_ptr<BookState>> books_;
  std::unordered_map<OrderId, Entry> records_;
  std::unordered_set<OrderId> issued_;
  std::unordered_map<std::string, std::vector<OrderId>> by_account_;
  std::vector<OrderId> finished_;  // retirement order
  std::size_t finished_head_ = 0;
  OrderId last_order_id_ = 0;
  OrderId last_synthetic_id_ = 0;
  EventQueue queue_;
  std::vector<OrderEvent> outbox_;
  std::vector<OrderEvent> spare_;  // the delivered batch, kept for its capacity
  bool delivering_ = false;
};

}  // namespace quorvex::paper
