// Orders: placing, cancelling and changing them on the matching engine with the account's
// funds or holdings held first, the order status list, combination orders, and the order and
// deal reports that follow every event of an order.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "broker_state.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::paper {

using core::Value;
using wire::Field;
using wire::field;

namespace {

// Order and reservation signatures that are missing or do not verify.
constexpr int kSignatureRefused = 74090;
// How far an order stamp's time may lie from the broker clock.
constexpr std::int64_t kStampToleranceSeconds = 24 * 3600;

std::string id_text(OrderId id) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%08" PRIx64, static_cast<std::uint64_t>(id));
  return buf;
}

template <typename Enum>
Enum parsed(const Field& f, std::optional<Enum> (*from_text)(std::string_view), std::string_view fallback,
            const char* expected) {
  const std::string text = f.text_or(fallback);
  const std::optional<Enum> value = from_text(text);
  if (!value) wire::refuse(wire::kBadRequest, "field '" + f.path() + "' is '" + text + "'; expected " + expected);
  return *value;
}

Value deal_list(const std::vector<Deal>& deals) {
  Value list = Value::array({});
  for (const Deal& d : deals) {
    list.push_back(Value::map({{"seq", id_text(d.id)},
                               {"price", wire::price_number(d.price)},
                               {"quantity", d.quantity},
                               {"ts", wire::epoch_seconds(d.ts)}}));
  }
  return list;
}

// Shares of a stock quantity: board lots on the Common and Fixing boards, shares on the odd-lot ones.
Quantity shares_of(Board board, Quantity quantity, const Contract& contract) {
  return board == Board::Common || board == Board::Fixing ? quantity * contract.unit : quantity;
}

OrderId order_id_of(const Field& order) {
  const std::string text = order["id"].text();
  OrderId id = 0;
  bool valid = text.size() <= 16;
  for (char c : text) {
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    valid = valid && digit >= 0;
    id = id * 16 + static_cast<OrderId>(digit < 0 ? 0 : digit);
  }
  if (!valid) {
    wire::refuse(wire::kNotFound, "order " + text + " is not an order of this broker; expected the id its placement "
                                                    "reply gave",
                 static_cast<int>(RefusalCode::UnknownOrder));
  }
  return id;
}

// The price that bounds a market order: what it could pay or get at worst today.
Price bounding_price(const OrderTicket& ticket, const Contract& contract) {
  if (ticket.price_type == PriceType::Limit) return ticket.price;
  return ticket.side == Side::Buy ? contract.limit_up : contract.limit_down;
}

}  // namespace

Status OrderInfo::status() const {
  if (failed) return Status::Failed;
  if (remaining() <= 0) return dealt == ticket.quantity ? Status::Filled : Status::Cancelled;
  return dealt > 0 ? Status::PartFilled : Status::Submitted;
}

void BrokerCore::State::serve_orders() {
  serve_with_paper_twin("order", "place_order", bound(&State::place_order));
  serve_with_paper_twin("order", "cancel_order", bound(&State::cancel_order));
  serve_with_paper_twin("order", "update_price", bound(&State::update_price));
  serve_with_paper_twin("order", "update_qty", bound(&State::update_qty));
  serve_with_paper_twin("order", "update_status", bound(&State::update_status));
  serve("api/v1/order/place_comboorder", Access::LiveOnly, bound(&State::place_comboorder));
  serve("api/v1/order/cancel_comboorder", Access::LiveOnly, bound(&State::cancel_comboorder));
  serve("api/v1/order/update_combostatus", Access::LiveOnly, bound(&State::update_combostatus));
}

// ---- the books behind the orders ----

StockAccountBook& BrokerCore::State::stock_book(const Account& account) {
  auto it = stock_books.find(&account);
  if (it == stock_books.end()) {
    it = stock_books.emplace(&account, StockAccountBook(account.key, account.config.opening_cash, today())).first;
  }
  return it->second;
}

