// Orders through the services: placement with funds held, cancel and modify, the status list,
// reports to the right sessions only, refusals, signed orders and reservations, combinations.
#include <ctime>

#include "../sign/pki.hpp"
#include "quorvex/sign/signer.hpp"
#include "services_harness.hpp"

namespace quorvex::paper::testing {
namespace {

// The trade dict less its status, as cancel and modify send it.
Value about(const Value& reply, std::initializer_list<core::MapEntry> extra = {}) {
  Value payload = Value::map({{"contract", Value::map({{"code", "2330"}})},
                              {"order", reply.get("response").get("order")},
                              {"tft", false}});
  for (const core::MapEntry& e : extra) payload.set(e.key, e.value);
  return payload;
}

std::vector<std::string> words_of(const std::vector<Pushed>& pushed) {
  std::vector<std::string> words;
  for (const Pushed& p : pushed) words.push_back(p.topic.substr(p.topic.rfind('/') + 1));
  return words;
}

using OrderServices = ServicesTest;

TEST_F(OrderServices, AMarketableOrderFillsAndIsReportedAsOrderThenDeal) {
  const Value reply = place(b, "2330", order_of(kStockB, "Buy", 1010, 1));
  ASSERT_EQ(status_code(reply), 200) << reply;
  const Value& order = reply.get("response").get("order");
  const Value& status = reply.get("response").get("status");
  EXPECT_EQ(status.get_string("status"), "Filled");
  EXPECT_EQ(status.get_int("deal_quantity"), 1);
  EXPECT_EQ(status.get_string("id"), order.get_string("id"));
  EXPECT_GT(status.get_double("order_ts"), 1.7e9);
  EXPECT_FALSE(status.contains("order_datetime"));
  ASSERT_EQ(status.get_array("deals").size(), 1u);
  EXPECT_LE(status.get("deals").at(0).get_double("price"), 1010.0);
  EXPECT_EQ(order.get_string("seqno").size(), 6u);
  EXPECT_EQ(order.get_string("ordno").size(), 5u);
  EXPECT_EQ(order.get("account").get_string("person_id"), demo::kSecondPersonId);

  const std::vector<Pushed> pushed = b.inbox->wait_for(2);
  ASSERT_EQ(words_of(pushed), (std::vector<std::string>{"ORDER", "DEAL"}));
  EXPECT_EQ(pushed[0].topic, "report/v1/9A950000002/ORDER");
  EXPECT_EQ(pushed[0].message.get("operation").get_string("op_type"), "New");
  EXPECT_EQ(pushed[0].message.get("order").get_string("id"), order.get_string("id"));
  EXPECT_EQ(pushed[1].message.get_string("id"), order.get_string("id"));
  EXPECT_EQ(pushed[1].message.get_int("quantity"), 1);
  EXPECT_EQ(pushed[1].message.get_string("code"), "2330");
}

TEST_F(OrderServices, ARestingOrderIsRepricedReducedAndCancelledOnce) {
  const Value placed = place(b, "2330", order_of(kStockB, "Buy", 950, 3));
  ASSERT_EQ(status_code(placed), 200) << placed;
  EXPECT_EQ(placed.get("response").get("status").get_string("status"), "Submitted");

  const Value repriced = broker.request(b, "api/v1/order/update_price", about(placed, {{"price", 960.0}}));
  ASSERT_EQ(status_code(repriced), 200) << repriced;
  EXPECT_EQ(repriced.get("response").get("status").get_double("modified_price"), 960.0);

  const Value reduced = broker.request(b, "api/v1/order/update_qty", about(placed, {{"quantity", 1}}));
  ASSERT_EQ(status_code(reduced), 200) << reduced;
  EXPECT_EQ(reduced.get("response").get("status").get_int("cancel_quantity"), 1);

  const Value too_many = broker.request(b, "api/v1/order/update_qty", about(placed, {{"quantity", 5}}));
  EXPECT_EQ(status_code(too_many), 400);
  EXPECT_EQ(too_many.get("response").get_int("sts_code"), 74008);

  const Value cancelled = broker.request(b, "api/v1/order/cancel_order", about(placed));
  ASSERT_EQ(status_code(cancelled), 200) << cancelled;
  EXPECT_EQ(cancelled.get("response").get("status").get_string("status"), "Cancelled");
  EXPECT_EQ(cancelled.get("response").get("status").get_int("cancel_quantity"), 3);

  const Value again = broker.request(b, "api/v1/order/cancel_order", about(placed));
  EXPECT_EQ(status_code(again), 400);
  EXPECT_EQ(again.get("response").get_int("sts_code"), 74006);
  EXPECT_FALSE(detail(again).empty());

  std::vector<std::string> operations;
  for (const Pushed& p : b.inbox->wait_for(6)) {
    operations.push_back(p.message.get("operation").get_string("op_type") + ":" +
                         p.message.get("operation").get_string("op_code"));
  }
  EXPECT_EQ(operations, (std::vector<std::string>{"New:00", "UpdatePrice:00", "UpdateQty:00",
                                                  "UpdateQty:74008", "Cancel:00", "Cancel:74006"}));
}

TEST_F(OrderServices, StatusRefreshListsTheAccountsOrdersOldestFirst) {
  const Value first = place(b, "2330", order_of(kStockB, "Buy", 950, 1));
  place(b, "2317", order_of(kStockB, "Buy", 1, 1));  // far below the limit: refused, listed all the same
  ASSERT_EQ(status_code(first), 200);
  const Value listed = broker.request(b, "api/v1/order/update_status",
                                      Value::map({{"account", kStockB}, {"seqno", ""}, {"tft", false}}));
  ASSERT_EQ(status_code(listed), 200) << listed;
  const core::Array& entries = listed.get("response").as_array();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].get("order").get_string("id"), first.get("response").get("order").get_string("id"));
  EXPECT_EQ(entries[0].get("contract").get_string("code"), "2330");
  EXPECT_EQ(entries[0].get("order").get("account").get_string("person_id"), demo::kSecondPersonId);
  EXPECT_TRUE(entries[0].get("status").contains("order_ts"));
  EXPECT_EQ(entries[1].get("status").get_string("status"), "Failed");

