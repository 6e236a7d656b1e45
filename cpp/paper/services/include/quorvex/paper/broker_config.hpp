// What a paper broker is made of: its persons with their credentials and accounts, the size
// of its reference data, its clocks and seeds. Value types; `demo_config()` gives the
// documented demo set that `paper://` brokers start with.
//
// Secrets (passwords, API secrets, simulation tokens) are held here only as long as the
// configuration lives; the broker keeps digests and public keys, never logs them, and no
// refusal text repeats them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/core/clock.hpp"
#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

// "S" stock accounts (stocks, ETFs, odd lots) and "F" futures and options accounts.
enum class AccountKind : std::uint8_t { Stock, Futures };
std::string_view to_text(AccountKind kind);  // "S", "F"

struct AccountConfig {
  AccountKind kind = AccountKind::Stock;
  std::string broker_id;   // futures brokers start with "F" ("F002000"); stock brokers do not ("9A95")
  std::string account_id;  // "0000001"
  // Orders and reservations of a signed account must carry the holder's certificate signature
  // (live sessions; the simulation environment does not check certificates).
  bool signed_orders = true;
  Money opening_cash = 0;  // stock: settled cash; futures: the day's opening balance
};

// An API key: the broker knows only its Ed25519 public key; the holder signs with the secret.
struct ApiKeyConfig {
  std::string key;
  std::array<std::uint8_t, 32> public_key{};
};

struct PersonConfig {
  std::string person_id;  // "A123456789"
  std::string name;       // shown as the accounts' username
  std::string password;   // the login sends its MD5 hex digest
  std::vector<ApiKeyConfig> api_keys;
  // Standing tokens accepted by simulation_login (and every service) without a login first;
  // logging out with one ends the session but not the token.
  std::vector<std::string> simulation_tokens;
  std::vector<AccountConfig> accounts;
};

struct PaperBrokerConfig {
  std::vector<PersonConfig> persons;
  // Reference data. Its trading day is the broker clock's Taipei date (the last business day
  // at weekends) unless `use_config_trading_day` is set.
  ContractMasterConfig contracts;
  bool use_config_trading_day = false;
  // Seeds the synthetic liquidity of the paper market; the same seed gives the same market.
  std::uint64_t seed = 20260105;
  bool synthetic_liquidity = true;
  // Market time runs this many times faster than the broker clock from the moment the broker
  // starts (order time stamps, the quote feed). Logins always judge time by the broker clock.
  double clock_speed = 1.0;
  // The broker clock; the system clock when null.
  std::shared_ptr<const core::Clock> clock;
  // The longest `receive_window` a signed API-key login may ask for.
  std::int64_t max_receive_window_ms = 60'000;
  // The address the login reply reports for in-process sessions.
  std::string ip_address = "127.0.0.1";
};

// An API key whose public key is derived from the Base58 text of its 32-byte Ed25519 seed
// (what a holder keeps as the secret). std::invalid_argument when the text is not that.
ApiKeyConfig api_key_from_secret(std::string key, std::string_view base58_seed);

// The demo persons, documented in the protocol description:
//   A123456789 "Paper Demo", password "paper-demo", API key "paper-demo-key" with secret
//     4rND1pSovf54ikDtoywcAgKyMZdhm4C24qxFKRyQoPxG, simulation token "paper-demo-token";
//     stock account 9A95-0000001 and futures account F002000-1234567, both signed.
//   B123456780 "Paper Second", password "paper-second", API key "paper-second-key" with
//     secret J1yx1xNDWZkjqSZBH54Sw1afD6G2usxuEAaLm2KJHzvu, simulation token
//     "paper-second-token"; stock 9A95-0000002 and futures F002000-7654321, not signed.
namespace demo {
inline constexpr std::string_view kPersonId = "A123456789";
inline constexpr std::string_view kPassword = "paper-demo";
inline constexpr std::string_view kApiKey = "paper-demo-key";
inline constexpr std::string_view kApiSecret = "4rND1pSovf54ikDtoywcAgKyMZdhm4C24qxFKRyQoPxG";
inline constexpr std::string_view kSimulationToken = "paper-demo-token";
inline constexpr std::string_view kSecondPersonId = "B123456780";
inline constexpr std::string_view kSecondPassword = "paper-second";
inline constexpr std::string_view kSecondApiKey = "paper-second-key";
inline constexpr std::string_view kSecondApiSecret = "J1yx1xNDWZkjqSZBH54Sw1afD6G2usxuEAaLm2KJHzvu";
inline constexpr std::string_view kSecondSimulationToken = "paper-second-token";
}  // namespace demo

PaperBrokerConfig demo_config();

}  // namespace quorvex::paper