FuturesAccountBook& BrokerCore::State::futures_book(const Account& account) {
  auto it = futures_books.find(&account);
  if (it == futures_books.end()) {
    it = futures_books.emplace(&account, FuturesAccountBook(account.key, account.config.opening_cash, today())).first;
  }
  return it->second;
}

std::optional<Price> BrokerCore::State::mark_price(std::string_view code) const {
  const Result<BookSnapshot> book = engine.book(code, Board::Common, 0);
  if (book && book->last_price) return book->last_price;
  const Contract* contract = master.find(code);
  if (contract == nullptr) return std::nullopt;
  return contract->reference;
}

MarkPrice BrokerCore::State::marks() const {
  return [this](std::string_view code) { return mark_price(code); };
}

// ---- shared checks ----

OrderInfo& BrokerCore::State::owned_order(const Request& request, OrderId id) {
  const auto it = orders.find(id);
  // Another person's order is answered as unknown, so order ids cannot be probed.
  if (it == orders.end() || it->second.combo || it->second.account->holder != request.session->person) {
    wire::refuse(wire::kNotFound, "no order " + id_text(id) + " in the accounts of person " +
                                      request.person().person_id + "; expected the id its placement reply gave",
                 static_cast<int>(RefusalCode::UnknownOrder));
  }
  return it->second;
}

// Live sessions must sign the orders of a signed account with the holder's certificate; the
// simulation environment does not check certificates.
void BrokerCore::State::check_order_signature(const Request& request, const Account& account,
                                              const Field& order) const {
  if (request.simulation() || !account.config.signed_orders) return;
  const std::string where = "account " + account.config.broker_id + "-" + account.config.account_id;
  const std::string ca = order["ca"].text_or("");
  if (ca.empty()) {
    wire::refuse(wire::kForbidden, where + " needs the holder's certificate signature in order.ca; expected an order "
                                           "signed with an activated certificate",
                 kSignatureRefused);
  }
  sign::VerifyOptions options;
  options.at = static_cast<std::time_t>(now() / kNanosPerSecond);
  const sign::Verification v = sign::verify_order_signature(ca, account.holder->person_id, options);
  if (!v) {
    wire::refuse(wire::kForbidden, "the order signature for " + where + " is not valid: " + v.error +
                                       "; expected a signature by " + account.holder->person_id + "'s certificate",
                 kSignatureRefused);
  }
  const std::int64_t skew = static_cast<std::int64_t>(v.stamp->signed_at) - static_cast<std::int64_t>(*options.at);
  if (skew > kStampToleranceSeconds || skew < -kStampToleranceSeconds) {
    wire::refuse(wire::kForbidden, "the order signature for " + where +
                                       " was made more than a day from the broker clock; expected a fresh signature",
                 kSignatureRefused);
  }
}

// ---- reply and report blocks ----

Value BrokerCore::State::order_block(OrderId id, const OrderInfo& info) const {
  const bool stock = info.account->is_stock();
  return Value::map({{"id", id_text(id)},
                     {"seqno", order_seqno(id)},
                     {"ordno", order_ordno(id)},
                     {"account", info.account->wire()},
                     {"action", to_text(info.ticket.side)},
                     {"price", wire::price_number(info.ticket.price)},
                     {"quantity", info.ticket.quantity},
                     {"price_type", to_text(info.ticket.price_type)},
                     {"order_type", to_text(info.ticket.order_type)},
                     {"order_lot", to_text(info.ticket.board)},
                     {"order_cond", stock ? to_text(info.cond) : to_text(StockOrderCond::Cash)},
                     {"octype", stock ? to_text(FuturesOCType::Auto) : to_text(info.octype)},
                     {"daytrade_short", info.daytrade_short},
                     {"custom_field", info.custom_field}});
}

