// Logins, tokens and sessions of the paper broker's services.
#include <sodium.h>

#include <cmath>

#include "quorvex/core/base58.hpp"
#include "services_harness.hpp"

namespace quorvex::paper::testing {
namespace {

constexpr std::int64_t kNanosPerMilli = 1'000'000;

class AuthTest : public ::testing::Test {
 protected:
  std::shared_ptr<core::ManualClock> clock =
      std::make_shared<core::ManualClock>(to_time_point(taipei_instant({2026, 1, 5}, 36000)));
  BrokerHarness broker{test_config(clock)};

  // The signed API-key login request: the msgpack document, its Ed25519 signature, Base58.
  Value token_login_payload(std::string_view key, std::string_view secret, double ts,
                            std::int64_t window = 5000) {
    const core::Bytes seed = core::base58_decode(secret);
    unsigned char pk[crypto_sign_PUBLICKEYBYTES], sk[crypto_sign_SECRETKEYBYTES];
    crypto_sign_seed_keypair(pk, sk, seed.data());
    const std::string document = core::encode(Value::map({{"key", key},
                                                          {"simulation", false},
                                                          {"version", "1.0"},
                                                          {"source", "pyqv"},
                                                          {"subscribe_trade", true},
                                                          {"receive_window", window},
                                                          {"ts", ts}}));
    unsigned char signature[crypto_sign_BYTES];
    crypto_sign_detached(signature, nullptr, reinterpret_cast<const unsigned char*>(document.data()),
                         document.size(), sk);
    return Value::map(
        {{"msg", core::base58_encode(document)}, {"sign", core::base58_encode(signature, sizeof signature)}});
  }

