#include "sessions.hpp"

#include <sodium.h>

#include "quorvex/core/base58.hpp"

namespace quorvex::paper {

bool BusSession::receives_reports_of(const Account* account) const {
  const auto it = trade_reports_by_account.find(account);
  return it == trade_reports_by_account.end() ? trade_reports : it->second;
}

std::string random_token(std::size_t bytes) {
  core::Bytes raw(bytes);
  randombytes_buf(raw.data(), raw.size());
  return core::base58_encode(raw);
}

std::string SessionTable::issue(const Person* person, bool simulation) {
  std::string token = random_token(24);
  grants_[token] = Grant{person, simulation, false};
  return token;
}

void SessionTable::add_standing(const std::string& token, const Person* person) {
  grants_[token] = Grant{person, true, true};
}

const Grant* SessionTable::grant(const std::string& token) const {
  if (token.empty()) return nullptr;
  const auto it = grants_.find(token);
  return it == grants_.end() ? nullptr : &it->second;
}

BusSession& SessionTable::bind(const std::string& session_id, const std::string& token, const Grant& grant) {
  BusSession& session = sessions_[session_id];
  if (session.token != token || session.person != grant.person) {
    session = BusSession{};
    session.session_id = session_id;
    session.token = token;
    session.person = grant.person;
    session.simulation = grant.simulation;
  }
  return session;
}

void SessionTable::logout(const std::string& session_id, const std::string& token) {
  const auto it = grants_.find(token);
  if (it == grants_.end()) return;
  if (it->second.standing) {
    sessions_.erase(session_id);
    return;
  }
  grants_.erase(it);
  for (auto s = sessions_.begin(); s != sessions_.end();) {
    s = s->second.token == token ? sessions_.erase(s) : std::next(s);
  }
}

void SessionTable::forget(const std::string& session_id) { sessions_.erase(session_id); }

std::vector<std::string> SessionTable::report_sessions(const Account* account,
                                                       const std::string& placing_session) const {
  std::vector<std::string> ids;
  const auto placing = sessions_.find(placing_session);
  if (placing != sessions_.end() && placing->second.person == account->holder &&
      placing->second.receives_reports_of(account)) {
    ids.push_back(placing_session);
  }
  for (const auto& [id, session] : sessions_) {
    if (id != placing_session && session.person == account->holder && session.receives_reports_of(account)) {
      ids.push_back(id);
    }
  }
  return ids;
}

}  // namespace quorvex::paper
