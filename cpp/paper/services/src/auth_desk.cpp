// Logins and sessions: password, signed API-key and simulation logins, logout, the trade-report
// switch, error tracking, the trace log and signature checks.
#include "auth_desk.hpp"

#include <sodium.h>

#include <cmath>

#include "quorvex/core/base58.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::paper {
namespace {

using core::Value;
using wire::Field;
using wire::field;

constexpr std::size_t kTraceLogCapacity = 10'000;
// A trace record is a few named fields; the log keeps thousands, so each is bounded.
constexpr std::size_t kMaxTraceRecordBytes = 4096;
// The signed login document is a short map, its signature 64 bytes: Base58 texts of at most these
// lengths. Checked before decoding, whose cost grows with the square of the length.
constexpr std::size_t kMaxLoginDocumentChars = 512;
constexpr std::size_t kMaxLoginSignatureChars = 96;

bool same_secret(const std::string& a, const std::string& b) {
  return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

core::Bytes base58_field(const Field& f, std::size_t max_chars) {
  const std::string text = f.text(max_chars);
  try {
    return core::base58_decode(text);
  } catch (const core::Base58Error&) {
    wire::refuse(wire::kBadRequest, "field '" + f.path() +
                                        "' is not Base58 text; expected the Base58 encoding of "
                                        "the signed login document and of its signature");
  }
}

}  // namespace

AuthDesk::AuthDesk(const PaperBrokerConfig& config, const core::Clock& clock)
    : clock_(clock),
      max_receive_window_ms_(config.max_receive_window_ms),
      ip_address_(config.ip_address),
      directory_(config) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium could not be initialised");
  for (const PersonConfig& person : config.persons) {
    for (const std::string& token : person.simulation_tokens) {
      sessions_.add_standing(token, directory_.person(person.person_id));
    }
  }
}

void AuthDesk::serve(ServiceTable& table) {
  table.serve("api/v1/auth/login", Access::Open, bound(this, &AuthDesk::login));
  table.serve("api/v1/auth/token_login", Access::Open, bound(this, &AuthDesk::token_login));
  table.serve("api/v1/auth/simulation_login", Access::Session, bound(this, &AuthDesk::simulation_login));
  table.serve("api/v1/auth/logout", Access::Session, bound(this, &AuthDesk::logout));
  table.serve("api/v1/auth/subscribe_trade", Access::Session, bound(this, &AuthDesk::subscribe_trade));
  table.serve("api/v1/auth/trace_log", Access::Session, bound(this, &AuthDesk::trace_log));
  table.serve("api/v1/auth/b64validation", Access::Session, bound(this, &AuthDesk::b64validation));
  // The paper broker tracks no client-side errors; the same answer for anyone, so it tells
  // nothing about which persons exist.
  table.serve("api/v1/auth/error_tracking", Access::Open, [](Request&) {
    return Value::map({{"error_tracking", false}});
  });
}

void AuthDesk::admit(Request& request, Access access) {
  if (access == Access::Open) return;
  if (request.caller.token.empty()) {
    wire::refuse(wire::kUnauthorized,
                 "no session token on the request; log in first and send the token it returns");
  }
  const Grant* grant = sessions_.grant(request.caller.token);
  if (grant == nullptr) {
    wire::refuse(
        wire::kUnauthorized,
        "the session token is not valid: unknown, revoked by a logout or issued by another broker; log in "
        "again");
  }
  request.session = &sessions_.bind(request.caller.session_id, request.caller.token, *grant);
  if (access == Access::LiveOnly && request.session->simulation) {
    wire::refuse(wire::kForbidden, request.topic +
                                       " is not offered to simulation sessions; log in without "
                                       "simulation to use it");
  }
  if (access == Access::SimulationOnly && !request.session->simulation) {
    wire::refuse(wire::kForbidden, request.topic +
                                       " serves simulation sessions only; live sessions use the "
                                       "api/v1/order/ and api/v1/portfolio/ topics");
  }
}

