// The paper market's model of prices: for every contract and business day its reference,
// limits and closing price, and the plan of its synthetic trades. Everything follows from the
// contract master, the market seed, the contract's code and the date, so the same code and
// day always give the same trades.
//
// References chain from day to day: a day's reference is the previous business day's close.
// The contract master's trading day anchors the chain with the master's own references and
// limits; other days are reached by walking the chain forwards or backwards from it.
//
// Threading: immutable after construction; every const method may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/feed/tick_tape.hpp"

namespace quorvex::paper {

class MarketModel {
 public:
  // `contracts` must outlive the model.
  MarketModel(const ContractMaster& contracts, std::uint64_t seed);

  const ContractMaster& contracts() const { return contracts_; }
  std::uint64_t seed() const { return seed_; }

  // Reference, limits and close of a contract on a business day; nullopt on weekends.
  std::optional<DayPrices> day_prices(const Contract& contract, const Date& day) const;

  // The synthetic trades of a contract on a day: board lots (Stock), intraday odd lots
  // (IntradayOdd, stocks only), futures and options, or index values. On weekends the tape
  // is empty.
  TickTape tape(const Contract& contract, Market market, const Date& day) const;

  // The contract a derivative is priced on (an index or a stock); null for others.
  const Contract* underlying(const Contract& contract) const;

  // Mean time between continuous trades in the regular session.
  Timestamp mean_trade_interval(const Contract& contract) const;

 private:
  double daily_move(const Contract& contract, const Date& day) const;
  PriceLimits limits_on(const Contract& contract, Price reference, const Date& day) const;
  Price closing_price(const Contract& contract, Price reference, const PriceLimits& limits,
                      const Date& day) const;

  const ContractMaster& contracts_;
  std::uint64_t seed_;
  const Contract* weighted_index_;
};

}  // namespace quorvex::paper
