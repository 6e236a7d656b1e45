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
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "directory.hpp"
#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_core.hpp"
#include "quorvex/paper/contract_master.hpp"
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

// Nanoseconds since the epoch of a clock reading.
inline Timestamp nanos_of(core::Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

// A report for a session, queued after the reply of the request that caused it.
struct Report {
  std::string session_id;
  std::string topic;
  core::Value message;
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
  void check_access(Request& request, Access access);
  void serve(const std::string& topic, Access access, Service service);
  // Serves a service under api/v1/order/ (or portfolio/) and its simulation twin under api/v1/paper/.
  void serve_with_paper_twin(const std::string& category, const std::string& name, Service service);

  // The account a payload names, which must be one of the session person's accounts.
  const Account& owned_account(const Request& request, const wire::Field& account) const;
  const Contract& known_contract(const wire::Field& contract) const;
  Timestamp now() const { return nanos_of(clock->now()); }
  Date today() const { return taipei_date(now()); }

  // ---- service families ----
  void serve_auth();
  void serve_contracts();

  core::Value login(Request& request);
  core::Value token_login(Request& request);
  core::Value simulation_login(Request& request);
  core::Value logout(Request& request);
  core::Value subscribe_trade(Request& request);
  core::Value trace_log(Request& request);
  core::Value b64validation(Request& request);
  core::Value login_response(Request& request, const std::string& token, bool trade_reports);

  core::Value contract_page(Request& request);

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
};

}  // namespace quorvex::paper
