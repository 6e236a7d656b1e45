// The paper:// scheme: connecting starts the bus's broker; it lives while sessions do.
#include "services_harness.hpp"

namespace quorvex::paper::testing {
namespace {

class PaperScheme : public ::testing::Test {
 protected:
  void SetUp() override { register_paper_scheme(); }

  struct Connected {
    std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    bus::Session session{inbox};
  };

  static std::unique_ptr<Connected> connect(const std::string& host) {
    auto c = std::make_unique<Connected>();
    bus::ConnectOptions options;
    options.host = host;
    options.client_name = "scheme-test";
    c->session.connect(options);
    return c;
  }

  static Value call(bus::Session& session, const std::string& topic, const Value& payload) {
    const bus::MessagePtr reply =
        session.request(topic, core::encode(payload), std::chrono::milliseconds(2000));
    return reply ? core::decode(reply->payload) : Value();
  }

  static std::string login(bus::Session& session) {
    const Value reply =
        call(session, "api/v1/auth/login",
             Value::map({{"person_id", demo::kPersonId}, {"password", demo::kPassword}, {"hashed", false}}));
    EXPECT_EQ(status_code(reply), 200) << reply;
    return reply.get("response").get_string("token");
  }
};

TEST_F(PaperScheme, ConnectingStartsTheBusesBrokerWhichSessionsShare) {
  auto first = connect("paper://scheme-shared");
  const std::string token = login(first->session);
  register_paper_scheme();  // registering again keeps the running broker
  auto second = connect("paper://scheme-shared");
  second->session.set_token(token);
  const Value probe =
      call(second->session, "api/v1/data/contracts", Value::map({{"security_type", "STK"}, {"page", 0}}));
  EXPECT_EQ(status_code(probe), 200) << probe;
  // The same bus is reachable in-process by name while the broker runs.
  auto plain = connect("inproc://scheme-shared");
  plain->session.set_token(token);
  EXPECT_EQ(status_code(call(plain->session, "api/v1/auth/logout", Value::map({}))), 200);
}

TEST_F(PaperScheme, TheBrokerStopsWithItsLastSessionAndABareSchemeUsesTheDefaultBus) {
  auto first = connect("paper://");
  const std::string token = login(first->session);
  first->session.disconnect();
  first.reset();
  // A new broker knows nothing of the old one's tokens.
  auto again = connect("paper://paper");
  again->session.set_token(token);
  const Value reply =
      call(again->session, "api/v1/data/contracts", Value::map({{"security_type", "STK"}, {"page", 0}}));
  EXPECT_EQ(status_code(reply), 401);
  EXPECT_FALSE(login(again->session).empty());
}

TEST(PaperBrokerAttachment, AttachesOnceAndAgainAfterClosing) {
  PaperBroker broker(test_config());
  broker.attach("attach-twice");
  EXPECT_THROW(broker.attach("attach-other"), std::logic_error);
  broker.close();
  broker.close();
  EXPECT_FALSE(broker.attached());
  broker.attach("attach-other");
  EXPECT_EQ(broker.bus_name(), "attach-other");
}

}  // namespace
}  // namespace quorvex::paper::testing