const Account& AuthDesk::owned_account(const Request& request, const Field& account) const {
  const std::string broker_id = account["broker_id"].text();
  const std::string account_id = account["account_id"].text();
  const Account* found = directory_.account(broker_id, account_id);
  // Unknown and foreign accounts get the same answer, so accounts cannot be probed.
  if (found == nullptr || found->holder != request.session->person) {
    wire::refuse(wire::kForbidden, "account " + broker_id + "-" + account_id +
                                       " is not an account of person " + request.person().person_id +
                                       "; expected one of the accounts the login listed");
  }
  return *found;
}

Value AuthDesk::login_response(Request& request, const std::string& token, bool trade_reports) {
  const Grant* grant = sessions_.grant(token);
  BusSession& session = sessions_.bind(request.caller.session_id, token, *grant);
  session.trade_reports = trade_reports;
  session.trade_reports_by_account.clear();
  request.session = &session;
  Value accounts = Value::array({});
  for (const Account* account : grant->person->accounts) accounts.push_back(account->wire());
  return Value::map({{"accounts", std::move(accounts)},
                     {"token", token},
                     {"person_id", grant->person->person_id},
                     {"contract_download", true},
                     {"client_name", "PYAPI/" + grant->person->person_id + "/" + request.caller.session_id},
                     {"ip_address", ip_address_},
                     {"simulation", session.simulation}});
}

Value AuthDesk::login(Request& request) {
  const Value& p = request.payload;
  const std::string person_id = field(p, "person_id").text();
  const std::string password = field(p, "password").text();
  const bool hashed = field(p, "hashed").flag_or(true);
  const bool simulation = field(p, "simulation").flag_or(false);
  const bool trade_reports = field(p, "subscribe_trade").flag_or(true);
  const Person* person = directory_.person(person_id);
  if (person == nullptr || !same_secret(hashed ? password : md5_hex(password), person->password_md5)) {
    wire::refuse(wire::kUnauthorized,
                 "login refused: unknown person id or wrong password; expected a registered "
                 "person id and the MD5 hex digest of the person's password");
  }
  const std::string token = sessions_.issue(person, simulation);
  Value response = login_response(request, token, trade_reports);
  response.set("web_token", random_token(24));
  return response;
}

Value AuthDesk::token_login(Request& request) {
  const Value& p = request.payload;
  const core::Bytes message = base58_field(field(p, "msg"), kMaxLoginDocumentChars);
  const core::Bytes signature = base58_field(field(p, "sign"), kMaxLoginSignatureChars);
  if (signature.size() != crypto_sign_BYTES) {
    wire::refuse(wire::kBadRequest, "field 'sign' decodes to " + std::to_string(signature.size()) +
                                        " bytes; expected a 64-byte Ed25519 signature");
  }
  Value document;
  try {
    document = core::decode(std::string_view(reinterpret_cast<const char*>(message.data()), message.size()));
  } catch (const std::exception&) {
    wire::refuse(wire::kBadRequest,
                 "field 'msg' does not decode to a msgpack document; expected the Base58 text "
                 "of the msgpack login document");
  }
  if (!document.is_map()) wire::refuse(wire::kBadRequest, "the login document is not a map; expected a map");
  const std::string key = Field(document, "msg")["key"].text();
  const ApiKeyConfig* api_key = nullptr;
  const Person* person = directory_.api_key_holder(key, &api_key);
  if (person == nullptr) {
    wire::refuse(wire::kUnauthorized,
                 "login refused: the API key is not known to this broker; expected a key "
                 "issued to a registered person");
  }
  if (crypto_sign_verify_detached(signature.data(), message.data(), message.size(),
                                  api_key->public_key.data()) != 0) {
    wire::refuse(wire::kUnauthorized,
                 "login refused: the signature does not verify with the API key's public key; "
                 "expected an Ed25519 signature of the msgpack document made with the key's "
                 "secret");
  }
  const Field doc(document, "msg");
  const std::int64_t window_ms = doc["receive_window"].integer();
  if (window_ms < 1 || window_ms > max_receive_window_ms_) {
    wire::refuse(wire::kBadRequest, "receive_window " + std::to_string(window_ms) +
                                        " is not accepted; expected 1 to " +
                                        std::to_string(max_receive_window_ms_) + " milliseconds");
  }
  const double ts = doc["ts"].number();
  const Timestamp now_ns = now();
  const double age_ms = static_cast<double>(now_ns) / 1e6 - ts * 1000.0;
  if (std::fabs(age_ms) > static_cast<double>(window_ms)) {
    wire::refuse(wire::kUnauthorized, "login refused: the document's ts is " +
                                          std::to_string(static_cast<std::int64_t>(std::llround(age_ms))) +
                                          " ms from the broker clock; expected within receive_window (" +
                                          std::to_string(window_ms) + " ms)");
  }
  // A signed document opens one session: a copy replayed inside its window is refused.
  for (auto it = used_login_signatures_.begin(); it != used_login_signatures_.end();) {
    it = it->second < now_ns ? used_login_signatures_.erase(it) : std::next(it);
  }
  const std::string signature_key(signature.begin(), signature.end());
  if (!used_login_signatures_.emplace(signature_key, now_ns + (2 * window_ms + 1) * 1'000'000).second) {
    wire::refuse(wire::kUnauthorized,
                 "login refused: this signed login document was used already; sign a new one "
                 "with a fresh ts");
  }
  const std::string token = sessions_.issue(person, doc["simulation"].flag_or(false));
  return login_response(request, token, doc["subscribe_trade"].flag_or(true));
}

