// The inside of BrokerCore: its books and tables, the route of every topic, and the request
// context the services share. Each service family lives in its own file and registers its
// topics in State's constructor.
//
// Threading: everything here is guarded by State::mutex; services run with it held.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "directory.hpp"
#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_core.hpp"
#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/futures_account.hpp"
#include "quorvex/paper/matching_engine.hpp"
#include "quorvex/paper/reservation.hpp"
#include "quorvex/paper/stock_account.hpp"
#include "sessions.hpp"
#include "wire.hpp"

namespace quorvex::paper {

// Market time: the broker clock from a starting instant, sped up by a factor.
class ScaledClock final : public core::Clock {
 public:
  ScaledClock(std::shared_ptr<const core::Clock> base, double speed);
  time_point now() const override;

 private:
  std::shared_ptr<const core::Clock> base_;
  double speed_;
  time_point start_;
};

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

// A report for a session, queued after the reply of the request that caused it.
struct Report {
  std::string session_id;
  std::string topic;
  std::string payload;  // msgpack
};

// One request as the services see it.
struct Request {
  Request(const Caller& c, const std::string& t, const core::Value& p) : caller(c), topic(t), payload(p) {}

  const Caller& caller;
  const std::string& topic;
  const core::Value& payload;
  BusSession* session = nullptr;  // set for every service that needs a token
  bool paper_topic = false;       // api/v1/paper/...
  std::vector<Report> reports;
  // A service may answer with a reply it encoded (or cached) itself instead of a response.
  std::string encoded_reply;

  const Person& person() const { return *session->person; }
  bool simulation() const { return session->simulation; }
};

// Who may call a topic.
enum class Access : std::uint8_t {
  Open,            // no token (logins, error tracking)
  Session,         // a token of any session
  LiveOnly,        // refused to simulation sessions: the simulation environment lacks it
  SimulationOnly,  // the api/v1/paper/ topics
};

struct TraceEntry {
  Timestamp ts = 0;
  std::string person_id;
  std::string action;
  std::string func;
  std::string result;
  core::Value content;
};

struct BrokerCore::State {
  explicit State(PaperBrokerConfig config);

  using Service = std::function<core::Value(Request&)>;
  struct Route {
    Service service;
    Access access = Access::Session;
  };

  // Decides one request; returns the encoded reply. Reports are left in `request.reports`.
  std::string decide(Request& request);
  // A service that runs one of State's member functions.
  Service bound(core::Value (State::*method)(Request&));
  void check_access(Request& request, Access access);
  void serve(const std::string& topic, Access access, Service service);
  // Serves a service under api/v1/order/ (or portfolio/) and its simulation twin under api/v1/paper/.
  void serve_with_paper_twin(const std::string& category, const std::string& name, Service service);

  // The account a payload names, which must be one of the session person's accounts.
  const Account& owned_account(const Request& request, const wire::Field& account) const;
  const Contract& known_contract(const wire::Field& contract) const;
  Timestamp now() const { return to_timestamp(clock->now()); }
  Date today() const { return taipei_date(now()); }

  // ---- service families ----
  void serve_auth();
  void serve_contracts();
  void serve_orders();
  void serve_accounts();
  void serve_reservations();

  core::Value login(Request& request);
  core::Value token_login(Request& request);
  core::Value simulation_login(Request& request);
  core::Value logout(Request& request);
  core::Value subscribe_trade(Request& request);
  core::Value trace_log(Request& request);
  core::Value b64validation(Request& request);
  core::Value login_response(Request& request, const std::string& token, bool trade_reports);

  core::Value contract_page(Request& request);

  core::Value place_order(Request& request);
  core::Value cancel_order(Request& request);
  core::Value update_price(Request& request);
  core::Value update_qty(Request& request);
  core::Value update_status(Request& request);
  core::Value place_comboorder(Request& request);
  core::Value cancel_comboorder(Request& request);
  core::Value update_combostatus(Request& request);

