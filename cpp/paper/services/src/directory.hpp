// The broker's persons and accounts, built once from the configuration: who may log in with
// what, and which accounts are whose. Immutable after construction.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_config.hpp"

namespace quorvex::paper {

struct Person;

struct Account {
  AccountConfig config;
  const Person* holder = nullptr;
  std::string key;  // broker_id followed by account_id, as clients key their caches

  bool is_stock() const { return config.kind == AccountKind::Stock; }
  // The account dict of login replies and of every reply block that names an account.
  core::Value wire() const;
};

struct Person {
  std::string person_id;
  std::string name;
  std::string password_md5;  // lower-case hex
  std::vector<ApiKeyConfig> api_keys;
  std::vector<std::string> standing_tokens;
  std::vector<const Account*> accounts;  // in configuration order
};

class Directory {
 public:
  // std::invalid_argument for duplicate persons, accounts, API keys or tokens, or empty ids.
  explicit Directory(const PaperBrokerConfig& config);
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  const Person* person(std::string_view person_id) const;
  // The person holding an API key, and its public key; null when unknown.
  const Person* api_key_holder(std::string_view key, const ApiKeyConfig** api_key) const;
  const Person* standing_token_holder(std::string_view token) const;
  const Account* account(std::string_view broker_id, std::string_view account_id) const;
  const std::vector<std::unique_ptr<Account>>& accounts() const { return accounts_; }

 private:
  std::vector<std::unique_ptr<Person>> persons_;
  std::vector<std::unique_ptr<Account>> accounts_;
  std::map<std::string, const Person*, std::less<>> by_person_id_;
  std::map<std::string, std::pair<const Person*, const ApiKeyConfig*>, std::less<>> by_api_key_;
  std::map<std::string, const Person*, std::less<>> by_standing_token_;
  std::map<std::string, const Account*, std::less<>> by_account_key_;
};

// Lower-case hex MD5 of the text, as the login sends passwords.
std::string md5_hex(std::string_view text);

}  // namespace quorvex::paper