Value BrokerCore::State::status_block(OrderId id, const OrderInfo& info) const {
  return Value::map({{"id", id_text(id)},
                     {"status", to_text(info.status())},
                     {"status_code", ""},
                     {"web_id", ""},
                     {"order_ts", wire::epoch_seconds(info.order_ts)},
                     {"order_quantity", info.ticket.quantity},
                     {"deal_quantity", info.dealt},
                     {"cancel_quantity", info.cancelled},
                     {"modified_price", wire::price_number(info.modified_price)},
                     {"msg", info.msg},
                     {"deals", deal_list(info.deals)}});
}

Value BrokerCore::State::order_reply(OrderId id) {
  const OrderInfo& info = orders.at(id);
  return Value::map({{"order", order_block(id, info)}, {"status", status_block(id, info)}});
}

void BrokerCore::State::report(Request& request, const Account& account, const std::string& placing_session,
                               bool futures, bool deal, Value message) {
  const char* word = deal ? (futures ? "FDEAL" : "DEAL") : (futures ? "FORDER" : "ORDER");
  const std::vector<std::string> targets = sessions.report_sessions(&account, placing_session);
  for (std::size_t i = 0; i < targets.size(); ++i) {
    const std::string topic = "report/v1/" + account.key + "/" + word;
    request.reports.push_back(Report{targets[i], topic, i + 1 == targets.size() ? std::move(message) : message});
  }
}

// ---- events ----

void BrokerCore::State::settle_events(Request& request) {
  while (true) {
    std::vector<OrderEvent> events;
    {
      std::lock_guard<std::mutex> lock(events_mutex);
      events.swap(pending_events);
    }
    if (events.empty()) return;
    for (const OrderEvent& event : events) settle_event(request, event);
  }
}

