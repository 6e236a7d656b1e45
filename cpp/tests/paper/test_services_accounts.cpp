// Money and holdings after fills, and reservations, through the services.
#include "services_harness.hpp"

namespace quorvex::paper::testing {
namespace {

class AccountServices : public ServicesTest {
 protected:
  // A marketable order that must fill at once.
  Value trade(const Value& account, std::string_view code, const char* action, double price,
              std::int64_t quantity, const char* price_type = "LMT") {
    const Value reply = place(
        b, code,
        order_of(account, action, price, quantity, {{"price_type", price_type}, {"order_type", "IOC"}}));
    EXPECT_EQ(status_code(reply), 200) << reply;
    EXPECT_EQ(reply.get("response").get("status").get_string("status"), "Filled") << reply;
    return reply;
  }

  Value query(const char* topic, Value payload) {
    const Value reply = broker.request(b, topic, payload);
    EXPECT_EQ(status_code(reply), 200) << topic << " " << reply;
    const Value& account = payload.contains("account") ? payload.get("account") : payload;
    EXPECT_EQ(reply.get("response").get("account").get_string("account_id"),
              account.get_string("account_id"));
    return reply.get("response");
  }
};

TEST_F(AccountServices, StockPositionsSettlementsAndProfitAgreeWithTheFills) {
  const Value bought = trade(kStockB, "2330", "Buy", 1010, 2);
  const double paid = bought.get("response").get("status").get("deals").at(0).get_double("price");

  const Value lots =
      query("api/v1/portfolio/position_unit", Value::map({{"account", kStockB}, {"unit", "Common"}}));
  ASSERT_EQ(lots.get_array("positions").size(), 1u) << lots;
  const Value& position = lots.get("positions").at(0);
  EXPECT_EQ(position.get_string("code"), "2330");
  EXPECT_EQ(position.get_string("direction"), "Buy");
  EXPECT_EQ(position.get_int("quantity"), 2);
  EXPECT_EQ(position.get_string("cond"), "Cash");
  EXPECT_TRUE(position.contains("id"));
  const Value shares =
      query("api/v1/portfolio/position_unit", Value::map({{"account", kStockB}, {"unit", "Share"}}));
  EXPECT_EQ(shares.get("positions").at(0).get_int("quantity"), 2000);

  const Value detail_reply =
      query("api/v1/portfolio/position_detail",
            Value::map({{"account", kStockB}, {"code", "2330"}, {"action", "Buy"}, {"ttype", "Cash"}}));
  ASSERT_GE(detail_reply.get_array("position_detail").size(), 1u);
  EXPECT_EQ(detail_reply.get("position_detail").at(0).get_string("date"), "2026-01-05");

  // Bought today, paid on T+2; the settled balance is untouched until then.
  const Value balance = query("api/v1/portfolio/account_balance", kStockB);
  EXPECT_EQ(balance.get_double("acc_balance"), 5'000'000.0);
  EXPECT_EQ(balance.get_string("errmsg"), "");
  const Value days = query("api/v1/portfolio/settlements", kStockB);
  ASSERT_EQ(days.get_array("settlements").size(), 3u);
  EXPECT_EQ(days.get("settlements").at(2).get_int("T"), 2);
  EXPECT_LT(days.get("settlements").at(2).get_double("amount"), -paid * 2000);  // value plus fee
  const Value tts = query("api/v1/portfolio/settlement", kStockB);
  EXPECT_EQ(tts.get("settlements").get_double("t2_money"),
            days.get("settlements").at(2).get_double("amount"));
  EXPECT_EQ(tts.get("settlements").get_string("t_day"), "2026-01-05");
  EXPECT_EQ(tts.get("settlements").get_string("t2_day"), "2026-01-07");

  trade(kStockB, "2330", "Sell", 990, 2);
  const Value range =
      Value::map({{"account", kStockB}, {"begin_date", "2026-01-01"}, {"end_date", "2026-01-31"}});
  const Value realised = query("api/v1/portfolio/profit_loss", range);
  ASSERT_EQ(realised.get_array("profitloss").size(), 1u) << realised;
  const Value& item = realised.get("profitloss").at(0);
  EXPECT_EQ(item.get_int("quantity"), 2000);
  EXPECT_LT(item.get_double("pnl"), 0.0) << "bought dearer than sold, fees and tax on top";
  const Value lots_closed =
      query("api/v1/portfolio/profit_loss_detail", Value::map({{"account", kStockB},
                                                               {"stock", "2330"},
                                                               {"ttype", "Cash"},
                                                               {"tdate", item.get_string("date")},
                                                               {"seqno", item.get_string("seqno")},
                                                               {"price", item.get_double("price")},
                                                               {"dseq", item.get_string("dseq")}}));
  ASSERT_GE(lots_closed.get_array("profitdetail").size(), 1u);
  const Value summary = query("api/v1/portfolio/profitloss_sum", range);
  ASSERT_EQ(summary.get_array("profitloss_sum").size(), 1u);
  EXPECT_EQ(summary.get("total").get_double("pnl"), item.get_double("pnl"));
  EXPECT_EQ(query("api/v1/portfolio/position_unit", Value::map({{"account", kStockB}, {"unit", "Common"}}))
                .get_array("positions")
                .size(),
            0u);
}

TEST_F(AccountServices, FuturesMarginPositionsAndProfitFollowTheFills) {
  const std::string txf = broker.core().contracts().front_month("TXF")->code;
  const Value before = query("api/v1/portfolio/margin", kFuturesB);
  EXPECT_EQ(before.get("margins").size(), 25u);
  EXPECT_EQ(before.get("margins").get_double("initial_margin"), 0.0);

  trade(kFuturesB, txf, "Buy", 0, 1, "MKT");
  const Value open = query("api/v1/portfolio/margin", kFuturesB);
  EXPECT_GT(open.get("margins").get_double("initial_margin"), 0.0);
  EXPECT_LT(open.get("margins").get_double("available_margin"),
            before.get("margins").get_double("available_margin"));
  const Value held =
      query("api/v1/portfolio/position_unit", Value::map({{"account", kFuturesB}, {"unit", "Common"}}));
  ASSERT_EQ(held.get_array("positions").size(), 1u);
  EXPECT_EQ(held.get("positions").at(0).get_string("code"), txf);
  const Value lots = query("api/v1/portfolio/position_detail",
                           Value::map({{"account", kFuturesB}, {"code", txf}, {"action", "Buy"}}));
  EXPECT_EQ(lots.get("position_detail").at(0).get_int("quantity"), 1);

  trade(kFuturesB, txf, "Sell", 0, 1, "MKT");
  const Value range =
      Value::map({{"account", kFuturesB}, {"begin_date", "2026-01-05"}, {"end_date", "2026-01-05"}});
  const Value realised = query("api/v1/portfolio/profit_loss", range);
  ASSERT_EQ(realised.get_array("profitloss").size(), 1u);
  EXPECT_EQ(realised.get("profitloss").at(0).get_string("direction"), "Buy");
  const Value detail_reply =
      query("api/v1/portfolio/profit_loss_detail",
            Value::map({{"account", kFuturesB}, {"stock", txf}, {"tdate", "2026-01-05"}}));
  EXPECT_EQ(detail_reply.get("profitdetail").at(0).get_string("code"), txf);
  const Value summary = query("api/v1/portfolio/profitloss_sum", range);
  EXPECT_EQ(summary.get("profitloss_sum").at(0).get_string("direction"), "Buy");
  EXPECT_TRUE(summary.get("total").contains("pr_ratio"));
}

struct AccountRefusal {
  const char* name;
  const char* topic;
  Value payload;
  int status;
};

class AccountRefusals : public AccountServices, public ::testing::WithParamInterface<AccountRefusal> {};

TEST_P(AccountRefusals, AreAnsweredWithStatusAndDetail) {
  const Value reply = broker.request(b, GetParam().topic, GetParam().payload);
  EXPECT_EQ(status_code(reply), GetParam().status) << reply;
  EXPECT_FALSE(detail(reply).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Accounts, AccountRefusals,
    ::testing::Values(
        AccountRefusal{"margin_of_a_stock_account", "api/v1/portfolio/margin", kStockB, 400},
        AccountRefusal{"balance_of_a_futures_account", "api/v1/portfolio/account_balance", kFuturesB, 400},
        AccountRefusal{"another_persons_balance", "api/v1/portfolio/account_balance", kStockA, 403},
        AccountRefusal{"no_account", "api/v1/portfolio/settlements", Value::map({}), 400},
        AccountRefusal{
            "backward_range", "api/v1/portfolio/profit_loss",
            Value::map({{"account", kStockB}, {"begin_date", "2026-02-01"}, {"end_date", "2026-01-01"}}),
            400},
        AccountRefusal{
            "date_shape", "api/v1/portfolio/profitloss_sum",
            Value::map({{"account", kStockB}, {"begin_date", "20260101"}, {"end_date", "2026-01-31"}}), 400},
        AccountRefusal{
            "unknown_position", "api/v1/portfolio/position_detail",
            Value::map({{"account", kStockB}, {"code", "2330"}, {"action", "Buy"}, {"ttype", "Cash"}}), 404},
        AccountRefusal{"unknown_unit", "api/v1/portfolio/position_unit",
                       Value::map({{"account", kStockB}, {"unit", "Dozen"}}), 400},
        AccountRefusal{"unknown_profit_item", "api/v1/portfolio/profit_loss_detail",
                       Value::map({{"account", kStockB}, {"stock", "2330"}, {"dseq", "00000001"}}), 404}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AccountServices, SimulationSessionsSeePaperPositionsButNotTheLiveOnlyServices) {
  auto& sim = broker.login("sim", demo::kSecondPersonId, demo::kSecondPassword, /*simulation=*/true);
  EXPECT_EQ(status_code(broker.request(sim, "api/v1/paper/position_unit",
                                       Value::map({{"account", kStockB}, {"unit", "Common"}}))),
            200);
  EXPECT_EQ(status_code(broker.request(sim, "api/v1/portfolio/settlement", kStockB)), 200);
  const Value refused = broker.request(sim, "api/v1/portfolio/account_balance", kStockB);
  EXPECT_EQ(status_code(refused), 403);
  EXPECT_NE(detail(refused).find("not offered to simulation sessions"), std::string::npos);
}

TEST_F(AccountServices, ReservationsAndEarmarksAreListedForTheirAccountOnly) {
  const std::string code = lendable_stock(broker.core().contracts());
  ASSERT_FALSE(code.empty());
  const Value contract = Value::map({{"code", code}, {"security_type", "STK"}});
  const Value reserved =
      query("api/v1/order/reserve_stock", Value::map({{"account", kStockB},
                                                      {"contract", contract},
                                                      {"order", Value::map({{"share", 1000}, {"ca", ""}})}}));
  EXPECT_EQ(reserved.get_int("share"), 1000);
  EXPECT_TRUE(reserved.get_bool("status"));
  const double price = broker.core().contracts().find(code)->reference.to_double();
  const Value earmarked =
      query("api/v1/order/reserve_earmarking",
            Value::map({{"account", kStockB},
                        {"contract", contract},
                        {"order", Value::map({{"share", 2000}, {"price", price}, {"ca", ""}})}}));
  EXPECT_EQ(earmarked.get_double("price"), price);

  const Value summary = query("api/v1/order/stock_reserve_summary", Value::map({{"account", kStockB}}));
  ASSERT_EQ(summary.get_array("stocks").size(), 1u);
  EXPECT_EQ(summary.get("stocks").at(0).get("contract").get_string("code"), code);
  EXPECT_EQ(summary.get("stocks").at(0).get_int("reserved_share"), 1000);
  const Value detail_reply = query("api/v1/order/stock_reserve_detail", Value::map({{"account", kStockB}}));
  EXPECT_EQ(detail_reply.get("stocks").at(0).get_string("order_datetime"), "2026-01-05 10:00:00");
  const Value earmarks = query("api/v1/order/earmarking_detail", Value::map({{"account", kStockB}}));
  EXPECT_GT(earmarks.get("stocks").at(0).get_double("amount"), price * 2000);

  const Value odd = broker.request(
      b, "api/v1/order/reserve_stock",
      Value::map({{"account", kStockB}, {"contract", contract}, {"order", Value::map({{"share", 1500}})}}));
  EXPECT_EQ(status_code(odd), 400);
  EXPECT_EQ(odd.get("response").get_int("sts_code"), 74004);

  auto& a = broker.login("a", demo::kPersonId, demo::kPassword);
  const Value theirs =
      broker.request(a, "api/v1/order/stock_reserve_summary", Value::map({{"account", kStockA}}));
  EXPECT_EQ(theirs.get("response").get_array("stocks").size(), 0u);
  const Value unsigned_request = broker.request(
      a, "api/v1/order/reserve_stock",
      Value::map({{"account", kStockA}, {"contract", contract}, {"order", Value::map({{"share", 1000}})}}));
  EXPECT_EQ(status_code(unsigned_request), 403);
  EXPECT_EQ(unsigned_request.get("response").get_int("sts_code"), 74090);
}

}  // namespace
}  // namespace quorvex::paper::testing