  // Orders: the checks every order operation shares, and what their replies and reports say.
  OrderInfo& owned_order(const Request& request, OrderId id);
  // The order a cancel or change names: the person's own, signed where it must be.
  OrderId named_order(const Request& request);
  // The reply to an engine operation on an order, once its events are booked and reported.
  core::Value conclude(Request& request, OrderId id, const Result<OrderReceipt>& done);
  // Holds (and releases) the funds, holdings or margin `quantity` of an order needs at `at`.
  Outcome hold_for(OrderId id, const OrderInfo& info, Price at, Quantity quantity);
  void release_hold(OrderId id, const OrderInfo& info);
  void check_order_signature(const Request& request, const Account& account, const wire::Field& order) const;
  // Answers the request with {"order": ..., "status": ...}; the response is left empty.
  core::Value order_reply(Request& request, OrderId id);
  void write_order(wire::Writer& w, OrderId id, const OrderInfo& info);
  void write_status(wire::Writer& w, OrderId id, const OrderInfo& info) const;
  // Encoded once: the contract dict and the account dict are in every order block and report.
  const std::string& contract_bytes(const Contract& contract);
  const std::string& account_bytes(const Account& account);
  // Books fills and queues reports for the engine's events so far.
  void settle_events(Request& request);
  void settle_event(Request& request, const OrderEvent& event);
  void report(Request& request, const Account& account, const std::string& placing_session, bool futures,
              bool deal, std::string payload);
  void work_combos(Request& request, const Account* only_account);
  void report_combo(Request& request, const ComboOrder& combo, const char* operation);
  core::Value combo_entry(const ComboOrder& combo) const;
  std::optional<Price> mark_price(std::string_view code) const;
  MarkPrice marks() const;

  core::Value account_balance(Request& request);
  core::Value margin(Request& request);
  core::Value settlements(Request& request);
  core::Value settlement(Request& request);
  core::Value positions(Request& request);
  core::Value position_detail(Request& request);
  core::Value profit_loss(Request& request);
  core::Value profit_loss_detail(Request& request);
  core::Value profit_loss_summary(Request& request);
  // The payload's account, of the required kind when one is given.
  const Account& account_for(const Request& request, std::optional<AccountKind> kind) const;
  // {"account": the account dict, key: value}, the shape of every account reply.
  core::Value with_account(const Account& account, const char* key, core::Value value) const;

  core::Value reserve_stock(Request& request);
  core::Value reserve_earmarking(Request& request);
  core::Value stock_reserve_summary(Request& request);
  core::Value stock_reserve_detail(Request& request);
  core::Value earmarking_detail(Request& request);
  void check_request_signature(const Account& account, const wire::Field& ca, const Contract& contract,
                               Quantity shares) const;

  StockAccountBook& stock_book(const Account& account);
  FuturesAccountBook& futures_book(const Account& account);

  // ---- state ----
  std::mutex mutex;
  std::shared_ptr<const core::Clock> clock;
  ScaledClock market_clock;
  std::int64_t max_receive_window_ms;
  std::string ip_address;
  ContractMaster master;
  Directory directory;
  SessionTable sessions;
  std::unordered_map<std::string, Route> routes;

  // Signed login documents already used, with when they stop mattering (replay guard).
  std::unordered_map<std::string, Timestamp> used_login_signatures;
  std::deque<TraceEntry> trace_entries;
  // Encoded contract pages by security type, page and page size: the master never changes.
  std::unordered_map<std::string, std::string> contract_page_cache;

  MatchingEngine engine;
  // The engine's events land here (from whichever thread delivers them) until settled.
  std::mutex events_mutex;
  std::vector<OrderEvent> pending_events;
  std::unordered_map<OrderId, OrderInfo> orders;
  std::map<OrderId, ComboOrder> combos;
  std::unordered_map<const Account*, StockAccountBook> stock_books;
  std::unordered_map<const Account*, FuturesAccountBook> futures_books;
  std::unordered_map<const Contract*, std::string> contract_encodings;
  std::unordered_map<const Account*, std::string> account_encodings;
  ReservationDesk reservations;
  std::vector<DealListener> deal_listeners;
};

}  // namespace quorvex::paper
