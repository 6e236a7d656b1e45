// The auth desk: who may speak to the broker. It holds the persons and their accounts, the
// tokens it issued and the bus sessions using them, the signed login documents already used,
// and the trace log; it answers the api/v1/auth/ topics and admits every other request.
//
// Threading: not thread-safe; the broker core decides one request at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "directory.hpp"
#include "quorvex/core/clock.hpp"
#include "request.hpp"
#include "sessions.hpp"
#include "wire.hpp"

namespace quorvex::paper {

class AuthDesk {
 public:
  // `clock` (the broker clock, by which logins judge time) must outlive the desk.
  AuthDesk(const PaperBrokerConfig& config, const core::Clock& clock);

  void serve(ServiceTable& table);

  // Checks the request's token against what the topic allows and binds the request's session;
  // refuses with 401 (no or unknown token) or 403 (the wrong kind of session).
  void admit(Request& request, Access access);

  // The account a payload names, which must be one of the session person's accounts (403).
  const Account& owned_account(const Request& request, const wire::Field& account) const;
  // Sessions that receive the trade reports of an account, the placing session first.
  std::vector<std::string> report_sessions(const Account& account, const std::string& placing_session) const {
    return sessions_.report_sessions(&account, placing_session);
  }
  // A bus session is gone: reports stop going to it.
  void session_closed(const std::string& session_id) { sessions_.forget(session_id); }

 private:
  struct TraceEntry {
    Timestamp ts = 0;
    std::string person_id;
    std::string action;
    std::string func;
    std::string result;
    core::Value content;
  };

  core::Value login(Request& request);
  core::Value token_login(Request& request);
  core::Value simulation_login(Request& request);
  core::Value logout(Request& request);
  core::Value subscribe_trade(Request& request);
  core::Value trace_log(Request& request);
  core::Value b64validation(Request& request);
  core::Value login_response(Request& request, const std::string& token, bool trade_reports);
  Timestamp now() const { return to_timestamp(clock_.now()); }

  const core::Clock& clock_;
  std::int64_t max_receive_window_ms_;
  std::string ip_address_;
  Directory directory_;
  SessionTable sessions_;
  // Signed login documents already used, with when they stop mattering (replay guard).
  std::unordered_map<std::string, Timestamp> used_login_signatures_;
  std::deque<TraceEntry> trace_entries_;
};

}  // namespace quorvex::paper