Value AuthDesk::simulation_login(Request& request) {
  const bool trade_reports = field(request.payload, "subscribe_trade").flag_or(true);
  Value response = login_response(request, request.caller.token, trade_reports);
  request.session->simulation = true;
  response.set("simulation", true);
  response.as_map().erase("token");  // the caller already holds it
  return response;
}

Value AuthDesk::logout(Request& request) {
  sessions_.logout(request.caller.session_id, request.caller.token);
  request.session = nullptr;
  return Value::map({{"success", true}});
}

Value AuthDesk::subscribe_trade(Request& request) {
  const Account& account = owned_account(request, field(request.payload, "account"));
  const bool on = field(request.payload, "subscribe_trade").flag_or(true);
  request.session->trade_reports_by_account[&account] = on;
  return Value::map({{"account", account.wire()}, {"subscribe_trade", on}});
}

Value AuthDesk::trace_log(Request& request) {
  const Value& p = request.payload;
  const Field person_id = field(p, "person_id");
  if (person_id.present() && person_id.text_or("") != request.person().person_id) {
    wire::refuse(wire::kForbidden, "the trace record names another person; expected person_id " +
                                       request.person().person_id + " or none");
  }
  if (field(p, "account").present()) owned_account(request, field(p, "account"));
  if (request.payload_bytes > kMaxTraceRecordBytes) {
    wire::refuse(wire::kPayloadTooLarge,
                 "the trace record is " + std::to_string(request.payload_bytes) +
                     " bytes; expected at most " + std::to_string(kMaxTraceRecordBytes),
                 wire::kTooLarge);
  }
  TraceEntry entry;
  entry.ts = now();
  entry.person_id = request.person().person_id;
  entry.action = field(p, "action").text();
  entry.func = field(p, "func").text();
  entry.result = field(p, "result").text_or("S");
  if (entry.result != "S" && entry.result != "F") {
    wire::refuse(wire::kBadRequest, "field 'result' is '" + entry.result + "'; expected \"S\" or \"F\"");
  }
  const Field content = field(p, "func_content");
  if (content.present()) content.map();
  entry.content = content.value();
  if (trace_entries_.size() == kTraceLogCapacity) trace_entries_.pop_front();
  trace_entries_.push_back(std::move(entry));
  return Value::map({{"success", true}});
}

// Checks a Base64 certificate signature for the session's person: of `plain_text` when one is
// given (a text signature), else an order signature.
Value AuthDesk::b64validation(Request& request) {
  const Value& p = request.payload;
  const std::string signature = field(p, "signature").text(wire::kMaxSignatureBytes);
  const Field plain_text = field(p, "plain_text");
  const std::string& person_id = request.person().person_id;
  const sign::Verification v =
      plain_text.present() ? sign::verify_text_signature(plain_text.text_or("", wire::kMaxSignatureBytes),
                                                         signature, person_id)
                           : sign::verify_order_signature(signature, person_id);
  Value response = Value::map({{"valid", v.valid}, {"detail", v.error}, {"subject", v.signer_subject}});
  if (v.valid) response.set("signed_text", v.signed_text);
  return response;
}

}  // namespace quorvex::paper
