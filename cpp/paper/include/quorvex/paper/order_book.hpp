// A price-time priority order book for one contract on one board.
//
// Threading: not thread-safe; one owner (MatchingEngine) serialises every call. The book never
// calls out: each operation appends the events it causes to an EventQueue, in the order they
// happened, and the owner delivers them once the book is consistent again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/order.hpp"

namespace quorvex::paper {

// Events of book operations, waiting for delivery, and the deal numbers they use.
class EventQueue {
 public:
  std::vector<OrderEvent>& events() { return events_; }
  const std::vector<OrderEvent>& events() const { return events_; }
  OrderEvent& add() { return events_.emplace_back(); }
  // Queues the refusal of an operation on the order a ticket describes; returns the refusal.
  Refusal add_refusal(OrderOperation op, OrderId id, const OrderTicket& ticket, Refusal refusal,
                      Timestamp now);
  void clear() { events_.clear(); }
  DealId next_deal_id() { return ++last_deal_id_; }

 private:
  std::vector<OrderEvent> events_;
  DealId last_deal_id_ = 0;
};

// What a book accepts: fixed for the trading day.
struct BookRules {
  std::string code;
  Board board = Board::Common;
  TickLadder ladder = TickLadder::Stock;
  PriceLimits limits;
  Price reference;
  std::string quantity_unit = "board lots";  // how refusals name the board's units
  Quantity max_quantity = 499;               // per order, in the board's units
  Quantity max_market_quantity = 499;
  bool market_orders = true;             // MKT (and MKP where allowed)
  bool range_market_orders = false;      // MKP: derivatives only
  bool rod_only = false;                 // boards that take nothing but ROD
  std::int64_t market_range_ticks = 20;  // how far an MKP order may reach past the best price
};

// The rules of a contract's board, or a refusal when the contract does not trade there.
Result<BookRules> book_rules(const Contract& contract, Board board);

struct DepthLevel {
  Price price;
  Quantity quantity = 0;
  std::uint32_t orders = 0;
};

struct RestingOrder {
  OrderId id = 0;
  std::string account;
  Side side = Side::Buy;
  Price price;
  Quantity quantity = 0;  // as ordered
  Quantity remaining = 0;
  Timestamp ts = 0;  // time priority
  bool synthetic = false;
};

class OrderBook {
 public:
  explicit OrderBook(BookRules rules);

  const BookRules& rules() const { return rules_; }

  // Checks a ticket against the board's rules without touching the book.
  Outcome validate(const OrderTicket& ticket) const;

  // Places an order with a caller-chosen id unique in this book. A refusal is returned and
  // also queued as a Refused event.
  Outcome submit(OrderId id, const OrderTicket& ticket, Timestamp now, EventQueue& queue,
                 bool synthetic = false);
  Outcome cancel(OrderId id, Timestamp now, EventQueue& queue);
  // A new price loses time priority and may trade at once.
  Outcome change_price(OrderId id, Price price, Timestamp now, EventQueue& queue);
  // Takes `by` off the remaining quantity, keeping time priority; taking all of it cancels.
  Outcome reduce_quantity(OrderId id, Quantity by, Timestamp now, EventQueue& queue);

  std::optional<Price> best_bid() const;
  std::optional<Price> best_ask() const;
  std::vector<DepthLevel> depth(Side side, std::size_t count) const;
  std::optional<RestingOrder> resting(OrderId id) const;
  std::size_t resting_count() const { return index_.size(); }
  std::optional<Price> last_price() const { return last_price_; }
  Quantity volume() const { return volume_; }

 private:
  static constexpr std::uint32_t kNil = 0xFFFFFFFFu;

  struct Slot {
    OrderId id = 0;
    std::string account;
    Price price;
    Quantity quantity = 0;
    Quantity remaining = 0;
    Timestamp ts = 0;
    std::uint32_t prev = kNil;
    std::uint32_t next = kNil;
    std::int32_t level = -1;
    Side side = Side::Buy;
    bool synthetic = false;
  };
  struct Level {
    std::uint32_t head = kNil;
    std::uint32_t tail = kNil;
    Quantity quantity = 0;
    std::uint32_t orders = 0;
  };

  std::int32_t level_of(Price price) const;
  Price price_of(std::int32_t level) const;
  Outcome check_price(Price price) const;
  Outcome refuse_not_resting(OrderOperation op, OrderId id, Price price, Quantity quantity, Timestamp now,
                             EventQueue& queue) const;
  Outcome refuse_live(OrderOperation op, std::uint32_t slot, Refusal refusal, Timestamp now,
                      EventQueue& queue) const;
  OrderEvent& event_for(OrderEventKind kind, OrderOperation op, const Slot& slot, Timestamp now,
                        EventQueue& queue) const;

  Price marketable_price(Side side, PriceType type) const;
  Quantity available_against(Side side, Price limit, Quantity wanted) const;
  void match(std::uint32_t incoming, Price limit, Timestamp now, OrderOperation op, EventQueue& queue);
  void rest(std::uint32_t slot);
  void unlink(std::uint32_t slot);
  void release(std::uint32_t slot);
  std::uint32_t allocate();

  void mark(std::int32_t level, bool occupied);
  std::int32_t next_occupied_up(std::int32_t from) const;
  std::int32_t next_occupied_down(std::int32_t from) const;

  BookRules rules_;
  std::int64_t first_position_ = 0;  // ladder position of the lower limit = level 0
  std::vector<Price> level_prices_;
  std::vector<Level> levels_;
  std::vector<std::uint64_t> occupied_;
  std::int32_t best_bid_ = -1;
  std::int32_t best_ask_ = -1;
  std::vector<Slot> slots_;
  std::vector<std::uint32_t> free_;
  std::unordered_map<OrderId, std::uint32_t> index_;
  std::optional<Price> last_price_;
  Quantity volume_ = 0;
};

}  // namespace quorvex::paper
