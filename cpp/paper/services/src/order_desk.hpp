// The order desk: orders on their way to and from the market. It checks and signs off
// placements (the account desk holds what they need first), hands them to the matching engine,
// books the engine's events (fills go to the account desk), keeps what the broker knows of each
// order beyond the engine's record, works combination orders, and sends the order and deal
// reports to the sessions the auth desk names.
//
// Threading: not thread-safe, except the engine's event handler (any thread): the broker core
// decides one request at a time.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "account_desk.hpp"
#include "auth_desk.hpp"
#include "quorvex/paper/matching_engine.hpp"
#include "request.hpp"

namespace quorvex::paper {

// What the broker knows of an order beyond the engine's record: whose it is, who placed it,
// the order fields the engine does not keep, and its fills and cancels as reported so far.
struct OrderInfo {
  const Account* account = nullptr;
  const Contract* contract = nullptr;
  std::string placing_session;
  OrderTicket ticket;
  StockOrderCond cond = StockOrderCond::Cash;
  FuturesOCType octype = FuturesOCType::Auto;
  bool daytrade_short = false;
  std::string custom_field;
  Timestamp order_ts = 0;
  Quantity dealt = 0;
  Quantity cancelled = 0;
  Price modified_price;
  std::string msg;
  bool failed = false;  // the placement was refused
  std::vector<Deal> deals;
  std::optional<OrderId> combo;  // a leg of this combination order

  Quantity remaining() const { return ticket.quantity - dealt - cancelled; }
  Status status() const;
  OrderTerms terms() const { return {ticket.side, ticket.board, cond, octype}; }
};

// One leg of a combination order.
struct ComboLeg {
  const Contract* contract = nullptr;
  Side side = Side::Buy;  // as the leg trades when the combination is bought
};

struct ComboOrder {
  OrderId id = 0;
  const Account* account = nullptr;
  std::string placing_session;
  std::vector<ComboLeg> legs;
  Side side = Side::Buy;
  PriceType price_type = PriceType::Limit;
  OrderType order_type = OrderType::ROD;
  Price price;  // net: paid per combination when bought, received when sold
  Quantity quantity = 0;
  FuturesOCType octype = FuturesOCType::Auto;
  std::string custom_field;
  Status status = Status::Submitted;
  Timestamp order_ts = 0;
  Quantity dealt = 0;
  Quantity cancelled = 0;
  std::string msg;
  struct LegDeal {
    std::string code;
    Deal deal;
  };
  std::vector<LegDeal> deals;
  bool working() const { return status == Status::Submitted || status == Status::PartFilled; }
};

class OrderDesk {
 public:
  // Everything given must outlive the desk; the desk becomes the engine's event handler.
  // `market_clock` stamps orders; `broker_clock` judges order signatures.
  OrderDesk(MatchingEngine& engine, const ContractMaster& master, const AuthDesk& auth, AccountDesk& accounts,
            const core::Clock& market_clock, const core::Clock& broker_clock);
  ~OrderDesk();
  OrderDesk(const OrderDesk&) = delete;
  OrderDesk& operator=(const OrderDesk&) = delete;

  void serve(ServiceTable& table);

  // Books the engine's events so far (from requests or from whoever traded on the engine
  // outside one) and queues their reports on `request`.
  void settle_events(Request& request);
  void add_deal_listener(DealListener listener) { deal_listeners_.push_back(std::move(listener)); }

 private:
  core::Value place_order(Request& request);
  core::Value cancel_order(Request& request);
  core::Value update_price(Request& request);
  core::Value update_qty(Request& request);
  core::Value update_status(Request& request);
  core::Value place_comboorder(Request& request);
  core::Value cancel_comboorder(Request& request);
  core::Value update_combostatus(Request& request);

  OrderInfo& owned_order(const Request& request, OrderId id);
  // The order a cancel or change names: the person's own, signed where it must be.
  OrderId named_order(const Request& request);
  // The reply to an engine operation on an order, once its events are booked and reported.
  core::Value conclude(Request& request, OrderId id, const Result<OrderReceipt>& done);
  Outcome hold(OrderId id, const OrderInfo& info, Price at, Quantity quantity) {
    return accounts_.hold(id, *info.account, *info.contract, info.terms(), at, quantity);
  }
  void release(OrderId id, const OrderInfo& info) { accounts_.release(id, *info.account); }
  void check_order_signature(const Request& request, const Account& account, const wire::Field& order) const;
  // Answers the request with {"order": ..., "status": ...}; the response is left empty.
  core::Value order_reply(Request& request, OrderId id);
  void write_order(wire::Writer& w, OrderId id, const OrderInfo& info);
  void write_status(wire::Writer& w, OrderId id, const OrderInfo& info) const;
  // Encoded once: the contract dict and the account dict are in every order block and report.
  const std::string& contract_bytes(const Contract& contract);
  const std::string& account_bytes(const Account& account);
  void settle_event(Request& request, const OrderEvent& event);
  void report(Request& request, const Account& account, const std::string& placing_session, bool futures,
              bool deal, std::string payload);
  void work_combos(Request& request, const Account* only_account);
  void report_combo(Request& request, const ComboOrder& combo, const char* operation);
  core::Value combo_entry(const ComboOrder& combo) const;
  Timestamp market_now() const { return to_timestamp(market_clock_.now()); }

  MatchingEngine& engine_;
  const ContractMaster& master_;
  const AuthDesk& auth_;
  AccountDesk& accounts_;
  const core::Clock& market_clock_;
  const core::Clock& broker_clock_;
  // The engine's events land here (from whichever thread delivers them) until settled.
  std::mutex events_mutex_;
  std::vector<OrderEvent> pending_events_;
  std::unordered_map<OrderId, OrderInfo> orders_;
  std::map<OrderId, ComboOrder> combos_;
  std::unordered_map<const Contract*, std::string> contract_encodings_;
  std::unordered_map<const Account*, std::string> account_encodings_;
  std::vector<DealListener> deal_listeners_;
};

}  // namespace quorvex::paper
