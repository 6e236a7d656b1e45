#include <gtest/gtest.h>

#include <set>
#include <string>

#include "quorvex/paper/contract_master.hpp"

namespace quorvex::paper {
namespace {

const ContractMaster& default_master() {
  static const ContractMaster master{};
  return master;
}

TEST(ContractMaster, SameSeedSameContractsOtherSeedOtherPicks) {
  const ContractMaster a({7, 800, {2026, 1, 5}});
  const ContractMaster b({7, 800, {2026, 1, 5}});
  const ContractMaster c({8, 800, {2026, 1, 5}});
  ASSERT_EQ(a.size(), b.size());
  std::set<std::string> codes_a, codes_c;
  for (SecurityType type : kSecurityTypes) {
    for (std::size_t i = 0; i < a.contracts(type).size(); ++i) {
      const Contract& x = a.contracts(type)[i];
      const Contract& y = b.contracts(type)[i];
      EXPECT_EQ(x.code, y.code);
      EXPECT_EQ(x.name, y.name);
      EXPECT_EQ(x.reference, y.reference);
      codes_a.insert(x.code);
    }
    for (const Contract& z : c.contracts(type)) codes_c.insert(z.code);
  }
  EXPECT_NE(codes_a, codes_c);
  for (std::string_view demo : kDemoStockCodes) EXPECT_TRUE(codes_c.count(std::string(demo))) << demo;
}

TEST(ContractMaster, DemoStocksAreStable) {
  for (std::uint64_t seed : {1u, 2u, 99u}) {
    const ContractMaster master({seed, 50, {2026, 1, 5}});
    const Contract* tsmc = master.find("2330");
    ASSERT_NE(tsmc, nullptr);
    EXPECT_EQ(tsmc->reference, Price::from_whole(1000));
    EXPECT_EQ(tsmc->limit_up, Price::from_whole(1100));
    EXPECT_EQ(tsmc->limit_down, Price::from_whole(900));
    EXPECT_EQ(tsmc->unit, 1000);
    EXPECT_EQ(master.find("TSE2330"), tsmc);
    const Contract* etf = master.find("0050");
    ASSERT_NE(etf, nullptr);
    EXPECT_TRUE(etf->is_etf());
    EXPECT_EQ(etf->category, "00");
  }
}

// Every contract is internally consistent: prices on its ladder, reference inside its limits,
// derivatives tied to a known underlying and delivering on the third Wednesday.
TEST(ContractMaster, EveryContractIsConsistent) {
  const ContractMaster& master = default_master();
  std::set<std::string> seen;
  for (SecurityType type : kSecurityTypes) {
    for (const Contract& c : master.contracts(type)) {
      EXPECT_TRUE(seen.insert(c.code).second) << "duplicate code " << c.code;
      EXPECT_EQ(c.security_type, type);
      if (!c.tradable()) continue;
      EXPECT_TRUE(on_ladder(c.ladder, c.reference)) << c.code;
      EXPECT_TRUE(on_ladder(c.ladder, c.limit_up)) << c.code;
      EXPECT_TRUE(on_ladder(c.ladder, c.limit_down)) << c.code;
      EXPECT_TRUE(c.limits().contains(c.reference)) << c.code;
      EXPECT_LT(c.limit_down, c.limit_up) << c.code;
      if (c.is_derivative()) {
        EXPECT_NE(master.find(c.underlying_code), nullptr) << c.code;
        EXPECT_EQ(c.delivery_date, third_wednesday(c.delivery_date.year, c.delivery_date.month)) << c.code;
        EXPECT_GE(c.delivery_date, master.trading_day()) << c.code;
        EXPECT_EQ(c.delivery_month, c.delivery_date.year_month());
      }
    }
  }
}

TEST(ContractMaster, FuturesAndOptionsNaming) {
  const ContractMaster& master = default_master();
  // On 2026-01-05 the January contracts (21st) are the nearest.
  const Contract* txf = master.front_month("TXF");
  ASSERT_NE(txf, nullptr);
  EXPECT_EQ(txf->code, "TXFA6");
  EXPECT_EQ(txf->symbol, "TXF202601");
  EXPECT_EQ(txf->delivery_date, (Date{2026, 1, 21}));
  EXPECT_EQ(txf->multiplier, 200);
  EXPECT_EQ(txf->underlying_code, std::string(kWeightedIndexCode));
  EXPECT_EQ(master.find("TXF202601"), txf);
  ASSERT_NE(master.find("MXFB6"), nullptr);
  const Contract* call = master.find("TXO23000A6");
  const Contract* put = master.find("TXO23000M6");
  ASSERT_NE(call, nullptr);
  ASSERT_NE(put, nullptr);
  EXPECT_EQ(call->option_right, OptionRight::Call);
  EXPECT_EQ(put->option_right, OptionRight::Put);
  EXPECT_EQ(call->symbol, "TXO20260123000C");
  EXPECT_EQ(call->strike_price, Price::from_whole(23000));
  // Deep in the money calls cost more than the ones far out of it.
  EXPECT_GT(master.find("TXO22000A6")->reference, master.find("TXO24000A6")->reference);
}

TEST(ContractMaster, DeliveriesRollAfterTheThirdWednesday) {
  const ContractMaster master({1, 200, {2026, 1, 22}});
  EXPECT_EQ(master.front_month("TXF")->code, "TXFB6");
}

TEST(ContractMaster, SizeKnobReachesBenchmarkScale) {
  const ContractMaster big({3, 100000, {2026, 1, 5}});
  EXPECT_GE(big.size(), 100000u);
  EXPECT_LT(big.size(), 110000u);
  EXPECT_GT(big.contracts(SecurityType::Stock).size(), 8000u);
  EXPECT_EQ(big.page(SecurityType::Option, 0, 5000)->max_page,
            static_cast<int>((big.contracts(SecurityType::Option).size() + 4999) / 5000));
}

}  // namespace
}  // namespace quorvex::paper
