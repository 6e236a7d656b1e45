#include "quorvex/paper/feed/market_model.hpp"

#include <algorithm>
#include <cmath>

#include "seeded_random.hpp"

namespace quorvex::paper {
namespace {

// Day-to-day and intraday volatility, as fractions of the price.
struct Volatility {
  double daily;
  double intraday;
};

Volatility volatility_of(const Contract& c) {
  switch (c.security_type) {
    case SecurityType::Index: return {0.010, 0.008};
    case SecurityType::Stock: return c.is_etf() ? Volatility{0.009, 0.007} : Volatility{0.018, 0.015};
    case SecurityType::Future:
      return c.underlying_kind == "S" ? Volatility{0.018, 0.015} : Volatility{0.010, 0.009};
    case SecurityType::Option: break;
  }
  return {0.20, 0.15};
}

constexpr double kMaxDailyMove = 0.09;  // inside the 10% limits even after rounding

bool is_demo_stock(const Contract& c) {
  return c.security_type == SecurityType::Stock &&
         std::find(std::begin(kDemoStockCodes), std::end(kDemoStockCodes), c.code) !=
             std::end(kDemoStockCodes);
}

Price smallest_price(TickLadder ladder) { return tick_size(ladder, Price::from_units(1)); }

Price on_ladder_within(TickLadder ladder, double value, const PriceLimits& limits) {
  Price p = round_down_to_ladder(ladder, Price::from_double(std::max(value, 0.0)));
  p = std::max(p, smallest_price(ladder));
  return std::clamp(p, limits.limit_down, limits.limit_up);
}

// Ladder steps between a price and the same price moved by `fraction`.
double steps_for(TickLadder ladder, Price price, double fraction) {
  const Price moved = Price::from_double(price.to_double() * (1 + fraction));
  return static_cast<double>(
      std::max<std::int64_t>(1, ladder_position(ladder, moved) - ladder_position(ladder, price)));
}

}  // namespace

MarketModel::MarketModel(const ContractMaster& contracts, std::uint64_t seed)
    : contracts_(contracts), seed_(seed), weighted_index_(contracts.find(kWeightedIndexCode)) {}

const Contract* MarketModel::underlying(const Contract& contract) const {
  if (!contract.is_derivative()) return nullptr;
  const Contract* found = contracts_.find(contract.underlying_code);
  return found != nullptr && found->code == contract.underlying_code ? found : nullptr;
}

double MarketModel::daily_move(const Contract& contract, const Date& day) const {
  SeededRandom rng(
      mix_seed(mix_seed(seed_, text_seed(contract.code)), static_cast<std::uint64_t>(day.serial())));
  double sum = 0;
  for (int i = 0; i < 4; ++i) sum += rng.unit();
  const double move = (sum - 2.0) * 1.7320508075688772 * volatility_of(contract).daily;
  const double cap = contract.security_type == SecurityType::Option ? 0.6 : kMaxDailyMove;
  return std::clamp(move, -cap, cap);
}

PriceLimits MarketModel::limits_on(const Contract& contract, Price reference, const Date& day) const {
  // The master's own limits on its day; indices carry none, so theirs are computed like a stock's.
  if (day == contracts_.trading_day() && reference == contract.reference && contract.limit_up.is_positive()) {
    return contract.limits();
  }
  if (contract.security_type == SecurityType::Option) {
    const Contract* index = underlying(contract);
    const std::optional<DayPrices> base = index != nullptr ? day_prices(*index, day) : std::nullopt;
    return option_price_limits(reference, base ? base->reference : reference);
  }
  return price_limits(contract.ladder, reference);
}

Price MarketModel::closing_price(const Contract& contract, Price reference, const PriceLimits& limits,
                                 const Date& day) const {
  return on_ladder_within(contract.ladder, reference.to_double() * (1 + daily_move(contract, day)), limits);
}

std::optional<DayPrices> MarketModel::day_prices(const Contract& contract, const Date& day) const {
  if (!day.is_business_day()) return std::nullopt;
  const Date anchor = contracts_.trading_day();
  Date d = anchor;
  while (!d.is_business_day()) d = d.plus_days(1);
  Price reference = contract.reference;
  // Forwards: each close is the next day's reference.
  while (d < day) {
    reference = closing_price(contract, reference, limits_on(contract, reference, d), d);
    d = d.plus_business_days(1);
  }
  // Backwards: the previous day closed at this day's reference, having moved by its daily move.
  std::optional<Price> next_reference;
  while (d > day) {
    const Date before = d.plus_business_days(-1);
    const double back = reference.to_double() / (1 + daily_move(contract, before));
    next_reference = reference;
    reference = std::max(round_down_to_ladder(contract.ladder, Price::from_double(back)),
                         smallest_price(contract.ladder));
    d = before;
  }
  DayPrices prices;
  prices.day = day;
  prices.reference = reference;
  prices.limits = limits_on(contract, reference, day);
  prices.close = next_reference
                     ? std::clamp(*next_reference, prices.limits.limit_down, prices.limits.limit_up)
                     : closing_price(contract, reference, prices.limits, day);
  return prices;
}

Timestamp MarketModel::mean_trade_interval(const Contract& c) const {
  const std::uint64_t h = mix_seed(seed_, text_seed(c.code));
  const double u = static_cast<double>(h >> 11) * (1.0 / 9007199254740992.0);
  double seconds = 0;
  switch (c.security_type) {
    case SecurityType::Index: seconds = 5; break;
    case SecurityType::Stock: seconds = is_demo_stock(c) ? 2.0 : 6.0 * std::exp(u * std::log(20.0)); break;
    case SecurityType::Future: {
      const Contract* front = contracts_.front_month(c.category);
      const bool near = front != nullptr && front->code == c.code;
      if (c.underlying_kind == "I") {
        seconds = near ? (c.category == "TXF" ? 0.4 : 1.0) : 30.0;
      } else {
        seconds = 60.0 * std::exp(u * std::log(10.0));
      }
      break;
    }
    case SecurityType::Option: {
      const double index = weighted_index_ != nullptr ? weighted_index_->reference.to_double() : 0.0;
      const double distance = index > 0 ? std::abs(c.strike_price.to_double() - index) / index : 0.0;
      seconds = std::min(900.0, 4.0 * (1 + std::pow(distance / 0.01, 2)));
      const Contract* front = contracts_.front_month("TXF");
      if (front != nullptr && c.delivery_month != front->delivery_month)
        seconds = std::min(900.0, seconds * 3);
      break;
    }
  }
  return static_cast<Timestamp>(seconds * static_cast<double>(kNanosPerSecond));
}

TickTape MarketModel::tape(const Contract& contract, Market market, const Date& day) const {
  TapePlan plan;
  plan.market = market;
  plan.ladder = contract.ladder;
  plan.sessions = trading_sessions(market, day);
  plan.seed = mix_seed(mix_seed(seed_ ^ 0x7461706500000000ULL, text_seed(contract.code)),
                       static_cast<std::uint64_t>(day.serial()) * 8 + static_cast<std::uint64_t>(market));
  const std::optional<DayPrices> prices = day_prices(contract, day);
  if (prices) {
    plan.prices = *prices;
  } else {
    plan.prices = {day, contract.reference, contract.limits(), contract.reference};
  }
  plan.mean_interval = mean_trade_interval(contract);

  // The walk's step spreads the intraday volatility over the day's expected trades.
  double expected = 1;
  for (const TradingSession& s : plan.sessions) {
    const Timestamp interval = s.call_interval > 0 ? s.call_interval : plan.mean_interval;
    expected += static_cast<double>(s.last_trade - s.open) * (s.call_interval > 0 ? 1.0 : s.activity) /
                static_cast<double>(interval);
  }
  plan.step_sigma = steps_for(contract.ladder, plan.prices.reference, volatility_of(contract).intraday) /
                    std::sqrt(expected);

  const double price = std::max(plan.prices.reference.to_double(), 0.01);
  switch (market) {
    case Market::Stock: plan.volume_mean = std::clamp(300.0 / price, 1.0, 40.0) + 1; break;
    case Market::FuturesOptions:
      plan.volume_mean = contract.security_type == SecurityType::Option ? 5 : 3;
      break;
    case Market::Index: plan.volume_mean = 0; break;
    case Market::IntradayOdd: {
      plan.volume_mean = 999;
      plan.trade_percent = is_demo_stock(contract) ? 90 : 40;
      return TickTape(std::move(plan), std::make_unique<TickTape>(tape(contract, Market::Stock, day)));
    }
  }
  return TickTape(std::move(plan));
}

}  // namespace quorvex::paper