void BrokerCore::State::settle_event(Request& request, const OrderEvent& e) {
  const auto found = orders.find(e.order_id);
  if (found == orders.end()) return;
  OrderInfo& info = found->second;
  const Account& account = *info.account;
  const Contract& contract = *info.contract;
  const bool futures = !account.is_stock();
  auto release = [&] {
    if (futures) {
      futures_book(account).release_order(e.order_id);
    } else {
      stock_book(account).release_order(e.order_id);
    }
  };

  switch (e.kind) {
    case OrderEventKind::Accepted: break;
    case OrderEventKind::Filled: {
      info.dealt += e.quantity;
      info.deals.push_back(Deal{e.deal_id, e.deal_price, e.quantity, e.ts});
      std::string refused;
      if (futures) {
        const FuturesFill fill{e.order_id, order_seqno(e.order_id), e.deal_id, info.ticket.side, info.octype,
                               e.deal_price, e.quantity, e.ts};
        const auto booked = futures_book(account).apply_fill(contract, fill);
        if (!booked) refused = booked.refusal().text;
      } else {
        const Quantity shares = shares_of(info.ticket.board, e.quantity, contract);
        const StockFill fill{e.order_id, order_seqno(e.order_id), e.deal_id, contract.code, contract.is_etf(),
                             info.ticket.board, info.ticket.side, info.cond, e.deal_price, shares, e.ts};
        const auto booked = stock_book(account).apply_fill(fill);
        if (!booked) refused = booked.refusal().text;
        if (info.cond == StockOrderCond::ShortSelling && info.ticket.side == Side::Sell) {
          reservations.use(account.key, contract.code, shares);
        }
      }
      // A fill the books cannot take would be the broker's own fault; the order says so.
      if (!refused.empty()) info.msg = "the books refused a fill: " + refused;
      if (e.remaining == 0) release();
      break;
    }
    case OrderEventKind::Cancelled:
      info.cancelled += e.quantity;
      info.msg = e.text;
      release();
      break;
    case OrderEventKind::Refused:
      info.msg = e.text;
      if (e.operation == OrderOperation::Place) {
        info.failed = true;
        release();
      }
      break;
    case OrderEventKind::PriceChanged:
      info.modified_price = e.price;
      break;
    case OrderEventKind::QuantityReduced:
      info.cancelled += e.quantity;
      if (e.remaining == 0) release();
      break;
  }

  if (info.combo) {
    // A leg's fills are the combination's deals; the leg itself is never reported.
    if (e.kind != OrderEventKind::Filled) return;
    ComboOrder& combo = combos.at(*info.combo);
    combo.deals.push_back({contract.code, info.deals.back()});
    Value deal = Value::map({{"id", id_text(combo.id)},
                             {"seqno", order_seqno(combo.id)},
                             {"ordno", order_ordno(combo.id)},
                             {"exchange_seq", id_text(e.deal_id)},
                             {"broker_id", account.config.broker_id},
                             {"account_id", account.config.account_id},
                             {"action", to_text(info.ticket.side)},
                             {"code", contract.code},
                             {"price", wire::price_number(e.deal_price)},
                             {"quantity", e.quantity},
                             {"ts", wire::epoch_seconds(e.ts)},
                             {"custom_field", combo.custom_field}});
    report(request, account, combo.placing_session, true, true, std::move(deal));
    return;
  }

  if (e.kind == OrderEventKind::Filled) {
    Value deal = Value::map({{"id", id_text(e.order_id)},
                             {"seqno", order_seqno(e.order_id)},
                             {"ordno", order_ordno(e.order_id)},
                             {"exchange_seq", id_text(e.deal_id)},
                             {"broker_id", account.config.broker_id},
                             {"account_id", account.config.account_id},
                             {"action", to_text(info.ticket.side)},
                             {"code", contract.code},
                             {"price", wire::price_number(e.deal_price)},
                             {"quantity", e.quantity},
                             {"ts", wire::epoch_seconds(e.ts)},
                             {"custom_field", info.custom_field}});
    if (futures) {
      deal.set("security_type", to_text(contract.security_type));
      deal.set("delivery_month", contract.delivery_month);
      deal.set("strike_price", wire::price_number(contract.strike_price));
      deal.set("option_right", to_text(contract.option_right));
    } else {
      deal.set("order_lot", to_text(info.ticket.board));
      deal.set("order_cond", to_text(info.cond));
    }
    report(request, account, info.placing_session, futures, true, std::move(deal));
    return;
  }
  const std::string op_code = e.kind == OrderEventKind::Refused && e.reason
                                  ? std::to_string(static_cast<int>(*e.reason))
                                  : std::string("00");
  Value message = Value::map({{"operation", Value::map({{"op_type", to_text(e.operation)},
                                                        {"op_code", op_code},
                                                        {"op_msg", e.text}})},
                              {"order", order_block(e.order_id, info)},
                              {"status", status_block(e.order_id, info)},
                              {"contract", wire::contract_value(contract)}});
  report(request, account, info.placing_session, futures, false, std::move(message));
}

// ---- single orders ----