  double clock_seconds() const {
    return std::chrono::duration<double>(clock->now().time_since_epoch()).count();
  }
};

TEST_F(AuthTest, PasswordLoginListsThePersonsAccountsAndIssuesAToken) {
  auto& c = broker.client("s1");
  const Value reply =
      broker.request(c, "api/v1/auth/login",
                     Value::map({{"person_id", "A123456789"},
                                 {"password", "fcd499ceff48f7e213085ab91356d4ad"},  // md5("paper-demo")
                                 {"simulation", false},
                                 {"hashed", true},
                                 {"version", "1.0"},
                                 {"subscribe_trade", true}}));
  ASSERT_EQ(status_code(reply), 200) << reply;
  const Value& r = reply.get("response");
  ASSERT_EQ(r.get_array("accounts").size(), 2u);
  const Value& stock = r.get("accounts").at(0);
  EXPECT_EQ(stock, Value::map({{"account_type", "S"},
                               {"person_id", "A123456789"},
                               {"broker_id", "9A95"},
                               {"account_id", "0000001"},
                               {"signed", true},
                               {"username", "Paper Demo"}}));
  EXPECT_EQ(r.get("accounts").at(1).get_string("account_type"), "F");
  EXPECT_GE(r.get_string("token").size(), 30u);
  EXPECT_FALSE(r.get_string("web_token").empty());
  EXPECT_NE(r.get_string("web_token"), r.get_string("token"));
  EXPECT_TRUE(r.get_bool("contract_download"));
  EXPECT_EQ(r.get_string("client_name"), "PYAPI/A123456789/" + c.session_id());
  EXPECT_EQ(r.get_string("ip_address"), "127.0.0.1");
}

struct LoginRefusal {
  const char* name;
  Value payload;
  int status;
  const char* detail_part;
};

class LoginRefusals : public AuthTest, public ::testing::WithParamInterface<LoginRefusal> {};

TEST_P(LoginRefusals, AreAnsweredWithStatusAndDetail) {
  const Value reply = broker.request(broker.client("s1"), "api/v1/auth/login", GetParam().payload);
  EXPECT_EQ(status_code(reply), GetParam().status) << reply;
  EXPECT_NE(detail(reply).find(GetParam().detail_part), std::string::npos) << detail(reply);
  EXPECT_FALSE(reply.get("response").contains("token"));
}

INSTANTIATE_TEST_SUITE_P(
    Login, LoginRefusals,
    ::testing::Values(
        LoginRefusal{"wrong_password",
                     Value::map({{"person_id", "A123456789"}, {"password", "wrong"}, {"hashed", false}}), 401,
                     "wrong password"},
        LoginRefusal{
            "digest_of_another_password",
            Value::map({{"person_id", "A123456789"}, {"password", "5f4dcc3b5aa765d61d8327deb882cf99"}}), 401,
            "wrong password"},
        LoginRefusal{"unknown_person",
                     Value::map({{"person_id", "Z999999999"}, {"password", "paper-demo"}, {"hashed", false}}),
                     401, "unknown person"},
        LoginRefusal{"no_password", Value::map({{"person_id", "A123456789"}}), 400, "'password' is missing"},
        LoginRefusal{"person_id_not_text", Value::map({{"person_id", 12}, {"password", "x"}}), 400,
                     "'person_id' holds int"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AuthTest, ServicesRefuseRequestsWithoutAValidToken) {
  auto& anonymous = broker.client("anon");
  const Value none =
      broker.request(anonymous, "api/v1/data/contracts", Value::map({{"security_type", "STK"}, {"page", 0}}));
  EXPECT_EQ(status_code(none), 401);
  EXPECT_NE(detail(none).find("log in first"), std::string::npos);
  anonymous.token = "forged-token";
  const Value forged =
      broker.request(anonymous, "api/v1/data/contracts", Value::map({{"security_type", "STK"}, {"page", 0}}));
  EXPECT_EQ(status_code(forged), 401);
  EXPECT_EQ(detail(forged).find("forged-token"), std::string::npos) << "a token never appears in a refusal";
}

TEST_F(AuthTest, LogoutRevokesAnIssuedTokenForEverySessionUsingIt) {
  auto& first = broker.login("s1", "A123456789", "paper-demo");
  auto& second = broker.client("s2");
  second.token = first.token;  // a token travels to another session, as simulation logins do
  const Value probe = Value::map({{"security_type", "IND"}, {"page", 0}});
  ASSERT_EQ(status_code(broker.request(second, "api/v1/data/contracts", probe)), 200);
  ASSERT_EQ(status_code(broker.request(first, "api/v1/auth/logout", Value::map({}))), 200);
  EXPECT_EQ(status_code(broker.request(first, "api/v1/data/contracts", probe)), 401);
  EXPECT_EQ(status_code(broker.request(second, "api/v1/data/contracts", probe)), 401);
}

TEST_F(AuthTest, SimulationLoginTakesAStandingOrIssuedToken) {
  auto& standing = broker.client("s1");
  standing.token = std::string(demo::kSimulationToken);
  const Value reply =
      broker.request(standing, "api/v1/auth/simulation_login", Value::map({{"subscribe_trade", true}}));
  ASSERT_EQ(status_code(reply), 200) << reply;
  EXPECT_EQ(reply.get("response").get_array("accounts").size(), 2u);
  EXPECT_EQ(reply.get("response").get_string("person_id"), "A123456789");
  EXPECT_TRUE(reply.get("response").get_bool("simulation"));
  // Logging out with a standing token ends the session, not the token.
  ASSERT_EQ(status_code(broker.request(standing, "api/v1/auth/logout", Value::map({}))), 200);
  EXPECT_EQ(status_code(broker.request(standing, "api/v1/auth/simulation_login", Value::map({}))), 200);

  auto& issued = broker.login("s2", "B123456780", "paper-second");
  const Value second = broker.request(issued, "api/v1/auth/simulation_login", Value::map({}));
  ASSERT_EQ(status_code(second), 200);
  EXPECT_EQ(second.get("response").get_string("person_id"), "B123456780");

  auto& stranger = broker.client("s3");
  stranger.token = "no-such-token";
  EXPECT_EQ(status_code(broker.request(stranger, "api/v1/auth/simulation_login", Value::map({}))), 401);
}

TEST_F(AuthTest, SignedApiKeyLoginIssuesATokenForTheKeysPerson) {
  const Value reply =
      broker.request(broker.client("s1"), "api/v1/auth/token_login",
                     token_login_payload(demo::kSecondApiKey, demo::kSecondApiSecret, clock_seconds() - 1.5));
  ASSERT_EQ(status_code(reply), 200) << reply;
  EXPECT_EQ(reply.get("response").get_string("person_id"), "B123456780");
  EXPECT_FALSE(reply.get("response").get_string("token").empty());
  EXPECT_EQ(reply.get("response").get("accounts").at(0).get_string("account_id"), "0000002");
}

TEST_F(AuthTest, SignedApiKeyLoginRefusesReplaysStaleDocumentsAndForeignSignatures) {
  auto& c = broker.client("s1");
  const Value payload = token_login_payload(demo::kApiKey, demo::kApiSecret, clock_seconds());
  ASSERT_EQ(status_code(broker.request(c, "api/v1/auth/token_login", payload)), 200);
  const Value replay = broker.request(c, "api/v1/auth/token_login", payload);
  EXPECT_EQ(status_code(replay), 401);
  EXPECT_NE(detail(replay).find("used already"), std::string::npos);

  const Value stale =
      broker.request(c, "api/v1/auth/token_login",
                     token_login_payload(demo::kApiKey, demo::kApiSecret, clock_seconds() - 6.0));
  EXPECT_EQ(status_code(stale), 401);
  EXPECT_NE(detail(stale).find("receive_window (5000 ms)"), std::string::npos) << detail(stale);
  const Value future =
      broker.request(c, "api/v1/auth/token_login",
                     token_login_payload(demo::kApiKey, demo::kApiSecret, clock_seconds() + 6.0));
  EXPECT_EQ(status_code(future), 401);

  // The second person's secret cannot sign for the demo key.
  const Value foreign =
      broker.request(c, "api/v1/auth/token_login",
                     token_login_payload(demo::kApiKey, demo::kSecondApiSecret, clock_seconds()));
  EXPECT_EQ(status_code(foreign), 401);
  EXPECT_NE(detail(foreign).find("does not verify"), std::string::npos);

  const Value unknown = broker.request(c, "api/v1/auth/token_login",
                                       token_login_payload("no-such-key", demo::kApiSecret, clock_seconds()));
  EXPECT_EQ(status_code(unknown), 401);

  const Value wide =
      broker.request(c, "api/v1/auth/token_login",
                     token_login_payload(demo::kApiKey, demo::kApiSecret, clock_seconds(), 600'000));
  EXPECT_EQ(status_code(wide), 400);
  EXPECT_NE(detail(wide).find("expected 1 to 60000 milliseconds"), std::string::npos);

  Value tampered = token_login_payload(demo::kApiKey, demo::kApiSecret, clock_seconds() + 0.25);
  tampered.set("sign", core::base58_encode(std::string(10, 'x')));
  EXPECT_EQ(status_code(broker.request(c, "api/v1/auth/token_login", tampered)), 400);
  tampered.set("msg", "0OIl");  // not in the Base58 alphabet
  EXPECT_EQ(status_code(broker.request(c, "api/v1/auth/token_login", tampered)), 400);
}

TEST_F(AuthTest, TradeReportSwitchAndTraceLogServeOnlyThePersonsOwnAccounts) {
  auto& c = broker.login("s1", "A123456789", "paper-demo");
  const Value own = Value::map({{"broker_id", "9A95"}, {"account_id", "0000001"}, {"account_type", "S"}});
  const Value foreign = Value::map({{"broker_id", "9A95"}, {"account_id", "0000002"}, {"account_type", "S"}});
  const Value ok = broker.request(c, "api/v1/auth/subscribe_trade",
                                  Value::map({{"account", own}, {"subscribe_trade", false}}));
  ASSERT_EQ(status_code(ok), 200) << ok;
  EXPECT_FALSE(ok.get("response").get_bool("subscribe_trade", true));
  const Value refused = broker.request(c, "api/v1/auth/subscribe_trade",
                                       Value::map({{"account", foreign}, {"subscribe_trade", true}}));
  EXPECT_EQ(status_code(refused), 403);
  EXPECT_NE(detail(refused).find("not an account of person A123456789"), std::string::npos);

  const Value record = Value::map({{"person_id", "A123456789"},
                                   {"account", own},
                                   {"ip", "127.0.0.1"},
                                   {"action", "place_order"},
                                   {"func", "place_order"},
                                   {"func_content", Value::map({{"code", "2330"}})},
                                   {"result", "S"}});
  const Value traced = broker.request(c, "api/v1/auth/trace_log", record);
  ASSERT_EQ(status_code(traced), 200);
  EXPECT_TRUE(traced.get("response").get_bool("success"));
  Value other = record;
  other.set("person_id", "B123456780");
  EXPECT_EQ(status_code(broker.request(c, "api/v1/auth/trace_log", other)), 403);
  Value bad_result = record;
  bad_result.set("result", "X");
  EXPECT_EQ(status_code(broker.request(c, "api/v1/auth/trace_log", bad_result)), 400);
}

TEST_F(AuthTest, UnknownTopicsAndUnreadablePayloadsAreRefusedNotDropped) {
  auto& c = broker.login("s1", "A123456789", "paper-demo");
  const Value unknown = broker.request(c, "api/v1/order/teleport", Value::map({}));
  EXPECT_EQ(status_code(unknown), 404);
  EXPECT_NE(detail(unknown).find("api/v1/order/teleport"), std::string::npos);

  c.session->set_token(c.token);
  const bus::MessagePtr raw =
      c.session->request("api/v1/auth/logout", std::string("\xc1", 1), std::chrono::milliseconds(2000));
  ASSERT_TRUE(raw);
  const Value reply = core::decode(raw->payload);
  EXPECT_EQ(status_code(reply), 400);
  EXPECT_NE(detail(reply).find("not one well-formed msgpack message"), std::string::npos);
}

// Oversized input is refused before anything costly is done with it (Base58 decoding grows with
// the square of the length), so a login queued ahead of another person's request cannot hold
// it up: neither one with oversized fields nor one larger than the broker reads at all.
TEST_F(AuthTest, OversizedLoginsAreRefusedAtOnceWithoutHoldingUpOthers) {
  auto& other = broker.login("other", demo::kSecondPersonId, demo::kSecondPassword);
  auto& sender = broker.client("sender");
  const std::string fields =
      core::encode(Value::map({{"msg", std::string(100'000, 'z')}, {"sign", std::string(100'000, 'z')}}));
  const std::string whole =
      core::encode(Value::map({{"msg", std::string(150'000, 'z')}, {"sign", std::string(150'000, 'z')}}));

  // The quickest of a few rounds, so that the machine's own scheduling does not count.
  double quickest_ms = 1e9;
  for (int round = 0; round < 4; ++round) {
    sender.session->request_async("api/v1/auth/token_login", round % 2 ? whole : fields,
                                  "oversized-" + std::to_string(round), nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(status_code(broker.request(other, "api/v1/portfolio/settlement", kStockB)), 200);
    quickest_ms =
        std::min(quickest_ms,
                 std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  EXPECT_LT(quickest_ms, 50.0);

  for (const std::string* payload : {&fields, &whole}) {
    const bus::MessagePtr raw =
        sender.session->request("api/v1/auth/token_login", *payload, std::chrono::milliseconds(2000));
    ASSERT_TRUE(raw);
    const Value reply = core::decode(raw->payload);
    EXPECT_EQ(status_code(reply), 413) << reply;
    EXPECT_EQ(reply.get("response").get_int("sts_code"), 77001);
    EXPECT_NE(detail(reply).find(payload == &fields ? "field 'msg' is 100000 bytes" : "the request is"),
              std::string::npos)
        << detail(reply);
  }
}

}  // namespace
}  // namespace quorvex::paper::testing
