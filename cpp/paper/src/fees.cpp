#include "quorvex/paper/fees.hpp"

#include <algorithm>

namespace quorvex::paper {
namespace {

constexpr std::int64_t kMillion = 1000000;

Money floor_to(Money amount, Money step) { return amount / step * step; }
Money ceil_to(Money amount, Money step) { return (amount + step - 1) / step * step; }
Money part_per_million(Money value, std::int64_t ppm) { return value * ppm / kMillion; }

}  // namespace

Money stock_fee(const FeeSchedule& fees, Money value, bool odd_lot) {
  const Money fee = floor_to(part_per_million(value, fees.stock_fee_ppm), kCentsPerDollar);
  return std::max(fee, odd_lot ? fees.odd_lot_fee_minimum : fees.stock_fee_minimum);
}

Money stock_sell_tax(const FeeSchedule& fees, Money value, bool etf) {
  return floor_to(part_per_million(value, etf ? fees.etf_sell_tax_ppm : fees.stock_sell_tax_ppm),
                  kCentsPerDollar);
}

Money short_sale_fee(const FeeSchedule& fees, Money value) {
  return floor_to(part_per_million(value, fees.short_sale_fee_ppm), kCentsPerDollar);
}

Money margin_loan(const FeeSchedule& fees, Money value) {
  return floor_to(part_per_million(value, fees.margin_loan_ppm), 1000 * kCentsPerDollar);
}

Money short_sale_deposit(const FeeSchedule& fees, Money value) {
  return ceil_to(part_per_million(value, fees.short_sale_margin_ppm), 100 * kCentsPerDollar);
}

Money derivative_fee(const FeeSchedule& fees, const Contract& contract, Quantity contracts) {
  Money per_contract = fees.stock_future_fee;
  if (contract.security_type == SecurityType::Option) {
    per_contract = fees.option_fee;
  } else if (contract.underlying_kind == "I") {
    per_contract = contract.category == "MXF" ? fees.mini_future_fee : fees.index_future_fee;
  }
  return per_contract * contracts;
}

Money derivative_tax(const FeeSchedule& fees, const Contract& contract, Price price, Quantity contracts) {
  const Money value = trade_value(price, contracts, contract.multiplier);
  const std::int64_t ppm =
      contract.security_type == SecurityType::Option ? fees.option_tax_ppm : fees.future_tax_ppm;
  return (part_per_million(value, ppm) + kCentsPerDollar / 2) / kCentsPerDollar * kCentsPerDollar;
}

}  // namespace quorvex::paper