Value BrokerCore::State::place_order(Request& request) {
  const Field order = field(request.payload, "order");
  order.map();
  const Account& account = owned_account(request, order["account"]);
  const Contract& contract = known_contract(field(request.payload, "contract"));
  if (account.is_stock() != (contract.security_type == SecurityType::Stock)) {
    wire::refuse(wire::kBadRequest, "contract " + contract.code + " (" + std::string(to_text(contract.security_type)) +
                                        ") does not trade in account " + account.config.broker_id + "-" +
                                        account.config.account_id + "; expected " +
                                        (account.is_stock() ? "a stock" : "a future or an option") +
                                        " for this account");
  }
  check_order_signature(request, account, order);

  OrderInfo info;
  info.account = &account;
  info.contract = &contract;
  info.placing_session = request.caller.session_id;
  OrderTicket& t = info.ticket;
  t.account = account.key;
  t.code = contract.code;
  t.side = parsed(order["action"], side_from_text, "", "Buy or Sell");
  t.price_type = parsed(order["price_type"], price_type_from_text, "LMT", "LMT, MKT or MKP");
  t.order_type = parsed(order["order_type"], order_type_from_text, "ROD", "ROD, IOC or FOK");
  t.price = t.price_type == PriceType::Limit || order["price"].present() ? order["price"].price() : Price();
  t.quantity = order["quantity"].integer();
  t.board = parsed(order["order_lot"], board_from_text, "Common", "Common, Odd, IntradayOdd or Fixing");
  if (account.is_stock()) {
    info.cond = parsed(order["order_cond"], stock_order_cond_from_text, "Cash", "Cash, MarginTrading or ShortSelling");
    info.daytrade_short = order["daytrade_short"].flag_or(false);
  } else {
    info.octype = parsed(order["octype"], futures_octype_from_text, "Auto", "Auto, New, Cover or DayTrade");
  }
  info.custom_field = order["custom_field"].text_or("");
  if (t.quantity <= 0) {
    wire::refuse(wire::kBadRequest, "field 'order.quantity' is " + std::to_string(t.quantity) +
                                        "; expected at least 1",
                 static_cast<int>(RefusalCode::InvalidQuantity));
  }

  // Funds or holdings are held under the order's id before it can trade.
  const OrderId id = engine.issue_order_id();
  const Price bound = bounding_price(t, contract);
  const Outcome held = account.is_stock()
                           ? stock_book(account).reserve_for_order(id, contract, t.side, info.cond, bound,
                                                                   shares_of(t.board, t.quantity, contract))
                           : futures_book(account).reserve_for_order(id, contract, t.side, info.octype, bound,
                                                                     t.quantity, marks(), today());
  if (held) wire::refuse(*held);
  info.order_ts = nanos_of(market_clock.now());
  orders.emplace(id, std::move(info));
  const Result<OrderReceipt> placed = engine.place(orders.at(id).ticket, id);
  if (placed) orders.at(id).order_ts = placed->order_ts;
  settle_events(request);
  if (!placed) {
    OrderInfo& failed = orders.at(id);
    failed.failed = true;
    failed.msg = placed.refusal().text;
    wire::refuse(placed.refusal());
  }
  return order_reply(id);
}

Value BrokerCore::State::cancel_order(Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  OrderInfo& info = owned_order(request, id);
  check_order_signature(request, *info.account, order);
  const Result<OrderReceipt> done = engine.cancel(id);
  settle_events(request);
  if (!done) wire::refuse(done.refusal());
  return order_reply(id);
}

Value BrokerCore::State::update_price(Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  OrderInfo& info = owned_order(request, id);
  check_order_signature(request, *info.account, order);
  const Price price = field(request.payload, "price").price();
  const Account& account = *info.account;
  const Contract& contract = *info.contract;
  // The hold follows the new price: more funds for a dearer buy, refused when they are not there.
  auto hold_at = [&](Price at) -> Outcome {
    OrderTicket rest = info.ticket;
    rest.quantity = info.remaining();
    if (rest.quantity <= 0) return std::nullopt;
    if (account.is_stock()) {
      StockAccountBook& book = stock_book(account);
      book.release_order(id);
      return book.reserve_for_order(id, contract, rest.side, info.cond, at,
                                    shares_of(rest.board, rest.quantity, contract));
    }
    FuturesAccountBook& book = futures_book(account);
    book.release_order(id);
    return book.reserve_for_order(id, contract, rest.side, info.octype, at, rest.quantity, marks(), today());
  };
  const Price before = info.modified_price.is_zero() ? info.ticket.price : info.modified_price;
  if (info.ticket.price_type == PriceType::Limit) {
    if (const Outcome held = hold_at(price)) {
      hold_at(before);
      wire::refuse(*held);
    }
  }
  const Result<OrderReceipt> done = engine.change_price(id, price);
  if (!done && info.ticket.price_type == PriceType::Limit) hold_at(before);
  settle_events(request);
  if (!done) wire::refuse(done.refusal());
  return order_reply(id);
}

