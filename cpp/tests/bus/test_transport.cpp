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

namespace {

// An endpoint attached straight to a bus that writes what reaches it, and who it is, to one log
// shared by several endpoints, so the order across endpoints shows.
struct LoggingEndpoint : TransportListener {
  LoggingEndpoint(std::string name, std::vector<std::string>& log) : name(std::move(name)), log(log) {}
  void on_message(MessagePtr message) override { log.push_back(name + ":" + message->topic); }
  void on_request(IncomingRequest request) override { log.push_back(name + "<" + request.message->topic); }
  std::string name;
  std::vector<std::string>& log;
};

struct Endpoints {
  explicit Endpoints(const std::string& bus_name) : bus(InprocBus::named(bus_name)) {}
  Transport& add(const std::string& name) {
    listeners.push_back(std::make_shared<LoggingEndpoint>(name, log));
    links.push_back(bus->attach(options("inproc://" + bus->name(), name), listeners.back()));
    return *links.back();
  }
  std::vector<std::string> take() { return std::exchange(log, {}); }

  std::shared_ptr<InprocBus> bus;
  std::vector<std::string> log;
  std::vector<std::shared_ptr<LoggingEndpoint>> listeners;
  std::vector<std::unique_ptr<Transport>> links;
};

}  // namespace

TEST(Transport, PublishReachesTheExactFilterFirstThenWildcardsInTheOrderTheyBecameActive) {
  Endpoints e("Transport.publish-order");
  Transport& feed = e.add("feed");
  Transport& any = e.add("any");
  Transport& rest = e.add("rest");
  Transport& exact = e.add("exact");
  any.subscribe("TIC/*/2330");
  rest.subscribe("TIC/>");
  exact.subscribe("TIC/v1/2330");
  any.subscribe("TIC/v1/>");  // overlaps: still one copy, where "any" is first reached
  feed.publish(make_message("TIC/v1/2330", ""));
  EXPECT_EQ(e.take(), (std::vector<std::string>{"exact:TIC/v1/2330", "any:TIC/v1/2330", "rest:TIC/v1/2330"}));

  any.unsubscribe("TIC/*/2330");
  any.unsubscribe("TIC/v1/>");
  any.subscribe("TIC/*/2330");  // active again, now after "TIC/>"
  feed.publish(make_message("TIC/v1/2330", ""));
  rest.subscribe("TIC/v1/2330");  // the exact filter's subscribers come first
  feed.publish(make_message("TIC/v1/2330", ""));
  feed.publish(make_message("TIC/v2/2317", ""));
  EXPECT_EQ(e.take(), (std::vector<std::string>{"exact:TIC/v1/2330", "rest:TIC/v1/2330", "any:TIC/v1/2330",
                                                "exact:TIC/v1/2330", "rest:TIC/v1/2330", "any:TIC/v1/2330",
                                                "rest:TIC/v2/2317"}));
  EXPECT_TRUE(feed.has_subscribers("TIC/v2/2317"));
  rest.close();  // a closed link's filters are forgotten
  EXPECT_FALSE(feed.has_subscribers("TIC/v2/2317"));
  EXPECT_TRUE(feed.has_subscribers("TIC/v2/2330"));
}

TEST(Transport, RequestGoesToTheExactServerElseTheFirstMatchingWildcardInServingOrder) {
  Endpoints e("Transport.serving-order");
  Transport& client = e.add("client");
  Transport& wide = e.add("wide");
  Transport& narrow = e.add("narrow");
  Transport& exact = e.add("exact");
  auto request = [&](const std::string& topic) {
    client.request(make_message(topic, ""), 1, Requester{client.session_id(), "client", ""});
  };
  narrow.serve("api/v1/*");
  wide.serve("api/>");
  exact.serve("api/v1/login");
  wide.serve("api/v1/login");  // a second server of the same filter comes after the first
  request("api/v1/login");
  request("api/v1/logout");
  request("api/v2/x");
  request("other");
  EXPECT_EQ(e.take(),
            (std::vector<std::string>{"exact<api/v1/login", "narrow<api/v1/logout", "wide<api/v2/x"}));

  exact.stop_serving("api/v1/login");
  narrow.stop_serving("api/v1/*");
  narrow.serve("api/v1/*");  // served again: now after "api/>"
  request("api/v1/login");
  request("api/v1/logout");
  e.bus->sever(wide.session_id());  // its filters go with the link
  request("api/v1/logout");
  EXPECT_EQ(e.take(),
            (std::vector<std::string>{"wide<api/v1/login", "wide<api/v1/logout", "narrow<api/v1/logout"}));
}
