#include "bus_fixtures.hpp"

using namespace bus_test;
using namespace quorvex::bus;

namespace {

struct HostCase {
  const char* host;
  const char* message;
};

class BadHosts : public ::testing::TestWithParam<HostCase> {};

}  // namespace

TEST_P(BadHosts, AreRefusedWithAnErrorNamingTheHost) {
  auto listener = std::make_shared<RecordingListener>();
  Session session(listener);
  try {
    session.connect(options(GetParam().host));
    FAIL() << "connected to " << GetParam().host;
  } catch (const BusError& e) {
    // Other tests may register more schemes; the list of known ones ends the text.
    EXPECT_EQ(std::string(e.what()).substr(0, std::string(GetParam().message).size()), GetParam().message);
  }
  EXPECT_FALSE(session.is_open());
}

INSTANTIATE_TEST_SUITE_P(
    Transport, BadHosts,
    ::testing::Values(
        HostCase{"203.0.113.7:55555",
                 "cannot connect to host '203.0.113.7:55555': expected scheme://address, for example "
                 "inproc://NAME"},
        HostCase{"nosuch://x",
                 "cannot connect to host 'nosuch://x': unknown scheme 'nosuch'; known schemes: inproc"},
        HostCase{"nosuch://user:hunter2@x",
                 "cannot connect to host 'nosuch://***@x': unknown scheme 'nosuch'; known schemes: inproc"},
        HostCase{"inproc://", "cannot connect to host 'inproc://': expected inproc://NAME with a bus name"}));

TEST(Transport, ShutDownBusRefusesNewSessions) {
  auto bus = InprocBus::named("Transport.shut");
  bus->shutdown();
  auto listener = std::make_shared<RecordingListener>();
  Session session(listener);
  EXPECT_THROW(session.connect(options("inproc://Transport.shut")), BusError);
  bus->restart();
  EXPECT_NO_THROW(session.connect(options("inproc://Transport.shut")));
}

TEST(Transport, RegisteredSchemesAttachToTheirOwnBus) {
  // The way an embedded broker offers its own scheme: services first, then the session's link.
  register_transport("testbroker", [](const ConnectOptions& o, std::weak_ptr<TransportListener> listener) {
    return InprocBus::named("broker-for-" + o.host.substr(13))->attach(o, std::move(listener));
  });
  Responder service("inproc://broker-for-x");
  service.serve("svc", [](const ServiceRequest& r) { r.reply(std::string("from broker")); });
  Client client("testbroker://x");
  auto reply = client.session.request("svc", "\xc0", 2s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->payload, "from broker");
}

TEST(Transport, NamedBusesLiveWhileUsed) {
  std::weak_ptr<InprocBus> weak;
  {
    Client a("inproc://Transport.lifetime");
    weak = InprocBus::named("Transport.lifetime");
    EXPECT_EQ(weak.lock()->endpoint_count(), 1u);
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_THROW(InprocBus::named(""), BusError);
}

TEST(Transport, CloseAllEndpointsStopsEveryDelivery) {
  Responder feed(bus_host());
  Client client(bus_host());
  client.session.subscribe("t");
  close_all_endpoints();
  EXPECT_FALSE(client.session.is_open());
  EXPECT_THROW(feed.publish("t", std::string("\xc0")), BusError);
  EXPECT_EQ(InprocBus::named(bus_host().substr(9))->endpoint_count(), 0u);
}