Value BrokerCore::State::update_qty(Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  OrderInfo& info = owned_order(request, id);
  check_order_signature(request, *info.account, order);
  const Quantity by = field(request.payload, "quantity").integer();
  if (by <= 0) {
    wire::refuse(wire::kBadRequest, "field 'quantity' is " + std::to_string(by) +
                                        "; expected how many units to take off the order, at least 1",
                 static_cast<int>(RefusalCode::InvalidQuantity));
  }
  const Result<OrderReceipt> done = engine.reduce_quantity(id, by);
  settle_events(request);
  if (!done) wire::refuse(done.refusal());
  return order_reply(id);
}

Value BrokerCore::State::update_status(Request& request) {
  const Account& account = owned_account(request, field(request.payload, "account"));
  const std::string seqno = field(request.payload, "seqno").text_or("");
  settle_events(request);
  Value entries = Value::array({});
  for (const OrderRecord& record : engine.orders_of(account.key)) {
    const auto it = orders.find(record.id);
    if (it == orders.end() || it->second.combo) continue;
    if (!seqno.empty() && seqno != order_seqno(record.id)) continue;
    entries.push_back(Value::map({{"contract", wire::contract_value(*it->second.contract)},
                                  {"order", order_block(record.id, it->second)},
                                  {"status", status_block(record.id, it->second)}}));
  }
  return entries;
}

// ---- combination orders ----

Value BrokerCore::State::combo_entry(const ComboOrder& combo) const {
  Value legs = Value::array({});
  for (const ComboLeg& leg : combo.legs) {
    Value contract = wire::contract_value(*leg.contract);
    contract.set("action", to_text(leg.side));
    legs.push_back(std::move(contract));
  }
  Value deals = Value::array({});
  for (const ComboOrder::LegDeal& d : combo.deals) {
    deals.push_back(Value::map({{"seq", id_text(d.deal.id)},
                                {"price", wire::price_number(d.deal.price)},
                                {"quantity", d.deal.quantity},
                                {"ts", wire::epoch_seconds(d.deal.ts)},
                                {"code", d.code}}));
  }
  const std::string id = id_text(combo.id);
  Value order = Value::map({{"id", id},
                            {"seqno", order_seqno(combo.id)},
                            {"ordno", order_ordno(combo.id)},
                            {"account", combo.account->wire()},
                            {"action", to_text(combo.side)},
                            {"price", wire::price_number(combo.price)},
                            {"quantity", combo.quantity},
                            {"price_type", to_text(combo.price_type)},
                            {"order_type", to_text(combo.order_type)},
                            {"order_lot", to_text(Board::Common)},
                            {"order_cond", to_text(StockOrderCond::Cash)},
                            {"octype", to_text(combo.octype)},
                            {"daytrade_short", false},
                            {"custom_field", combo.custom_field}});
  Value status = Value::map({{"id", id},
                             {"status", to_text(combo.status)},
                             {"status_code", ""},
                             {"web_id", ""},
                             {"order_ts", wire::epoch_seconds(combo.order_ts)},
                             {"order_quantity", combo.quantity},
                             {"deal_quantity", combo.dealt},
                             {"cancel_quantity", combo.cancelled},
                             {"modified_price", 0.0},
                             {"msg", combo.msg},
                             {"deals", std::move(deals)}});
  return Value::map({{"contract", Value::map({{"legs", std::move(legs)}})},
                     {"order", std::move(order)},
                     {"status", std::move(status)}});
}

