// The contract master served in pages.
#include <set>

#include "services_harness.hpp"

namespace quorvex::paper::testing {
namespace {

class ContractPages : public ::testing::Test {
 protected:
  BrokerHarness broker;
  BrokerHarness::Client& client = broker.login("s1", "A123456789", "paper-demo");

  Value page(std::string_view type, std::int64_t number, std::int64_t size) {
    return broker.request(client, "api/v1/data/contracts",
                          Value::map({{"security_type", type}, {"page", number}, {"page_size", size}}));
  }
};

// Every contract of every type arrives exactly once across pages 1..max_page, and each page
// echoes its security type.
TEST_F(ContractPages, ProbeAnnouncesPagesThatCoverTheWholeMaster) {
  std::size_t total = 0;
  for (std::string_view type : {"IND", "STK", "FUT", "OPT"}) {
    const Value probe = page(type, 0, 37);
    ASSERT_EQ(status_code(probe), 200) << probe;
    EXPECT_TRUE(probe.get("response").get_array("contracts").empty());
    EXPECT_EQ(probe.get("response").get_string("security_type"), type);
    const std::int64_t max_page = probe.get("response").get_int("max_page");
    std::set<std::string> codes;
    for (std::int64_t p = 1; p <= max_page; ++p) {
      const Value reply = page(type, p, 37);
      ASSERT_EQ(status_code(reply), 200);
      EXPECT_EQ(reply.get("response").get_string("security_type"), type);
      for (const Value& c : reply.get("response").get_array("contracts")) {
        EXPECT_EQ(c.get_string("security_type"), type);
        EXPECT_TRUE(codes.insert(c.get_string("code")).second) << c.get_string("code");
      }
    }
    EXPECT_EQ(codes.size(), broker.core().contracts().contracts(*security_type_from_text(type)).size());
    total += codes.size();
  }
  EXPECT_EQ(total, broker.core().contracts().size());
}

TEST_F(ContractPages, ContractDictsCarryTheRecordFieldsWithWireValues) {
  const Value reply = page("STK", 1, 5000);
  const Value* tsmc = nullptr;
  for (const Value& c : reply.get("response").get_array("contracts")) {
    if (c.get_string("code") == "2330") tsmc = &c;
  }
  ASSERT_NE(tsmc, nullptr);
  EXPECT_EQ(tsmc->get_string("exchange"), "TSE");
  EXPECT_EQ(tsmc->get_string("symbol"), "TSE2330");
  EXPECT_EQ(tsmc->get_double("reference"), 1000.0);
  EXPECT_EQ(tsmc->get_double("limit_up"), 1100.0);
  EXPECT_EQ(tsmc->get_int("unit"), 1000);
  EXPECT_EQ(tsmc->get_string("currency"), "TWD");
  EXPECT_EQ(tsmc->get_string("delivery_date"), "");
  EXPECT_EQ(tsmc->get_string("option_right"), "");
  EXPECT_EQ(tsmc->get_string("update_date"), broker.core().contracts().trading_day().to_string());
  for (const char* key : {"name", "category", "multiplier", "day_trade", "margin_trading_balance",
                          "short_selling_balance", "underlying_code", "strike_price", "target_code"}) {
    EXPECT_TRUE(tsmc->contains(key)) << key;
  }
  const Value option = page("OPT", 1, 1).get("response").get("contracts").at(0);
  EXPECT_TRUE(option.get_string("option_right") == "C" || option.get_string("option_right") == "P");
  EXPECT_EQ(option.get_string("delivery_date").size(), 10u);
}

TEST_F(ContractPages, RefusesBadPagesTypesAndSizes) {
  const std::int64_t max_page = page("STK", 0, 100).get("response").get_int("max_page");
  const Value beyond = page("STK", max_page + 1, 100);
  EXPECT_EQ(status_code(beyond), 400);
  EXPECT_EQ(beyond.get("response").get_int("sts_code"), 75001);
  EXPECT_EQ(status_code(page("STK", 1, 0)), 400);
  EXPECT_EQ(status_code(page("STK", 1, 100001)), 400);
  const Value unknown = page("BND", 0, 10);
  EXPECT_EQ(status_code(unknown), 400);
  EXPECT_NE(detail(unknown).find("expected IND, STK, FUT or OPT"), std::string::npos);
}

// The trading day of the reference data follows the broker clock, skipping weekends back.
TEST(ContractMasterDay, FollowsTheBrokerClockToTheLastBusinessDay) {
  auto saturday = std::make_shared<core::ManualClock>(to_time_point(taipei_instant({2026, 1, 10}, 9 * 3600)));
  BrokerHarness broker(test_config(saturday));
  EXPECT_EQ(broker.core().contracts().trading_day(), (Date{2026, 1, 9}));
}

}  // namespace
}  // namespace quorvex::paper::testing