  const std::string seqno = entries[1].get("order").get_string("seqno");
  const Value one = broker.request(b, "api/v1/order/update_status",
                                   Value::map({{"account", kStockB}, {"seqno", seqno}, {"tft", false}}));
  ASSERT_EQ(one.get("response").size(), 1u);
  EXPECT_EQ(one.get("response").at(0).get("order").get_string("seqno"), seqno);
}

struct PlacementRefusal {
  const char* name;
  const char* code;
  Value order;
  int status;
  int sts_code;
};

class PlacementRefusals : public OrderServices, public ::testing::WithParamInterface<PlacementRefusal> {};

TEST_P(PlacementRefusals, SayWhatWasWrong) {
  const Value reply = place(b, GetParam().code, GetParam().order);
  EXPECT_EQ(status_code(reply), GetParam().status) << reply;
  EXPECT_EQ(reply.get("response").get_int("sts_code"), GetParam().sts_code) << reply;
  EXPECT_NE(detail(reply).find("expected"), std::string::npos) << detail(reply);
}

INSTANTIATE_TEST_SUITE_P(
    Place, PlacementRefusals,
    ::testing::Values(
        PlacementRefusal{"off_the_ladder", "2330", order_of(kStockB, "Buy", 1001.5, 1), 400, 74002},
        PlacementRefusal{"above_the_limit", "2330", order_of(kStockB, "Buy", 1200, 1), 400, 74003},
        PlacementRefusal{"no_quantity", "2330", order_of(kStockB, "Buy", 1000, 0), 400, 74004},
        PlacementRefusal{"unknown_contract", "9999", order_of(kStockB, "Buy", 10, 1), 404, 74001},
        PlacementRefusal{"future_in_a_stock_account", "TXFA6", order_of(kStockB, "Buy", 10, 1), 400, 0},
        PlacementRefusal{"stock_in_a_futures_account", "2330", order_of(kFuturesB, "Buy", 1000, 1), 400, 0},
        PlacementRefusal{"unknown_action", "2330", order_of(kStockB, "Hold", 1000, 1), 400, 0},
        PlacementRefusal{"price_as_text", "2330", order_of(kStockB, "Buy", 1000, 1, {{"price", "1000"}}), 400,
                         0},
        PlacementRefusal{"three_decimals", "2330", order_of(kStockB, "Buy", 1000.001, 1), 400, 0},
        PlacementRefusal{"more_than_the_cash", "2330", order_of(kStockB, "Buy", 1100, 499), 400, 76001},
        PlacementRefusal{"selling_what_is_not_held", "2330", order_of(kStockB, "Sell", 1000, 1), 400, 76002},
        PlacementRefusal{"no_account", "2330",
                         Value::map({{"action", "Buy"}, {"price", 1000.0}, {"quantity", 1}}), 400, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(OrderServices, PersonsNeitherSeeNorTouchEachOthersOrdersAndReports) {
  auto& a = broker.login("a", demo::kPersonId, demo::kPassword, /*simulation=*/true);
  const Value placed = place(a, "2330", order_of(kStockA, "Buy", 950, 2), "api/v1/paper/place_order");
  ASSERT_EQ(status_code(placed), 200) << placed;

  const Value cancel = broker.request(b, "api/v1/order/cancel_order", about(placed));
  EXPECT_EQ(status_code(cancel), 404);
  EXPECT_EQ(detail(cancel).find(demo::kPersonId), std::string::npos) << "the owner is not revealed";
  EXPECT_EQ(status_code(place(b, "2330", order_of(kStockA, "Buy", 950, 1))), 403);
  EXPECT_EQ(status_code(broker.request(b, "api/v1/order/update_status", Value::map({{"account", kStockA}}))),
            403);
  const Value own = broker.request(b, "api/v1/order/update_status", Value::map({{"account", kStockB}}));
  EXPECT_EQ(own.get("response").size(), 0u);

  a.inbox->wait_for(1);
  EXPECT_TRUE(b.inbox->take().empty());
  EXPECT_EQ(words_of(a.inbox->take()), (std::vector<std::string>{"ORDER"}));
}

TEST_F(OrderServices, ReportsGoToTheHoldersSessionsThatSubscribed) {
  auto& watching = broker.login("watching", demo::kSecondPersonId, demo::kSecondPassword);
  auto& quiet = broker.login("quiet", demo::kSecondPersonId, demo::kSecondPassword);
  ASSERT_EQ(status_code(broker.request(quiet, "api/v1/auth/subscribe_trade",
                                       Value::map({{"account", kStockB}, {"subscribe_trade", false}}))),
            200);
  ASSERT_EQ(status_code(place(quiet, "2330", order_of(kStockB, "Buy", 950, 1))), 200);
  EXPECT_EQ(words_of(watching.inbox->wait_for(1)), (std::vector<std::string>{"ORDER"}));
  EXPECT_EQ(words_of(b.inbox->wait_for(1)), (std::vector<std::string>{"ORDER"}));
  EXPECT_TRUE(quiet.inbox->take().empty());
}

TEST_F(OrderServices, FuturesReportsUseTheirOwnWordsAndCarryTheOrderNumber) {
  const std::string txf = broker.core().contracts().front_month("TXF")->code;
  const Value reply =
      place(b, txf, order_of(kFuturesB, "Buy", 0, 1, {{"price_type", "MKT"}, {"order_type", "IOC"}}));
  ASSERT_EQ(status_code(reply), 200) << reply;
  const std::vector<Pushed> pushed = b.inbox->wait_for(2);
  ASSERT_EQ(words_of(pushed), (std::vector<std::string>{"FORDER", "FDEAL"}));
  const Value& order = pushed[0].message.get("order");
  EXPECT_EQ(order.get_string("id"), reply.get("response").get("order").get_string("id"));
  EXPECT_EQ(order.get_string("ordno"), reply.get("response").get("order").get_string("ordno"));
  EXPECT_EQ(pushed[1].message.get_string("security_type"), "FUT");
}

TEST_F(OrderServices, PaperTopicsServeSimulationSessionsAndSignedAccountsNeedSignaturesLive) {
  EXPECT_EQ(status_code(place(b, "2330", order_of(kStockB, "Buy", 950, 1), "api/v1/paper/place_order")), 403);

  auto& live = broker.login("a-live", demo::kPersonId, demo::kPassword);
  const Value unsigned_order = place(live, "2330", order_of(kStockA, "Buy", 950, 1));
  EXPECT_EQ(status_code(unsigned_order), 403);
  EXPECT_EQ(unsigned_order.get("response").get_int("sts_code"), 74090);
  const Value forged =
      place(live, "2330", order_of(kStockA, "Buy", 950, 1, {{"ca", "bm90IGEgc2lnbmF0dXJl"}}));
  EXPECT_EQ(status_code(forged), 403);
  EXPECT_NE(detail(forged).find("not valid"), std::string::npos) << detail(forged);

  auto& simulated = broker.login("a-sim", demo::kPersonId, demo::kPassword, /*simulation=*/true);
  EXPECT_EQ(
      status_code(place(simulated, "2330", order_of(kStockA, "Buy", 950, 1), "api/v1/paper/place_order")),
      200);
  // The simulation environment lacks combination orders.
  EXPECT_EQ(status_code(broker.request(simulated, "api/v1/order/update_combostatus",
                                       Value::map({{"account", kFuturesA}}))),
            403);
}

// Signed requests against a broker clock near the certificate's validity.
class SignedRequests : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    pki_ = std::make_unique<sign::testing::Pki>();
    certificate_ =
        pki_->write("a.p12", pki_->person({{"C", "TW"}, {"CN", std::string(demo::kPersonId)}}), "pw");
    other_ =
        pki_->write("b.p12", pki_->person({{"C", "TW"}, {"CN", std::string(demo::kSecondPersonId)}}), "pw");
  }
  static void TearDownTestSuite() { pki_.reset(); }

  std::shared_ptr<core::ManualClock> clock =
      std::make_shared<core::ManualClock>(std::chrono::system_clock::now());
  BrokerHarness broker{test_config(clock)};
  BrokerHarness::Client& a = broker.login("a", demo::kPersonId, demo::kPassword);

  static std::unique_ptr<sign::testing::Pki> pki_;
  static std::string certificate_;
  static std::string other_;
};
std::unique_ptr<sign::testing::Pki> SignedRequests::pki_;
std::string SignedRequests::certificate_;
std::string SignedRequests::other_;

TEST_F(SignedRequests, OrdersAreTakenWithTheHoldersFreshSignatureOnly) {
  const sign::Signer signer(certificate_, "pw", std::string(demo::kPersonId), "127.0.0.1");
  ASSERT_TRUE(signer.is_active()) << signer.activation_error();
  const std::time_t now = std::chrono::system_clock::to_time_t(clock->now());
  const Value good =
      broker.request(a, "api/v1/order/place_order",
                     placement("2330", order_of(kStockA, "Buy", 950, 1, {{"ca", signer.sign_order(now)}})));
  ASSERT_EQ(status_code(good), 200) << good;
  const Value cancel = broker.request(a, "api/v1/order/cancel_order",
                                      Value::map({{"order", good.get("response").get("order")},
                                                  {"contract", Value::map({{"code", "2330"}})}}));
  EXPECT_EQ(status_code(cancel), 403) << "a cancel is signed too";

  const Value stale = broker.request(
      a, "api/v1/order/place_order",
      placement("2330", order_of(kStockA, "Buy", 950, 1, {{"ca", signer.sign_order(now - 3 * 86400)}})));
  EXPECT_EQ(status_code(stale), 403);
  EXPECT_NE(detail(stale).find("more than a day"), std::string::npos);

  const sign::Signer someone_else(other_, "pw", std::string(demo::kSecondPersonId), "127.0.0.1");
  const Value foreign = broker.request(
      a, "api/v1/order/place_order",
      placement("2330", order_of(kStockA, "Buy", 950, 1, {{"ca", someone_else.sign_order(now)}})));
  EXPECT_EQ(status_code(foreign), 403);
}

TEST_F(SignedRequests, ReservationsNeedTheHoldersSignatureOverATextNamingTheRequest) {
  const sign::Signer signer(certificate_, "pw", std::string(demo::kPersonId), "127.0.0.1");
  const std::string code = lendable_stock(broker.core().contracts());
  auto reserve = [&](const std::string& text) {
    const Value ca = Value::map({{"signature", signer.sign_text(text)}, {"plain_text", text}});
    return broker.request(a, "api/v1/order/reserve_stock",
                          Value::map({{"account", kStockA},
                                      {"contract", Value::map({{"code", code}})},
                                      {"order", Value::map({{"share", 1000}, {"ca", ca}})}}));
  };
  EXPECT_EQ(status_code(reserve("account | code='" + code + "' | 1000")), 200);
  const Value elsewhere = reserve("account | code='0000' | 1000");
  EXPECT_EQ(status_code(elsewhere), 403);
  EXPECT_NE(detail(elsewhere).find("does not name"), std::string::npos);
}

TEST_F(OrderServices, CombinationsRestUntilTheirLegsCanTradeAndCancelOnce) {
  const ContractMaster& master = broker.core().contracts();
  std::vector<std::string> calls;
  for (const Contract& c : master.contracts(SecurityType::Option)) {
    if (c.option_right == OptionRight::Call && calls.size() < 2) calls.push_back(c.code);
  }
  ASSERT_EQ(calls.size(), 2u);
  auto leg = [](const std::string& code, const char* action) {
    return Value::map({{"code", code}, {"security_type", "OPT"}, {"action", action}});
  };
  const Value legs = Value::map({{"legs", Value::array({leg(calls[0], "Buy"), leg(calls[1], "Sell")})}});
  const Value rod =
      broker.request(b, "api/v1/order/place_comboorder",
                     Value::map({{"order", order_of(kFuturesB, "Buy", -5000, 1)}, {"combocontract", legs}}));
  ASSERT_EQ(status_code(rod), 200) << rod;
  EXPECT_EQ(rod.get("response").get("status").get_string("status"), "Submitted");

  const Value ioc =
      broker.request(b, "api/v1/order/place_comboorder",
                     Value::map({{"order", order_of(kFuturesB, "Buy", -5000, 1, {{"order_type", "IOC"}})},
                                 {"combocontract", legs}}));
  ASSERT_EQ(status_code(ioc), 200) << ioc;
  EXPECT_EQ(ioc.get("response").get("status").get_string("status"), "Cancelled");

  const Value listed =
      broker.request(b, "api/v1/order/update_combostatus", Value::map({{"account", kFuturesB}}));
  ASSERT_EQ(listed.get("response").size(), 2u);
  EXPECT_EQ(listed.get("response").at(0).get("contract").get("legs").at(1).get_string("action"), "Sell");

  const Value cancel_payload = Value::map({{"contract", legs}, {"order", rod.get("response").get("order")}});
  EXPECT_EQ(status_code(broker.request(b, "api/v1/order/cancel_comboorder", cancel_payload)), 200);
  const Value again = broker.request(b, "api/v1/order/cancel_comboorder", cancel_payload);
  EXPECT_EQ(status_code(again), 400);
  EXPECT_EQ(again.get("response").get_int("sts_code"), 74006);

  const Value single_leg = broker.request(
      b, "api/v1/order/place_comboorder",
      Value::map({{"order", order_of(kFuturesB, "Buy", 1, 1)},
                  {"combocontract", Value::map({{"legs", Value::array({leg(calls[0], "Buy")})}})}}));
  EXPECT_EQ(status_code(single_leg), 400);
}

// Trading on the engine from outside a request (a market simulator's thread) reaches the
// client once settled, and every client fill is heard by the deal listeners.
TEST_F(OrderServices, FillsFromOutsideARequestAreSettledReportedAndHeard) {
  std::vector<MarketDeal> heard;
  broker.core().add_deal_listener([&](const MarketDeal& d) { heard.push_back(d); });
  const Value resting = place(b, "2330", order_of(kStockB, "Buy", 1000, 1));
  ASSERT_EQ(resting.get("response").get("status").get_string("status"), "Submitted") << resting;
  b.inbox->wait_for(1);
  b.inbox->take();

  OrderTicket sell;
  sell.account = "market";
  sell.code = "2330";
  sell.side = Side::Sell;
  sell.price = Price::from_whole(1000);
  sell.quantity = 1;
  ASSERT_TRUE(broker.core().engine().place(sell));
  broker.broker().settle();

  const std::vector<Pushed> pushed = b.inbox->wait_for(1);
  ASSERT_EQ(words_of(pushed), (std::vector<std::string>{"DEAL"}));
  EXPECT_EQ(pushed[0].message.get_double("price"), 1000.0);
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].contract->code, "2330");
  EXPECT_EQ(heard[0].side, Side::Buy);
  const Value listed = broker.request(b, "api/v1/order/update_status", Value::map({{"account", kStockB}}));
  EXPECT_EQ(listed.get("response").at(0).get("status").get_string("status"), "Filled");
}

}  // namespace
}  // namespace quorvex::paper::testing
