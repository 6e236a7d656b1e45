#include "quorvex/paper/broker_config.hpp"

namespace quorvex::paper {

namespace {

PersonConfig demo_person(std::string_view person_id, std::string name, std::string_view password,
                         std::string_view api_key, std::string_view api_secret, std::string_view token,
                         std::string stock_account, std::string futures_account, bool signed_orders) {
  PersonConfig person;
  person.person_id = std::string(person_id);
  person.name = std::move(name);
  person.password = std::string(password);
  person.api_keys.push_back(api_key_from_secret(std::string(api_key), api_secret));
  person.simulation_tokens.emplace_back(token);
  person.accounts.push_back(
      {AccountKind::Stock, "9A95", std::move(stock_account), signed_orders, 5'000'000 * kCentsPerDollar});
  person.accounts.push_back({AccountKind::Futures, "F002000", std::move(futures_account), signed_orders,
                             2'000'000 * kCentsPerDollar});
  return person;
}

}  // namespace

PaperBrokerConfig demo_config() {
  PaperBrokerConfig config;
  config.persons.push_back(demo_person(demo::kPersonId, "Paper Demo", demo::kPassword, demo::kApiKey,
                                       demo::kApiSecret, demo::kSimulationToken, "0000001", "1234567", true));
  config.persons.push_back(demo_person(demo::kSecondPersonId, "Paper Second", demo::kSecondPassword,
                                       demo::kSecondApiKey, demo::kSecondApiSecret,
                                       demo::kSecondSimulationToken, "0000002", "7654321", false));
  return config;
}

}  // namespace quorvex::paper
