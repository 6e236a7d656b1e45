// Orders: placing, cancelling and changing them on the matching engine with the account's
// funds or holdings held first, the order status list, combination orders, and the order and
// deal reports that follow every event of an order.
#include "order_desk.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "contract_desk.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::paper {

using core::Value;
using wire::Field;
using wire::field;

namespace {

// How far an order stamp's time may lie from the broker clock.
constexpr std::int64_t kStampToleranceSeconds = std::int64_t{24} * 3600;
// The custom field is echoed in every report of the order.
constexpr std::size_t kMaxCustomFieldBytes = 64;

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
  if (!value)
    wire::refuse(wire::kBadRequest, "field '" + f.path() + "' is '" + text + "'; expected " + expected);
  return *value;
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
    wire::refuse(wire::kNotFound,
                 "order " + text +
                     " is not an order of this broker; expected the id its placement "
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

// One fill as the deal report tells it; `detailed` adds the order lot and condition (stocks) or
// the contract's delivery and strike (derivatives).
std::string deal_report(OrderId id, const Account& account, Side side, const Contract& contract,
                        const OrderEvent& e, const std::string& custom_field, bool detailed,
                        std::string_view order_cond = "Cash") {
  const bool derivative = contract.is_derivative();
  wire::Writer w;
  w.map(12 + (detailed ? (derivative ? 4 : 2) : 0));
  w.key("id").text(id_text(id)).key("seqno").text(order_seqno(id)).key("ordno").text(order_ordno(id));
  w.key("exchange_seq").text(id_text(e.deal_id));
  w.key("broker_id").text(account.config.broker_id).key("account_id").text(account.config.account_id);
  w.key("action").text(to_text(side)).key("code").text(contract.code);
  w.key("price").number(wire::price_number(e.deal_price)).key("quantity").integer(e.quantity);
  w.key("ts").number(wire::epoch_seconds(e.ts)).key("custom_field").text(custom_field);
  if (detailed && derivative) {
    w.key("security_type")
        .text(to_text(contract.security_type))
        .key("delivery_month")
        .text(contract.delivery_month);
    w.key("strike_price").number(wire::price_number(contract.strike_price));
    w.key("option_right").text(to_text(contract.option_right));
  } else if (detailed) {
    w.key("order_lot").text(to_text(e.board)).key("order_cond").text(order_cond);
  }
  return w.take();
}

}  // namespace

Status OrderInfo::status() const {
  if (failed) return Status::Failed;
  if (remaining() <= 0) return dealt == ticket.quantity ? Status::Filled : Status::Cancelled;
  return dealt > 0 ? Status::PartFilled : Status::Submitted;
}

OrderDesk::OrderDesk(MatchingEngine& engine, const ContractMaster& master, const AuthDesk& auth,
                     AccountDesk& accounts, const core::Clock& market_clock, const core::Clock& broker_clock)
    : engine_(engine),
      master_(master),
      auth_(auth),
      accounts_(accounts),
      market_clock_(market_clock),
      broker_clock_(broker_clock) {
  engine_.set_event_handler([this](const OrderEvent& event) {
    std::lock_guard<std::mutex> lock(events_mutex_);
    pending_events_.push_back(event);
  });
}

OrderDesk::~OrderDesk() { engine_.set_event_handler({}); }

void OrderDesk::serve(ServiceTable& table) {
  using D = OrderDesk;
  table.serve_with_paper_twin("order", "place_order", bound(this, &D::place_order));
  table.serve_with_paper_twin("order", "cancel_order", bound(this, &D::cancel_order));
  table.serve_with_paper_twin("order", "update_price", bound(this, &D::update_price));
  table.serve_with_paper_twin("order", "update_qty", bound(this, &D::update_qty));
  table.serve_with_paper_twin("order", "update_status", bound(this, &D::update_status));
  table.serve("api/v1/order/place_comboorder", Access::LiveOnly, bound(this, &D::place_comboorder));
  table.serve("api/v1/order/cancel_comboorder", Access::LiveOnly, bound(this, &D::cancel_comboorder));
  table.serve("api/v1/order/update_combostatus", Access::LiveOnly, bound(this, &D::update_combostatus));
}

// ---- shared checks ----

OrderInfo& OrderDesk::owned_order(const Request& request, OrderId id) {
  const auto it = orders_.find(id);
  // Another person's order is answered as unknown, so order ids cannot be probed.
  if (it == orders_.end() || it->second.combo || it->second.account->holder != request.session->person) {
    wire::refuse(wire::kNotFound,
                 "no order " + id_text(id) + " in the accounts of person " + request.person().person_id +
                     "; expected the id its placement reply gave",
                 static_cast<int>(RefusalCode::UnknownOrder));
  }
  return it->second;
}

// Live sessions must sign the orders of a signed account with the holder's certificate; the
// simulation environment does not check certificates.
void OrderDesk::check_order_signature(const Request& request, const Account& account,
                                      const Field& order) const {
  if (request.simulation() || !account.config.signed_orders) return;
  const std::string where = "account " + account.config.broker_id + "-" + account.config.account_id;
  const std::string ca = order["ca"].text_or("", wire::kMaxSignatureBytes);
  if (ca.empty()) {
    wire::refuse(wire::kForbidden,
                 where +
                     " needs the holder's certificate signature in order.ca; expected an order "
                     "signed with an activated certificate",
                 wire::kSignatureRefused);
  }
  sign::VerifyOptions options;
  options.at = static_cast<std::time_t>(to_timestamp(broker_clock_.now()) / kNanosPerSecond);
  const sign::Verification v = sign::verify_order_signature(ca, account.holder->person_id, options);
  if (!v) {
    wire::refuse(wire::kForbidden,
                 "the order signature for " + where + " is not valid: " + v.error +
                     "; expected a signature by " + account.holder->person_id + "'s certificate",
                 wire::kSignatureRefused);
  }
  const std::int64_t skew =
      static_cast<std::int64_t>(v.stamp->signed_at) - static_cast<std::int64_t>(*options.at);
  if (skew > kStampToleranceSeconds || skew < -kStampToleranceSeconds) {
    wire::refuse(wire::kForbidden,
                 "the order signature for " + where +
                     " was made more than a day from the broker clock; expected a fresh signature",
                 wire::kSignatureRefused);
  }
}

// ---- reply and report blocks ----

const std::string& OrderDesk::contract_bytes(const Contract& contract) {
  auto it = contract_encodings_.find(&contract);
  if (it == contract_encodings_.end()) {
    it = contract_encodings_.emplace(&contract, core::encode(wire::contract_value(contract))).first;
  }
  return it->second;
}

const std::string& OrderDesk::account_bytes(const Account& account) {
  auto it = account_encodings_.find(&account);
  if (it == account_encodings_.end())
    it = account_encodings_.emplace(&account, core::encode(account.wire())).first;
  return it->second;
}

void OrderDesk::write_order(wire::Writer& w, OrderId id, const OrderInfo& info) {
  const bool stock = info.account->is_stock();
  w.map(14);
  w.key("id").text(id_text(id));
  w.key("seqno").text(order_seqno(id));
  w.key("ordno").text(order_ordno(id));
  w.key("account").raw(account_bytes(*info.account));
  w.key("action").text(to_text(info.ticket.side));
  w.key("price").number(wire::price_number(info.ticket.price));
  w.key("quantity").integer(info.ticket.quantity);
  w.key("price_type").text(to_text(info.ticket.price_type));
  w.key("order_type").text(to_text(info.ticket.order_type));
  w.key("order_lot").text(to_text(info.ticket.board));
  w.key("order_cond").text(stock ? to_text(info.cond) : to_text(StockOrderCond::Cash));
  w.key("octype").text(stock ? to_text(FuturesOCType::Auto) : to_text(info.octype));
  w.key("daytrade_short").flag(info.daytrade_short);
  w.key("custom_field").text(info.custom_field);
}

void OrderDesk::write_status(wire::Writer& w, OrderId id, const OrderInfo& info) const {
  w.map(11);
  w.key("id").text(id_text(id));
  w.key("status").text(to_text(info.status()));
  w.key("status_code").text("");
  w.key("web_id").text("");
  w.key("order_ts").number(wire::epoch_seconds(info.order_ts));
  w.key("order_quantity").integer(info.ticket.quantity);
  w.key("deal_quantity").integer(info.dealt);
  w.key("cancel_quantity").integer(info.cancelled);
  w.key("modified_price").number(wire::price_number(info.modified_price));
  w.key("msg").text(info.msg);
  w.key("deals").array(static_cast<std::uint32_t>(info.deals.size()));
  for (const Deal& d : info.deals) {
    w.map(4);
    w.key("seq").text(id_text(d.id));
    w.key("price").number(wire::price_number(d.price));
    w.key("quantity").integer(d.quantity);
    w.key("ts").number(wire::epoch_seconds(d.ts));
  }
}

Value OrderDesk::order_reply(Request& request, OrderId id) {
  const OrderInfo& info = orders_.at(id);
  wire::Writer w;
  w.map(2).key("order");
  write_order(w, id, info);
  w.key("status");
  write_status(w, id, info);
  request.encoded_reply = wire::ok_reply_bytes(w.bytes());
  return Value();
}

void OrderDesk::report(Request& request, const Account& account, const std::string& placing_session,
                       bool futures, bool deal, std::string payload) {
  const char* word = deal ? (futures ? "FDEAL" : "DEAL") : (futures ? "FORDER" : "ORDER");
  const std::vector<std::string> targets = auth_.report_sessions(account, placing_session);
  const std::string topic = "report/v1/" + account.key + "/" + word;
  if (targets.empty()) return;
  // Every session but the last gets a copy; the last one takes the payload itself.
  for (std::size_t i = 0; i + 1 < targets.size(); ++i)
    request.reports.push_back(Report{targets[i], topic, payload});
  request.reports.push_back(Report{targets.back(), topic, std::move(payload)});
}

// ---- events ----

void OrderDesk::settle_events(Request& request) {
  while (true) {
    std::vector<OrderEvent> events;
    {
      std::lock_guard<std::mutex> lock(events_mutex_);
      events.swap(pending_events_);
    }
    if (events.empty()) return;
    for (const OrderEvent& event : events) settle_event(request, event);
  }
}

void OrderDesk::settle_event(Request& request, const OrderEvent& e) {
  const auto found = orders_.find(e.order_id);
  if (found == orders_.end()) return;
  OrderInfo& info = found->second;
  const Account& account = *info.account;
  const Contract& contract = *info.contract;
  const bool futures = !account.is_stock();
  auto release_hold = [&] { release(e.order_id, info); };

  switch (e.kind) {
    case OrderEventKind::Accepted: break;
    case OrderEventKind::Filled: {
      info.dealt += e.quantity;
      info.deals.push_back(Deal{e.deal_id, e.deal_price, e.quantity, e.ts});
      const std::string refused = accounts_.book_fill(e.order_id, account, contract, info.terms(), e);
      // A fill the books cannot take would be the broker's own fault; the order says so.
      if (!refused.empty()) info.msg = "the books refused a fill: " + refused;
      const MarketDeal deal{&contract, info.ticket.side, e.deal_price, e.quantity, info.ticket.board,
                            e.ts,      e.deal_id,        e.aggressor};
      for (const DealListener& listener : deal_listeners_) listener(deal);
      if (e.remaining == 0) release_hold();
      break;
    }
    case OrderEventKind::Cancelled:
      info.cancelled += e.quantity;
      info.msg = e.text;
      release_hold();
      break;
    case OrderEventKind::Refused:
      info.msg = e.text;
      if (e.operation == OrderOperation::Place) {
        info.failed = true;
        release_hold();
      }
      break;
    case OrderEventKind::PriceChanged: info.modified_price = e.price; break;
    case OrderEventKind::QuantityReduced:
      info.cancelled += e.quantity;
      if (e.remaining == 0) release_hold();
      break;
  }

  if (info.combo) {
    // A leg's fills are the combination's deals; the leg itself is never reported.
    if (e.kind != OrderEventKind::Filled) return;
    ComboOrder& combo = combos_.at(*info.combo);
    combo.deals.push_back({contract.code, info.deals.back()});
    std::string deal =
        deal_report(combo.id, account, info.ticket.side, contract, e, combo.custom_field, false);
    report(request, account, combo.placing_session, true, true, std::move(deal));
    return;
  }

  if (e.kind == OrderEventKind::Filled) {
    std::string deal = deal_report(e.order_id, account, info.ticket.side, contract, e, info.custom_field,
                                   true, to_text(info.cond));
    report(request, account, info.placing_session, futures, true, std::move(deal));
    return;
  }
  const std::string op_code = e.kind == OrderEventKind::Refused && e.reason
                                  ? std::to_string(static_cast<int>(*e.reason))
                                  : std::string("00");
  wire::Writer w;
  w.map(4).key("operation").map(3);
  w.key("op_type").text(to_text(e.operation)).key("op_code").text(op_code).key("op_msg").text(e.text);
  w.key("order");
  write_order(w, e.order_id, info);
  w.key("status");
  write_status(w, e.order_id, info);
  w.key("contract").raw(contract_bytes(contract));
  std::string message = w.take();
  report(request, account, info.placing_session, futures, false, std::move(message));
}

// ---- single orders ----

Value OrderDesk::place_order(Request& request) {
  const Field order = field(request.payload, "order");
  order.map();
  const Account& account = auth_.owned_account(request, order["account"]);
  const Contract& contract = known_contract(master_, field(request.payload, "contract"));
  if (account.is_stock() != (contract.security_type == SecurityType::Stock)) {
    wire::refuse(wire::kBadRequest,
                 "contract " + contract.code + " (" + std::string(to_text(contract.security_type)) +
                     ") does not trade in account " + account.config.broker_id + "-" +
                     account.config.account_id + "; expected " +
                     (account.is_stock() ? "a stock" : "a future or an option") + " for this account");
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
    info.cond = parsed(order["order_cond"], stock_order_cond_from_text, "Cash",
                       "Cash, MarginTrading or ShortSelling");
    info.daytrade_short = order["daytrade_short"].flag_or(false);
  } else {
    info.octype = parsed(order["octype"], futures_octype_from_text, "Auto", "Auto, New, Cover or DayTrade");
  }
  info.custom_field = order["custom_field"].text_or("", kMaxCustomFieldBytes);
  if (t.quantity <= 0) {
    wire::refuse(wire::kBadRequest,
                 "field 'order.quantity' is " + std::to_string(t.quantity) + "; expected at least 1",
                 static_cast<int>(RefusalCode::InvalidQuantity));
  }

  // Funds or holdings are held under the order's id before it can trade.
  const OrderId id = engine_.issue_order_id();
  if (const Outcome held = hold(id, info, bounding_price(t, contract), t.quantity)) wire::refuse(*held);
  info.order_ts = market_now();
  orders_.emplace(id, std::move(info));
  const Result<OrderReceipt> placed = engine_.place(orders_.at(id).ticket, id);
  if (placed) orders_.at(id).order_ts = placed->order_ts;
  settle_events(request);
  if (!placed) {
    OrderInfo& failed = orders_.at(id);
    failed.failed = true;
    failed.msg = placed.refusal().text;
    wire::refuse(placed.refusal());
  }
  return order_reply(request, id);
}

OrderId OrderDesk::named_order(const Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  check_order_signature(request, *owned_order(request, id).account, order);
  return id;
}

Value OrderDesk::conclude(Request& request, OrderId id, const Result<OrderReceipt>& done) {
  settle_events(request);
  if (!done) wire::refuse(done.refusal());
  return order_reply(request, id);
}

Value OrderDesk::cancel_order(Request& request) {
  const OrderId id = named_order(request);
  return conclude(request, id, engine_.cancel(id));
}

Value OrderDesk::update_price(Request& request) {
  const OrderId id = named_order(request);
  const OrderInfo& info = orders_.at(id);
  const Price price = field(request.payload, "price").price();
  if (info.ticket.price_type != PriceType::Limit)
    return conclude(request, id, engine_.change_price(id, price));
  // The hold follows the new price: more funds for a dearer buy, refused when they are not there.
  auto hold_at = [&](Price at) -> Outcome {
    release(id, info);
    return info.remaining() > 0 ? hold(id, info, at, info.remaining()) : std::nullopt;
  };
  const Price before = info.modified_price.is_zero() ? info.ticket.price : info.modified_price;
  if (const Outcome held = hold_at(price)) {
    hold_at(before);
    wire::refuse(*held);
  }
  const Result<OrderReceipt> done = engine_.change_price(id, price);
  if (!done) hold_at(before);
  return conclude(request, id, done);
}

Value OrderDesk::update_qty(Request& request) {
  const OrderId id = named_order(request);
  const Quantity by = field(request.payload, "quantity").integer();
  if (by <= 0) {
    wire::refuse(wire::kBadRequest,
                 "field 'quantity' is " + std::to_string(by) +
                     "; expected how many units to take off the order, at least 1",
                 static_cast<int>(RefusalCode::InvalidQuantity));
  }
  return conclude(request, id, engine_.reduce_quantity(id, by));
}

Value OrderDesk::update_status(Request& request) {
  const Account& account = auth_.owned_account(request, field(request.payload, "account"));
  const std::string seqno = field(request.payload, "seqno").text_or("");
  settle_events(request);
  std::vector<OrderId> listed;
  for (const OrderRecord& record : engine_.orders_of(account.key)) {
    const auto it = orders_.find(record.id);
    if (it == orders_.end() || it->second.combo) continue;
    if (!seqno.empty() && seqno != order_seqno(record.id)) continue;
    listed.push_back(record.id);
  }
  wire::Writer w;
  w.array(static_cast<std::uint32_t>(listed.size()));
  for (OrderId id : listed) {
    const OrderInfo& info = orders_.at(id);
    w.map(3).key("contract").raw(contract_bytes(*info.contract)).key("order");
    write_order(w, id, info);
    w.key("status");
    write_status(w, id, info);
  }
  request.encoded_reply = wire::ok_reply_bytes(w.bytes());
  return Value();
}

// ---- combination orders ----

Value OrderDesk::combo_entry(const ComboOrder& combo) const {
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
void OrderDesk::work_combos(Request& request, const Account* only_account) {
  for (auto& entry : combos_) {
    const OrderId id = entry.first;
    ComboOrder& combo = entry.second;
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
      const Result<BookSnapshot> book = engine_.book(leg.contract->code, Board::Common, 10);
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
      marketable =
          combo.side == Side::Buy ? net_units <= combo.price.units() : -net_units >= combo.price.units();
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
      std::vector<std::pair<OrderId, OrderInfo>> legs;
      std::optional<Refusal> refused;
      for (const Plan& p : plan) {
        OrderInfo info;
        info.account = combo.account;
        info.contract = p.contract;
        info.placing_session = combo.placing_session;
        info.ticket = OrderTicket{combo.account->key, p.contract->code, Board::Common, p.side,
                                  PriceType::Limit,   OrderType::IOC,   p.worst,       wanted};
        info.octype = combo.octype;
        info.order_ts = market_now();
        info.combo = id;
        const OrderId leg_id = engine_.issue_order_id();
        if (Outcome held = hold(leg_id, info, p.worst, wanted)) {
          refused = std::move(*held);
          break;
        }
        legs.emplace_back(leg_id, std::move(info));
      }
      if (refused) {
        for (const auto& [leg_id, info] : legs) release(leg_id, info);
        finish(combo.dealt > 0 ? Status::Cancelled : Status::Failed, refused->text);
      } else {
        for (auto& [leg_id, info] : legs) {
          const OrderTicket& ticket = orders_.emplace(leg_id, std::move(info)).first->second.ticket;
          engine_.place(ticket, leg_id);
        }
        settle_events(request);
        Quantity filled = wanted;
        for (const auto& leg : legs) filled = std::min(filled, orders_.at(leg.first).dealt);
        combo.dealt += filled;
        if (combo.dealt == combo.quantity) {
          combo.status = Status::Filled;
        } else {
          finish(Status::Cancelled,
                 "the legs could not all be filled; the rest of the combination is cancelled");
        }
      }
    }
    if (combo.status != Status::Filled) report_combo(request, combo, "Cancel");
  }
}

void OrderDesk::report_combo(Request& request, const ComboOrder& combo, const char* operation) {
  Value message = combo_entry(combo);
  message.set("operation", Value::map({{"op_type", operation}, {"op_code", "00"}, {"op_msg", combo.msg}}));
  report(request, *combo.account, combo.placing_session, true, false, core::encode(message));
}

Value OrderDesk::place_comboorder(Request& request) {
  const Field order = field(request.payload, "order");
  order.map();
  const Account& account = auth_.owned_account(request, order["account"]);
  if (account.is_stock()) {
    wire::refuse(wire::kBadRequest, "combination orders trade futures and options; account " +
                                        account.config.broker_id + "-" + account.config.account_id +
                                        " is a stock account");
  }
  check_order_signature(request, account, order);
  const Field legs = field(request.payload, "combocontract")["legs"];
  if (legs.array().size() < 2 || legs.array().size() > 4) {
    wire::refuse(wire::kBadRequest,
                 "a combination has " + std::to_string(legs.array().size()) + " legs; expected 2 to 4");
  }
  ComboOrder combo;
  combo.account = &account;
  combo.placing_session = request.caller.session_id;
  for (std::size_t i = 0; i < legs.array().size(); ++i) {
    const Field leg(legs.array()[i], legs.path() + "[" + std::to_string(i) + "]");
    const Contract& contract = known_contract(master_, leg);
    if (!contract.is_derivative()) {
      wire::refuse(wire::kBadRequest, "leg " + contract.code +
                                          " is not a future or an option; combinations "
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
  combo.custom_field = order["custom_field"].text_or("", kMaxCustomFieldBytes);
  if (combo.quantity <= 0 || combo.quantity > 100) {
    wire::refuse(
        wire::kBadRequest,
        "field 'order.quantity' is " + std::to_string(combo.quantity) + "; expected 1 to 100 combinations",
        static_cast<int>(RefusalCode::InvalidQuantity));
  }
  combo.id = engine_.issue_order_id();
  combo.order_ts = market_now();
  const OrderId id = combo.id;
  report_combo(request, combos_.emplace(id, std::move(combo)).first->second, "New");
  work_combos(request, &account);
  const Value entry = combo_entry(combos_.at(id));
  if (combos_.at(id).status == Status::Failed) wire::refuse(wire::kBadRequest, combos_.at(id).msg);
  return Value::map({{"order", entry.get("order")}, {"status", entry.get("status")}});
}

Value OrderDesk::cancel_comboorder(Request& request) {
  const Field order = field(request.payload, "order");
  const OrderId id = order_id_of(order);
  const auto it = combos_.find(id);
  if (it == combos_.end() || it->second.account->holder != request.session->person) {
    wire::refuse(
        wire::kNotFound,
        "no combination order " + id_text(id) + " in the accounts of person " + request.person().person_id,
        static_cast<int>(RefusalCode::UnknownOrder));
  }
  ComboOrder& combo = it->second;
  check_order_signature(request, *combo.account, order);
  if (!combo.working()) {
    wire::refuse(wire::kBadRequest,
                 "combination order " + id_text(id) + " is " + std::string(to_text(combo.status)) +
                     "; nothing left to cancel",
                 static_cast<int>(RefusalCode::NothingToCancel));
  }
  combo.cancelled = combo.quantity - combo.dealt;
  combo.status = Status::Cancelled;
  combo.msg = "cancelled by the account holder";
  report_combo(request, combo, "Cancel");
  const Value entry = combo_entry(combo);
  return Value::map({{"order", entry.get("order")}, {"status", entry.get("status")}});
}

Value OrderDesk::update_combostatus(Request& request) {
  const Account& account = auth_.owned_account(request, field(request.payload, "account"));
  const std::string seqno = field(request.payload, "seqno").text_or("");
  work_combos(request, &account);
  Value entries = Value::array({});
  for (const auto& [id, combo] : combos_) {
    if (combo.account != &account || (!seqno.empty() && seqno != order_seqno(id))) continue;
    entries.push_back(combo_entry(combo));
  }
  return entries;
}

}  // namespace quorvex::paper
