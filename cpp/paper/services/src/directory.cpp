#include "directory.hpp"

#include <openssl/evp.h>
#include <sodium.h>

#include <stdexcept>

#include "quorvex/core/base58.hpp"

namespace quorvex::paper {

std::string_view to_text(AccountKind kind) { return kind == AccountKind::Stock ? "S" : "F"; }

core::Value Account::wire() const {
  return core::Value::map({{"account_type", to_text(config.kind)},
                           {"person_id", holder->person_id},
                           {"broker_id", config.broker_id},
                           {"account_id", config.account_id},
                           {"signed", config.signed_orders},
                           {"username", holder->name}});
}

std::string md5_hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("MD5 digest failed in OpenSSL");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (unsigned int i = 0; i < size; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

ApiKeyConfig api_key_from_secret(std::string key, std::string_view base58_seed) {
  core::Bytes seed;
  try {
    seed = core::base58_decode(base58_seed);
  } catch (const core::Base58Error&) {
    throw std::invalid_argument("the secret of API key '" + key + "' is not Base58 text");
  }
  if (seed.size() != crypto_sign_SEEDBYTES) {
    throw std::invalid_argument("the secret of API key '" + key + "' decodes to " +
                                std::to_string(seed.size()) + " bytes; expected a 32-byte Ed25519 seed");
  }
  if (sodium_init() < 0) throw std::runtime_error("libsodium could not be initialised");
  ApiKeyConfig api_key;
  api_key.key = std::move(key);
  unsigned char secret[crypto_sign_SECRETKEYBYTES];
  crypto_sign_seed_keypair(api_key.public_key.data(), secret, seed.data());
  sodium_memzero(secret, sizeof secret);
  sodium_memzero(seed.data(), seed.size());
  return api_key;
}

Directory::Directory(const PaperBrokerConfig& config) {
  for (const PersonConfig& pc : config.persons) {
    if (pc.person_id.empty()) throw std::invalid_argument("a paper broker person needs a person_id");
    auto person = std::make_unique<Person>();
    person->person_id = pc.person_id;
    person->name = pc.name;
    person->password_md5 = md5_hex(pc.password);
    person->api_keys = pc.api_keys;
    person->standing_tokens = pc.simulation_tokens;
    if (!by_person_id_.emplace(pc.person_id, person.get()).second) {
      throw std::invalid_argument("person '" + pc.person_id + "' is configured twice");
    }
    for (const ApiKeyConfig& key : person->api_keys) {
      if (key.key.empty())
        throw std::invalid_argument("person '" + pc.person_id + "' has an API key without a name");
      if (!by_api_key_.emplace(key.key, std::make_pair(person.get(), &key)).second) {
        throw std::invalid_argument("API key '" + key.key + "' is configured twice");
      }
    }
    for (const std::string& token : person->standing_tokens) {
      // The token itself stays out of the text: it is a credential.
      if (token.empty() || !by_standing_token_.emplace(token, person.get()).second) {
        throw std::invalid_argument("person '" + pc.person_id +
                                    "' has an empty or duplicate simulation token");
      }
    }
    for (const AccountConfig& ac : pc.accounts) {
      if (ac.broker_id.empty() || ac.account_id.empty()) {
        throw std::invalid_argument("an account of person '" + pc.person_id +
                                    "' lacks its broker_id or account_id");
      }
      if ((ac.kind == AccountKind::Futures) != (ac.broker_id[0] == 'F')) {
        throw std::invalid_argument("account " + ac.broker_id + "-" + ac.account_id +
                                    ": futures broker ids start with 'F' and stock broker ids do not");
      }
      auto account = std::make_unique<Account>();
      account->config = ac;
      account->holder = person.get();
      account->key = ac.broker_id + ac.account_id;
      if (!by_account_key_.emplace(account->key, account.get()).second) {
        throw std::invalid_argument("account " + ac.broker_id + "-" + ac.account_id + " is configured twice");
      }
      person->accounts.push_back(account.get());
      accounts_.push_back(std::move(account));
    }
    persons_.push_back(std::move(person));
  }
}

const Person* Directory::person(std::string_view person_id) const {
  const auto it = by_person_id_.find(person_id);
  return it == by_person_id_.end() ? nullptr : it->second;
}

const Person* Directory::api_key_holder(std::string_view key, const ApiKeyConfig** api_key) const {
  const auto it = by_api_key_.find(key);
  if (it == by_api_key_.end()) return nullptr;
  *api_key = it->second.second;
  return it->second.first;
}

const Person* Directory::standing_token_holder(std::string_view token) const {
  const auto it = by_standing_token_.find(token);
  return it == by_standing_token_.end() ? nullptr : it->second;
}

const Account* Directory::account(std::string_view broker_id, std::string_view account_id) const {
  std::string key;
  key.reserve(broker_id.size() + account_id.size());
  key.append(broker_id).append(account_id);
  const auto it = by_account_key_.find(key);
  return it == by_account_key_.end() ? nullptr : it->second;
}

}  // namespace quorvex::paper