// Trades each working combination whose legs can all be filled now within its net price: every
// leg goes to the market as an IOC order at the worst price needed, so the legs trade together.
void BrokerCore::State::work_combos(Request& request, const Account* only_account) {
  for (auto& [id, combo] : combos) {
    if (!combo.working() || (only_account != nullptr && combo.account != only_account)) continue;
    const Quantity wanted = combo.quantity - combo.dealt - combo.cancelled;
    struct Plan {
      const Contract* contract;
      Side side;
      Price worst;
    };
    std::vector<Plan> plan;
    bool marketable = true;
    std::int64_t net_units = 0;  // paid per combination (when bought), in price units
    for (const ComboLeg& leg : combo.legs) {
      const Side side = combo.side == Side::Buy ? leg.side : opposite(leg.side);
      const Result<BookSnapshot> book = engine.book(leg.contract->code, Board::Common, 10);
      if (!book) {
        marketable = false;
        break;
      }
      const std::vector<DepthLevel>& levels = side == Side::Buy ? book->asks : book->bids;
      Quantity covered = 0;
      Price worst;
      for (const DepthLevel& level : levels) {
        if (covered >= wanted) break;
        covered += level.quantity;
        worst = level.price;
      }
      if (covered < wanted) {
        marketable = false;
        break;
      }
      net_units += (side == Side::Buy ? 1 : -1) * worst.units();
      plan.push_back({leg.contract, side, worst});
    }
    if (marketable && combo.price_type == PriceType::Limit) {
      marketable = combo.side == Side::Buy ? net_units <= combo.price.units() : -net_units >= combo.price.units();
    }
    auto finish = [&](Status status, std::string why) {
      combo.cancelled = combo.quantity - combo.dealt;
      combo.status = status;
      combo.msg = std::move(why);
    };
    if (!marketable) {
      if (combo.order_type != OrderType::ROD) {
        finish(Status::Cancelled, "the legs cannot all trade within the net price now; an " +
                                      std::string(to_text(combo.order_type)) + " combination does not wait");
      } else {
        continue;
      }
    } else {
      FuturesAccountBook& book = futures_book(*combo.account);
      std::vector<OrderId> legs;
      std::optional<Refusal> refused;
      for (const Plan& p : plan) {
        const OrderId leg_id = engine.issue_order_id();
        if (Outcome held = book.reserve_for_order(leg_id, *p.contract, p.side, combo.octype, p.worst, wanted, marks(),
                                                  today())) {
          refused = std::move(*held);
          break;
        }
        legs.push_back(leg_id);
      }
      if (refused) {
        for (OrderId leg_id : legs) book.release_order(leg_id);
        finish(combo.dealt > 0 ? Status::Cancelled : Status::Failed, refused->text);
      } else {
        for (std::size_t i = 0; i < plan.size(); ++i) {
          OrderInfo info;
          info.account = combo.account;
          info.contract = plan[i].contract;
          info.placing_session = combo.placing_session;
          info.ticket = OrderTicket{combo.account->key, plan[i].contract->code, Board::Common, plan[i].side,
                                    PriceType::Limit, OrderType::IOC, plan[i].worst, wanted};
          info.octype = combo.octype;
          info.order_ts = nanos_of(market_clock.now());
          info.combo = id;
          orders.emplace(legs[i], std::move(info));
          engine.place(orders.at(legs[i]).ticket, legs[i]);
        }
        settle_events(request);
        Quantity filled = wanted;
        for (OrderId leg_id : legs) filled = std::min(filled, orders.at(leg_id).dealt);
        combo.dealt += filled;
        if (combo.dealt == combo.quantity) {
          combo.status = Status::Filled;
        } else {
          finish(Status::Cancelled, "the legs could not all be filled; the rest of the combination is cancelled");
        }
      }
    }
    if (combo.status != Status::Filled) report_combo(request, combo, "Cancel");
  }
}

void BrokerCore::State::report_combo(Request& request, const ComboOrder& combo, const char* operation) {
  Value message = combo_entry(combo);
  message.set("operation", Value::map({{"op_type", operation}, {"op_code", "00"}, {"op_msg", combo.msg}}));
  report(request, *combo.account, combo.placing_session, true, false, std::move(message));
}

