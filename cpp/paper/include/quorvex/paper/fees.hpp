// Brokerage fees, transaction taxes and financing ratios of the paper broker. Value types
// and pure functions, safe from any thread. Rates are parts per million of the trade value.
#pragma once

#include <cstdint>

#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

struct FeeSchedule {
  std::int64_t stock_fee_ppm = 1425;               // 0.1425% each way
  Money stock_fee_minimum = 20 * kCentsPerDollar;  // board-lot trades
  Money odd_lot_fee_minimum = 1 * kCentsPerDollar;
  std::int64_t stock_sell_tax_ppm = 3000;         // 0.3%
  std::int64_t etf_sell_tax_ppm = 1500;           // 0.15%
  std::int64_t short_sale_fee_ppm = 800;          // borrowing fee on short sales
  std::int64_t margin_loan_ppm = 600000;          // the broker lends 60% of a margin purchase
  std::int64_t short_sale_margin_ppm = 900000;    // a short seller deposits 90%
  Money index_future_fee = 60 * kCentsPerDollar;  // per contract
  Money mini_future_fee = 25 * kCentsPerDollar;
  Money stock_future_fee = 20 * kCentsPerDollar;
  Money option_fee = 20 * kCentsPerDollar;
  std::int64_t future_tax_ppm = 20;    // 0.002% of the contract value
  std::int64_t option_tax_ppm = 1000;  // 0.1% of the premium
};

// Fees and taxes are charged in whole dollars, rounded down.
Money stock_fee(const FeeSchedule& fees, Money value, bool odd_lot);
Money stock_sell_tax(const FeeSchedule& fees, Money value, bool etf);
Money short_sale_fee(const FeeSchedule& fees, Money value);
// Margin loans are lent in thousands of dollars, rounded down.
Money margin_loan(const FeeSchedule& fees, Money value);
// Short-sale deposits are taken in hundreds of dollars, rounded up.
Money short_sale_deposit(const FeeSchedule& fees, Money value);

Money derivative_fee(const FeeSchedule& fees, const Contract& contract, Quantity contracts);
// Rounded to the nearest dollar.
Money derivative_tax(const FeeSchedule& fees, const Contract& contract, Price price, Quantity contracts);

}  // namespace quorvex::paper
