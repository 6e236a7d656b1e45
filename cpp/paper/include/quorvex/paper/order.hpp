// Orders, their lifecycle events and the receipts the engine hands back. Value types.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/price.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

using OrderId = std::uint64_t;
using DealId = std::uint64_t;

enum class Side : std::uint8_t { Buy, Sell };                        // "Buy", "Sell"
enum class PriceType : std::uint8_t { Limit, Market, MarketRange };  // "LMT", "MKT", "MKP"
enum class OrderType : std::uint8_t { ROD, IOC, FOK };               // "ROD", "IOC", "FOK"
// Stock boards; futures and options trade on the Common board only.
enum class Board : std::uint8_t { Common, Odd, IntradayOdd, Fixing };  // "Common", "Odd", ...
enum class Status : std::uint8_t { Submitted, PartFilled, Filled, Cancelled, Failed };
enum class OrderOperation : std::uint8_t { Place, Cancel, ChangePrice, ReduceQuantity };
enum class OrderEventKind : std::uint8_t {
  Accepted,
  Filled,
  Cancelled,
  Refused,
  PriceChanged,
  QuantityReduced
};

std::string_view to_text(Side side);
std::string_view to_text(PriceType type);
std::string_view to_text(OrderType type);
std::string_view to_text(Board board);
std::string_view to_text(Status status);
std::string_view to_text(OrderOperation operation);
std::string_view to_text(OrderEventKind kind);
std::optional<Side> side_from_text(std::string_view text);
std::optional<PriceType> price_type_from_text(std::string_view text);
std::optional<OrderType> order_type_from_text(std::string_view text);
std::optional<Board> board_from_text(std::string_view text);

// The six-digit sequence number and the five-character exchange order number of an order.
std::string order_seqno(OrderId id);
std::string order_ordno(OrderId id);

inline Side opposite(Side side) { return side == Side::Buy ? Side::Sell : Side::Buy; }

struct OrderTicket {
  std::string account;
  std::string code;
  Board board = Board::Common;
  Side side = Side::Buy;
  PriceType price_type = PriceType::Limit;
  OrderType order_type = OrderType::ROD;
  Price price;  // ignored for market orders
  // Board lots on the Common and Fixing boards, shares on the odd-lot boards, contracts
  // for futures and options.
  Quantity quantity = 0;
};

// One thing that happened to one order. Field use by kind:
//   Accepted         quantity = ordered, remaining = ordered
//   Filled           quantity = dealt now, deal_price, deal_id, remaining after the deal
//   Cancelled        quantity = taken off (IOC/FOK/market leftovers too), remaining = 0, text = why
//   Refused          operation refused, reason and text; remaining unchanged
//   PriceChanged     price = the new price, remaining
//   QuantityReduced  quantity = taken off, remaining after
struct OrderEvent {
  OrderEventKind kind = OrderEventKind::Accepted;
  OrderOperation operation = OrderOperation::Place;
  OrderId order_id = 0;
  std::string account;
  std::string code;
  Board board = Board::Common;
  Side side = Side::Buy;
  Price price;
  Quantity quantity = 0;
  Quantity remaining = 0;
  Price deal_price;
  DealId deal_id = 0;
  bool aggressor = false;  // Filled: this order took the liquidity
  // Resting liquidity of the paper market itself; never delivered to clients.
  bool synthetic = false;
  Timestamp ts = 0;
  std::optional<RefusalCode> reason;
  std::string text;
};

struct Deal {
  DealId id = 0;
  Price price;
  Quantity quantity = 0;
  Timestamp ts = 0;
};

// The broker's record of one order, as the order status service reports it.
struct OrderRecord {
  OrderId id = 0;
  std::string seqno;  // six digits
  std::string ordno;  // five characters, the exchange's order number
  OrderTicket ticket;
  Status status = Status::Submitted;
  Price modified_price;  // zero until the price is changed
  Quantity deal_quantity = 0;
  Quantity cancel_quantity = 0;  // cancelled, reduced or left over by IOC/FOK/market orders
  Timestamp order_ts = 0;
  Timestamp modified_ts = 0;
  std::vector<Deal> deals;
  std::string msg;  // the last refusal or cancel reason

  Quantity remaining() const { return ticket.quantity - deal_quantity - cancel_quantity; }
  bool finished() const {
    return status == Status::Filled || status == Status::Cancelled || status == Status::Failed;
  }
};

// What an order operation answers at once; the full record is MatchingEngine::order().
struct OrderReceipt {
  OrderId id = 0;
  Status status = Status::Submitted;
  Quantity deal_quantity = 0;
  Quantity cancel_quantity = 0;
  Quantity remaining = 0;
  Timestamp order_ts = 0;
};

}  // namespace quorvex::paper
