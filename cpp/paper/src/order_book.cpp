#include "quorvex/paper/order_book.hpp"

#include <algorithm>
#include <utility>

namespace quorvex::paper {
namespace {

std::string quantity_text(Quantity q, const std::string& unit) { return std::to_string(q) + " " + unit; }

}  // namespace

Refusal EventQueue::add_refusal(OrderOperation op, OrderId id, const OrderTicket& t, Refusal refusal,
                                Timestamp now) {
  OrderEvent& e = add();
  e.kind = OrderEventKind::Refused;
  e.operation = op;
  e.order_id = id;
  e.account = t.account;
  e.code = t.code;
  e.board = t.board;
  e.side = t.side;
  e.price = t.price;
  e.quantity = t.quantity;
  e.ts = now;
  e.reason = refusal.code;
  e.text = refusal.text;
  return refusal;
}

Result<BookRules> book_rules(const Contract& contract, Board board) {
  if (!contract.tradable()) {
    return refuse(
        RefusalCode::UnknownContract,
        "contract " + contract.code + " is an index and does not trade; expected a stock, future or option");
  }
  BookRules rules;
  rules.code = contract.code;
  rules.board = board;
  rules.ladder = contract.ladder;
  rules.limits = contract.limits();
  rules.reference = contract.reference;
  if (contract.is_derivative()) {
    if (board != Board::Common) {
      return refuse(RefusalCode::OrderTypeNotAllowed,
                    "futures and options trade on the Common board only; got " + std::string(to_text(board)));
    }
    rules.quantity_unit = "contracts";
    rules.max_quantity = 100;
    rules.max_market_quantity = 10;
    rules.range_market_orders = true;
    return rules;
  }
  switch (board) {
    case Board::Common: break;
    case Board::Fixing:
      rules.market_orders = false;
      rules.rod_only = true;
      break;
    case Board::Odd:
    case Board::IntradayOdd:
      rules.quantity_unit = "shares";
      rules.max_quantity = rules.max_market_quantity = contract.unit - 1;
      rules.market_orders = false;
      rules.rod_only = board == Board::Odd;
      break;
  }
  return rules;
}

OrderBook::OrderBook(BookRules rules) : rules_(std::move(rules)) {
  first_position_ = ladder_position(rules_.ladder, rules_.limits.limit_down);
  const std::int64_t count = ladder_position(rules_.ladder, rules_.limits.limit_up) - first_position_ + 1;
  level_prices_.reserve(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i) {
    level_prices_.push_back(price_at_position(rules_.ladder, first_position_ + i));
  }
  levels_.resize(static_cast<std::size_t>(count));
  occupied_.assign(static_cast<std::size_t>((count + 63) / 64), 0);
}

std::int32_t OrderBook::level_of(Price price) const {
  return static_cast<std::int32_t>(ladder_position(rules_.ladder, price) - first_position_);
}

Price OrderBook::price_of(std::int32_t level) const { return level_prices_[static_cast<std::size_t>(level)]; }

Outcome OrderBook::check_price(Price price) const {
  if (!on_ladder(rules_.ladder, price)) {
    const Price tick = tick_size(rules_.ladder, price);
    return refuse(RefusalCode::PriceOffLadder,
                  "price " + price.to_string() + " is not on the tick ladder; expected a multiple of " +
                      tick.to_string() + " such as " +
                      round_down_to_ladder(rules_.ladder, price).to_string() + " or " +
                      round_up_to_ladder(rules_.ladder, price).to_string());
  }
  if (!rules_.limits.contains(price)) {
    return refuse(RefusalCode::PriceOutsideLimits,
                  "price " + price.to_string() + " is outside the day's limits; expected " +
                      rules_.limits.limit_down.to_string() + " to " + rules_.limits.limit_up.to_string());
  }
  return std::nullopt;
}

Outcome OrderBook::validate(const OrderTicket& t) const {
  const bool market = t.price_type != PriceType::Limit;
  const Quantity max = market ? rules_.max_market_quantity : rules_.max_quantity;
  if (t.quantity <= 0 || t.quantity > max) {
    return refuse(RefusalCode::InvalidQuantity,
                  "quantity " + std::to_string(t.quantity) + " is not allowed on the " +
                      std::string(to_text(rules_.board)) + " board; expected 1 to " +
                      quantity_text(max, rules_.quantity_unit));
  }
  if (market && !rules_.market_orders) {
    return refuse(RefusalCode::OrderTypeNotAllowed, "the " + std::string(to_text(rules_.board)) +
                                                        " board takes limit orders only; expected LMT, got " +
                                                        std::string(to_text(t.price_type)));
  }
  if (t.price_type == PriceType::MarketRange && !rules_.range_market_orders) {
    return refuse(RefusalCode::OrderTypeNotAllowed,
                  "MKP orders are taken for futures and options only; expected LMT or MKT");
  }
  if (t.price_type == PriceType::Market && t.order_type == OrderType::ROD) {
    return refuse(RefusalCode::OrderTypeNotAllowed, "a market order must be IOC or FOK; got ROD");
  }
  if (rules_.rod_only && t.order_type != OrderType::ROD) {
    return refuse(RefusalCode::OrderTypeNotAllowed, "the " + std::string(to_text(rules_.board)) +
                                                        " board takes ROD orders only; got " +
                                                        std::string(to_text(t.order_type)));
  }
  if (!market) return check_price(t.price);
  return std::nullopt;
}

Outcome OrderBook::refuse_not_resting(OrderOperation op, OrderId id, Price price, Quantity quantity,
                                      Timestamp now, EventQueue& queue) const {
  OrderTicket t;
  t.code = rules_.code;
  t.board = rules_.board;
  t.price = price;
  t.quantity = quantity;
  return queue.add_refusal(
      op, id, t,
      refuse(RefusalCode::UnknownOrder, "order " + std::to_string(id) + " is not resting in the " +
                                            rules_.code + " book; expected a working order"),
      now);
}

OrderEvent& OrderBook::event_for(OrderEventKind kind, OrderOperation op, const Slot& s, Timestamp now,
                                 EventQueue& queue) const {
  OrderEvent& e = queue.add();
  e.kind = kind;
  e.operation = op;
  e.order_id = s.id;
  e.account = s.account;
  e.code = rules_.code;
  e.board = rules_.board;
  e.side = s.side;
  e.price = s.price;
  e.remaining = s.remaining;
  e.synthetic = s.synthetic;
  e.ts = now;
  return e;
}

Outcome OrderBook::refuse_live(OrderOperation op, std::uint32_t slot, Refusal refusal, Timestamp now,
                               EventQueue& queue) const {
  OrderEvent& e = event_for(OrderEventKind::Refused, op, slots_[slot], now, queue);
  e.reason = refusal.code;
  e.text = refusal.text;
  return refusal;
}

Outcome OrderBook::submit(OrderId id, const OrderTicket& t, Timestamp now, EventQueue& queue,
                          bool synthetic) {
  if (Outcome refused = validate(t)) return queue.add_refusal(OrderOperation::Place, id, t, *refused, now);
  const auto [entry, added] = index_.try_emplace(id, kNil);
  if (!added) {
    return queue.add_refusal(
        OrderOperation::Place, id, t,
        refuse(RefusalCode::DuplicateOrder,
               "order id " + std::to_string(id) + " is already in the book; expected a new id"),
        now);
  }
  const std::uint32_t slot = allocate();
  entry->second = slot;
  Slot& s = slots_[slot];
  s.id = id;
  s.account = t.account;
  s.side = t.side;
  s.price = t.price_type == PriceType::Limit ? t.price : Price();
  s.quantity = s.remaining = t.quantity;
  s.ts = now;
  s.synthetic = synthetic;
  OrderEvent& accepted = event_for(OrderEventKind::Accepted, OrderOperation::Place, s, now, queue);
  accepted.quantity = t.quantity;

  const Price limit = t.price_type == PriceType::Limit ? t.price : marketable_price(t.side, t.price_type);
  if (t.order_type == OrderType::FOK) {
    const Quantity available = available_against(t.side, limit, t.quantity);
    if (available < t.quantity) {
      OrderEvent& e = event_for(OrderEventKind::Cancelled, OrderOperation::Place, s, now, queue);
      e.quantity = t.quantity;
      e.remaining = 0;
      e.text = "FOK order could not be filled in full: " + std::to_string(available) + " of " +
               quantity_text(t.quantity, rules_.quantity_unit) + " available";
      index_.erase(id);
      release(slot);
      return std::nullopt;
    }
  }
  match(slot, limit, now, OrderOperation::Place, queue);
  Slot& after = slots_[slot];
  if (after.remaining == 0) {
    index_.erase(id);
    release(slot);
  } else if (t.order_type == OrderType::ROD && t.price_type != PriceType::Market) {
    after.price = limit;
    rest(slot);
  } else {
    OrderEvent& e = event_for(OrderEventKind::Cancelled, OrderOperation::Place, after, now, queue);
    e.quantity = after.remaining;
    e.remaining = 0;
    e.text =
        std::string(t.price_type == PriceType::Limit ? to_text(t.order_type) : std::string_view("market")) +
        " order left " + quantity_text(after.remaining, rules_.quantity_unit) +
        " unfilled: no more orders at acceptable prices";
    index_.erase(id);
    release(slot);
  }
  return std::nullopt;
}

Outcome OrderBook::cancel(OrderId id, Timestamp now, EventQueue& queue) {
  const auto it = index_.find(id);
  if (it == index_.end()) return refuse_not_resting(OrderOperation::Cancel, id, Price(), 0, now, queue);
  const std::uint32_t slot = it->second;
  OrderEvent& e = event_for(OrderEventKind::Cancelled, OrderOperation::Cancel, slots_[slot], now, queue);
  e.quantity = slots_[slot].remaining;
  e.remaining = 0;
  e.text = "cancelled";
  unlink(slot);
  index_.erase(it);
  release(slot);
  return std::nullopt;
}

Outcome OrderBook::change_price(OrderId id, Price price, Timestamp now, EventQueue& queue) {
  const auto it = index_.find(id);
  if (it == index_.end()) return refuse_not_resting(OrderOperation::ChangePrice, id, price, 0, now, queue);
  const std::uint32_t slot = it->second;
  if (Outcome refused = check_price(price))
    return refuse_live(OrderOperation::ChangePrice, slot, *refused, now, queue);
  if (price == slots_[slot].price) {
    return refuse_live(
        OrderOperation::ChangePrice, slot,
        refuse(RefusalCode::PriceChangeNotAllowed,
               "the order's price is already " + price.to_string() + "; expected a different price"),
        now, queue);
  }
  unlink(slot);
  slots_[slot].price = price;
  slots_[slot].ts = now;
  event_for(OrderEventKind::PriceChanged, OrderOperation::ChangePrice, slots_[slot], now, queue);
  match(slot, price, now, OrderOperation::ChangePrice, queue);
  if (slots_[slot].remaining == 0) {
    index_.erase(id);
    release(slot);
  } else {
    rest(slot);
  }
  return std::nullopt;
}

Outcome OrderBook::reduce_quantity(OrderId id, Quantity by, Timestamp now, EventQueue& queue) {
  const auto it = index_.find(id);
  if (it == index_.end())
    return refuse_not_resting(OrderOperation::ReduceQuantity, id, Price(), by, now, queue);
  const std::uint32_t slot = it->second;
  Slot& s = slots_[slot];
  if (by <= 0) {
    return refuse_live(OrderOperation::ReduceQuantity, slot,
                       refuse(RefusalCode::InvalidQuantity,
                              "a reduction of " + std::to_string(by) + " is not allowed; expected 1 to " +
                                  quantity_text(s.remaining, rules_.quantity_unit)),
                       now, queue);
  }
  if (by > s.remaining) {
    return refuse_live(OrderOperation::ReduceQuantity, slot,
                       refuse(RefusalCode::ReductionExceedsRemaining,
                              "a reduction of " + std::to_string(by) + " exceeds the remaining " +
                                  quantity_text(s.remaining, rules_.quantity_unit)),
                       now, queue);
  }
  if (by == s.remaining) {
    OrderEvent& e = event_for(OrderEventKind::Cancelled, OrderOperation::ReduceQuantity, s, now, queue);
    e.quantity = by;
    e.remaining = 0;
    e.text = "quantity reduced to zero";
    unlink(slot);
    index_.erase(it);
    release(slot);
    return std::nullopt;
  }
  s.remaining -= by;
  levels_[static_cast<std::size_t>(s.level)].quantity -= by;
  event_for(OrderEventKind::QuantityReduced, OrderOperation::ReduceQuantity, s, now, queue).quantity = by;
  return std::nullopt;
}

Price OrderBook::marketable_price(Side side, PriceType type) const {
  if (type == PriceType::Market) return side == Side::Buy ? rules_.limits.limit_up : rules_.limits.limit_down;
  // A range market order reaches a fixed number of ticks past the best opposite price.
  const std::optional<Price> opposite = side == Side::Buy ? best_ask() : best_bid();
  const Price base = opposite ? *opposite : last_price_.value_or(rules_.reference);
  if (side == Side::Buy)
    return std::min(step_up(rules_.ladder, base, rules_.market_range_ticks), rules_.limits.limit_up);
  return std::max(step_down(rules_.ladder, base, rules_.market_range_ticks), rules_.limits.limit_down);
}

Quantity OrderBook::available_against(Side side, Price limit, Quantity wanted) const {
  Quantity available = 0;
  if (side == Side::Buy) {
    for (std::int32_t l = best_ask_; l >= 0 && price_of(l) <= limit && available < wanted;
         l = next_occupied_up(l + 1)) {
      available += levels_[static_cast<std::size_t>(l)].quantity;
    }
  } else {
    for (std::int32_t l = best_bid_; l >= 0 && price_of(l) >= limit && available < wanted;
         l = next_occupied_down(l - 1)) {
      available += levels_[static_cast<std::size_t>(l)].quantity;
    }
  }
  return available;
}

void OrderBook::match(std::uint32_t incoming, Price limit, Timestamp now, OrderOperation op,
                      EventQueue& queue) {
  const Side side = slots_[incoming].side;
  while (slots_[incoming].remaining > 0) {
    const std::int32_t level = side == Side::Buy ? best_ask_ : best_bid_;
    if (level < 0) break;
    const Price level_price = price_of(level);
    if (side == Side::Buy ? level_price > limit : level_price < limit) break;
    Level& l = levels_[static_cast<std::size_t>(level)];
    const std::uint32_t maker = l.head;
    Slot& in = slots_[incoming];
    Slot& rest_slot = slots_[maker];
    const Quantity q = std::min(in.remaining, rest_slot.remaining);
    const DealId deal = queue.next_deal_id();
    in.remaining -= q;
    rest_slot.remaining -= q;
    l.quantity -= q;
    volume_ += q;
    last_price_ = level_price;
    for (const auto& [slot, aggressor] : {std::pair{incoming, true}, std::pair{maker, false}}) {
      OrderEvent& e =
          event_for(OrderEventKind::Filled, aggressor ? op : OrderOperation::Place, slots_[slot], now, queue);
      e.quantity = q;
      e.deal_price = level_price;
      e.deal_id = deal;
      e.aggressor = aggressor;
    }
    if (slots_[maker].remaining == 0) {
      index_.erase(slots_[maker].id);
      unlink(maker);
      release(maker);
    }
  }
}

void OrderBook::rest(std::uint32_t slot) {
  Slot& s = slots_[slot];
  const std::int32_t level = level_of(s.price);
  Level& l = levels_[static_cast<std::size_t>(level)];
  s.level = level;
  s.prev = l.tail;
  s.next = kNil;
  if (l.tail != kNil) {
    slots_[l.tail].next = slot;
  } else {
    l.head = slot;
  }
  l.tail = slot;
  l.quantity += s.remaining;
  ++l.orders;
  mark(level, true);
  if (s.side == Side::Buy) {
    best_bid_ = std::max(best_bid_, level);
  } else if (best_ask_ < 0 || level < best_ask_) {
    best_ask_ = level;
  }
}

void OrderBook::unlink(std::uint32_t slot) {
  Slot& s = slots_[slot];
  if (s.level < 0) return;
  Level& l = levels_[static_cast<std::size_t>(s.level)];
  if (s.prev != kNil) {
    slots_[s.prev].next = s.next;
  } else {
    l.head = s.next;
  }
  if (s.next != kNil) {
    slots_[s.next].prev = s.prev;
  } else {
    l.tail = s.prev;
  }
  l.quantity -= s.remaining;
  --l.orders;
  if (l.orders == 0) {
    mark(s.level, false);
    // Below the best bid there are only bids, above the best ask only asks.
    if (s.level == best_bid_) best_bid_ = next_occupied_down(s.level - 1);
    if (s.level == best_ask_) best_ask_ = next_occupied_up(s.level + 1);
  }
  s.level = -1;
  s.prev = s.next = kNil;
}

std::uint32_t OrderBook::allocate() {
  if (!free_.empty()) {
    const std::uint32_t slot = free_.back();
    free_.pop_back();
    return slot;
  }
  slots_.emplace_back();
  return static_cast<std::uint32_t>(slots_.size() - 1);
}

void OrderBook::release(std::uint32_t slot) {
  Slot& s = slots_[slot];
  s.level = -1;
  s.prev = s.next = kNil;
  s.remaining = 0;
  free_.push_back(slot);
}

void OrderBook::mark(std::int32_t level, bool occupied) {
  const auto word = static_cast<std::size_t>(level) >> 6;
  const std::uint64_t bit = 1ULL << (level & 63);
  occupied_[word] = occupied ? occupied_[word] | bit : occupied_[word] & ~bit;
}

std::int32_t OrderBook::next_occupied_up(std::int32_t from) const {
  if (from < 0) from = 0;
  auto word = static_cast<std::size_t>(from) >> 6;
  if (word >= occupied_.size()) return -1;
  std::uint64_t bits = occupied_[word] & (~0ULL << (from & 63));
  while (true) {
    if (bits != 0) {
      const auto level =
          static_cast<std::int32_t>(word * 64 + static_cast<std::size_t>(__builtin_ctzll(bits)));
      return level < static_cast<std::int32_t>(levels_.size()) ? level : -1;
    }
    if (++word >= occupied_.size()) return -1;
    bits = occupied_[word];
  }
}

std::int32_t OrderBook::next_occupied_down(std::int32_t from) const {
  if (from < 0) return -1;
  auto word = static_cast<std::size_t>(from) >> 6;
  std::uint64_t bits = occupied_[word] & (~0ULL >> (63 - (from & 63)));
  while (true) {
    if (bits != 0)
      return static_cast<std::int32_t>(word * 64 + 63 - static_cast<std::size_t>(__builtin_clzll(bits)));
    if (word == 0) return -1;
    bits = occupied_[--word];
  }
}

std::optional<Price> OrderBook::best_bid() const {
  if (best_bid_ < 0) return std::nullopt;
  return price_of(best_bid_);
}

std::optional<Price> OrderBook::best_ask() const {
  if (best_ask_ < 0) return std::nullopt;
  return price_of(best_ask_);
}

std::vector<DepthLevel> OrderBook::depth(Side side, std::size_t count) const {
  std::vector<DepthLevel> out;
  std::int32_t level = side == Side::Buy ? best_bid_ : best_ask_;
  while (level >= 0 && out.size() < count) {
    const Level& l = levels_[static_cast<std::size_t>(level)];
    out.push_back({price_of(level), l.quantity, l.orders});
    level = side == Side::Buy ? next_occupied_down(level - 1) : next_occupied_up(level + 1);
  }
  return out;
}

std::optional<RestingOrder> OrderBook::resting(OrderId id) const {
  const auto it = index_.find(id);
  if (it == index_.end()) return std::nullopt;
  const Slot& s = slots_[it->second];
  return RestingOrder{s.id, s.account, s.side, s.price, s.quantity, s.remaining, s.ts, s.synthetic};
}

}  // namespace quorvex::paper
