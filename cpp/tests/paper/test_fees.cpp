#include <gtest/gtest.h>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/fees.hpp"

namespace quorvex::paper {
namespace {

constexpr Money kTwd = kCentsPerDollar;

struct FeeCase {
  const char* name;
  Money value;
  bool odd_lot;
  bool etf;
  Money fee;
  Money tax;
};

class StockFees : public ::testing::TestWithParam<FeeCase> {};

TEST_P(StockFees, WholeDollarsRoundedDownWithMinimums) {
  const FeeCase& c = GetParam();
  const FeeSchedule fees;
  EXPECT_EQ(stock_fee(fees, c.value, c.odd_lot), c.fee);
  EXPECT_EQ(stock_sell_tax(fees, c.value, c.etf), c.tax);
}

INSTANTIATE_TEST_SUITE_P(
    Fees, StockFees,
    ::testing::Values(FeeCase{"BoardLot", 1'000'000 * kTwd, false, false, 1425 * kTwd, 3000 * kTwd},
                      FeeCase{"FractionsDropped", 1'050'000 * kTwd, false, false, 1496 * kTwd, 3150 * kTwd},
                      FeeCase{"BoardLotMinimum", 8'760 * kTwd, false, false, 20 * kTwd, 26 * kTwd},
                      FeeCase{"OddLotMinimum", 3165, true, false, 1 * kTwd, 0},
                      FeeCase{"OddLotAboveMinimum", 300'000 * kTwd, true, false, 427 * kTwd, 900 * kTwd},
                      FeeCase{"EtfTax", 195'350 * kTwd, false, true, 278 * kTwd, 293 * kTwd}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Fees, FinancingRounding) {
  const FeeSchedule fees;
  EXPECT_EQ(margin_loan(fees, 1'805'000 * kTwd), 1'083'000 * kTwd);  // 60% = 1,083,000 exactly
  EXPECT_EQ(margin_loan(fees, 1'806'499 * kTwd), 1'083'000 * kTwd);  // 1,083,899.4 rounds down to thousands
  EXPECT_EQ(short_sale_deposit(fees, 1'000'050 * kTwd), 900'100 * kTwd);  // 900,045 rounds up to hundreds
  EXPECT_EQ(short_sale_fee(fees, 1'000'000 * kTwd), 800 * kTwd);
}

TEST(Fees, Derivatives) {
  const ContractMaster master({1, 200, {2026, 1, 5}});
  const FeeSchedule fees;
  const Contract& txf = *master.front_month("TXF");
  const Contract& mxf = *master.front_month("MXF");
  const Contract& txo = *master.find("TXO23000A6");
  EXPECT_EQ(derivative_fee(fees, txf, 2), 120 * kTwd);
  EXPECT_EQ(derivative_fee(fees, mxf, 2), 50 * kTwd);
  EXPECT_EQ(derivative_fee(fees, txo, 3), 60 * kTwd);
  // 23,000 points x 200 TWD x 0.002% = 92; 23,101 points -> 92.404 -> 92; 23,125 -> 92.5 -> 93.
  EXPECT_EQ(derivative_tax(fees, txf, Price::from_whole(23000), 1), 92 * kTwd);
  EXPECT_EQ(derivative_tax(fees, txf, Price::from_whole(23101), 1), 92 * kTwd);
  EXPECT_EQ(derivative_tax(fees, txf, Price::from_whole(23125), 1), 93 * kTwd);
  // 0.1% of a 150-point premium x 50 TWD = 7.5 -> 8.
  EXPECT_EQ(derivative_tax(fees, txo, Price::from_whole(150), 1), 8 * kTwd);
}

}  // namespace
}  // namespace quorvex::paper
