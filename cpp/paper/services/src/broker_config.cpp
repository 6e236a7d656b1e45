#include "quorvex/paper/broker_config.hpp"

namespace quorvex::paper {

PaperBrokerConfig demo_config() {
  PaperBrokerConfig config;
  const Money stock_cash = 5'000'000 * kCentsPerDollar;
  const Money futures_balance = 2'000'000 * kCentsPerDollar;

  PersonConfig demo;
  demo.person_id = std::string(demo::kPersonId);
  demo.name = "Paper Demo";
  demo.password = std::string(demo::kPassword);
  demo.api_keys.push_back(api_key_from_secret(std::string(demo::kApiKey), demo::kApiSecret));
  demo.simulation_tokens.emplace_back(demo::kSimulationToken);
  demo.accounts.push_back({AccountKind::Stock, "9A95", "0000001", true, stock_cash});
  demo.accounts.push_back({AccountKind::Futures, "F002000", "1234567", true, futures_balance});
  config.persons.push_back(std::move(demo));

  PersonConfig second;
  second.person_id = std::string(demo::kSecondPersonId);
  second.name = "Paper Second";
  second.password = std::string(demo::kSecondPassword);
  second.api_keys.push_back(api_key_from_secret(std::string(demo::kSecondApiKey), demo::kSecondApiSecret));
  second.simulation_tokens.emplace_back(demo::kSecondSimulationToken);
  second.accounts.push_back({AccountKind::Stock, "9A95", "0000002", false, stock_cash});
  second.accounts.push_back({AccountKind::Futures, "F002000", "7654321", false, futures_balance});
  config.persons.push_back(std::move(second));
  return config;
}

}  // namespace quorvex::paper
