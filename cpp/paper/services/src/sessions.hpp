// Tokens the broker issued and the bus sessions that use them: who a request speaks for,
// whether its session is a simulation session, and which sessions receive whose trade reports.
//
// Threading: not thread-safe; the broker core serialises every call.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "directory.hpp"
#include "quorvex/paper/calendar.hpp"

namespace quorvex::paper {

struct Grant {
  const Person* person = nullptr;
  bool simulation = false;
  bool standing = false;  // a configured simulation token: outlives logouts
};

// One bus session speaking with a token.
struct BusSession {
  std::string session_id;
  std::string token;
  const Person* person = nullptr;
  bool simulation = false;
  bool trade_reports = true;  // the login's subscribe_trade, for accounts not set one by one
  std::unordered_map<const Account*, bool> trade_reports_by_account;

  bool receives_reports_of(const Account* account) const;
};

class SessionTable {
 public:
  // A fresh, unguessable token for the person.
  std::string issue(const Person* person, bool simulation);
  // The grant behind a token (issued or standing); null when unknown or revoked.
  const Grant* grant(const std::string& token) const;
  void add_standing(const std::string& token, const Person* person);

  // The bus session's record, (re)bound to the token; a login sets its report flag.
  BusSession& bind(const std::string& session_id, const std::string& token, const Grant& grant);
  // Ends an issued token and every session speaking with it; a standing token ends only the
  // calling session.
  void logout(const std::string& session_id, const std::string& token);
  void forget(const std::string& session_id);

  // Sessions that receive the trade reports of an account, the placing session first.
  std::vector<std::string> report_sessions(const Account* account, const std::string& placing_session) const;

 private:
  std::unordered_map<std::string, Grant> grants_;
  std::unordered_map<std::string, BusSession> sessions_;
};

// Random bytes as Base58 text, for tokens and ids that must not be guessed.
std::string random_token(std::size_t bytes);

}  // namespace quorvex::paper