Value BrokerCore::State::place_comboorder(Request& request) {
  const Field order = field(request.payload, "order");
  order.map();
  const Account& account = owned_account(request, order["account"]);
  if (account.is_stock()) {
    wire::refuse(wire::kBadRequest, "combination orders trade futures and options; account " +
                                        account.config.broker_id + "-" + account.config.account_id +
                                        " is a stock account");
  }
  check_order_signature(request, account, order);
  const Field legs = field(request.payload, "combocontract")["legs"];
  if (legs.array().size() < 2 || legs.array().size() > 4) {
    wire::refuse(wire::kBadRequest, "a combination has " + std::to_string(legs.array().size()) +
                                        " legs; expected 2 to 4");
  }
  ComboOrder combo;
  combo.account = &account;
  combo.placing_session = request.caller.session_id;
  for (std::size_t i = 0; i < legs.array().size(); ++i) {
    const Field leg(legs.array()[i], legs.path() + "[" + std::to_string(i) + "]");
    const Contract& contract = known_contract(leg);
    if (!contract.is_derivative()) {
      wire::refuse(wire::kBadRequest, "leg " + contract.code + " is not a future or an option; combinations "
                                                               "trade derivatives only");
    }
    combo.legs.push_back({&contract, parsed(leg["action"], side_from_text, "", "Buy or Sell")});
  }
  combo.side = parsed(order["action"], side_from_text, "", "Buy or Sell");
  combo.price_type = parsed(order["price_type"], price_type_from_text, "LMT", "LMT, MKT or MKP");
  combo.order_type = parsed(order["order_type"], order_type_from_text, "ROD", "ROD, IOC or FOK");
  combo.price = order["price"].present() ? order["price"].price() : Price();
  combo.quantity = order["quantity"].integer();
  combo.octype = parsed(order["octype"], futures_octype_from_text, "Auto", "Auto, New, Cover or DayTrade");
  combo.custom_field = order["custom_field"].text_or("");
  if (combo.quantity <= 0 || combo.quantity > 100) {
    wire::refuse(wire::kBadRequest, "field 'order.quantity' is " + std::to_string(combo.quantity) +
                                        "; expected 1 to 100 combinations",
                 static_cast<int>(RefusalCode::InvalidQuantity));
  }
  combo.id = engine.issue_order_id();
  combo.order_ts = nanos_of(market_clock.now());
  const OrderId id = combo.id;
  report_combo(request, combos.emplace(id, std::move(combo)).first->second, "New");
  work_combos(request, &account);
  const Value entry = combo_entry(combos.at(id));
  if (combos.at(id).status == Status::Failed) wire::refuse(wire::kBadRequest, combos.at(id).msg);
  return Value::map({{"order", entry.get("order")}, {"status", entry.get("status")}});
}

Value BrokerCore::State::cancel_comboorder(Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  const auto it = combos.find(id);
  if (it == combos.end() || it->second.account->holder != request.session->person) {
    wire::refuse(wire::kNotFound, "no combination order " + id_text(id) + " in the accounts of person " +
                                      request.person().person_id,
                 static_cast<int>(RefusalCode::UnknownOrder));
  }
  ComboOrder& combo = it->second;
  check_order_signature(request, *combo.account, order);
  if (!combo.working()) {
    wire::refuse(wire::kBadRequest, "combination order " + id_text(id) + " is " +
                                        std::string(to_text(combo.status)) + "; nothing left to cancel",
                 static_cast<int>(RefusalCode::NothingToCancel));
  }
  combo.cancelled = combo.quantity - combo.dealt;
  combo.status = Status::Cancelled;
  combo.msg = "cancelled by the account holder";
  report_combo(request, combo, "Cancel");
  const Value entry = combo_entry(combo);
  return Value::map({{"order", entry.get("order")}, {"status", entry.get("status")}});
}

Value BrokerCore::State::update_combostatus(Request& request) {
  const Account& account = owned_account(request, field(request.payload, "account"));
  const std::string seqno = field(request.payload, "seqno").text_or("");
  work_combos(request, &account);
  Value entries = Value::array({});
  for (const auto& [id, combo] : combos) {
    if (combo.account != &account || (!seqno.empty() && seqno != order_seqno(id))) continue;
    entries.push_back(combo_entry(combo));
  }
  return entries;
}

}  // namespace quorvex::paper
