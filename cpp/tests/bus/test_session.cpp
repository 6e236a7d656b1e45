#include <algorithm>
#include <atomic>
#include <future>
#include <set>

#include "bus_fixtures.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/core/topic.hpp"

using namespace bus_test;
using namespace quorvex::bus;
using quorvex::core::Value;

namespace {

ResponderOptions dispatching(Dispatch dispatch) {
  ResponderOptions o;
  o.dispatch = dispatch;
  return o;
}

// Replies with the request's payload and who sent it.
void serve_echo(Responder& responder, const std::string& filter) {
  responder.serve(filter, [](const ServiceRequest& req) {
    req.reply(Value::map({{"topic", req.topic()},
                          {"payload", Value::binary(req.payload())},
                          {"token", req.token()},
                          {"client_name", req.client_name()},
                          {"session_id", req.session_id()}}));
  });
}

class SessionRequests : public ::testing::TestWithParam<Dispatch> {};

}  // namespace

TEST_P(SessionRequests, BlockingRequestCarriesTokenAndClientName) {
  Responder responder(bus_host(), dispatching(GetParam()));
  serve_echo(responder, "api/v1/>");
  Client client(bus_host(), "PYAPI/A123/LOGINING");
  client.session.set_token("tok-1");
  client.session.set_client_name("PYAPI/A123");

  auto reply = client.session.request("api/v1/login", "\x81\xa1k\x01", 2s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->topic, "api/v1/login");
  const Value v = quorvex::core::decode(reply->payload);
  EXPECT_EQ(v.get_string("token"), "tok-1");
  EXPECT_EQ(v.get_string("client_name"), "PYAPI/A123");
  EXPECT_EQ(v.get_string("session_id"), client.session.session_id());
  EXPECT_EQ(v.get("payload"), Value::binary("\x81\xa1k\x01"));
}

TEST_P(SessionRequests, BlockingRequestInsideADeliveryCompletes) {
  Responder responder(bus_host(), dispatching(GetParam()));
  serve_echo(responder, "svc/echo");
  Client client(bus_host());
  std::promise<bool> nested;
  client.listener->set_hook([&](const Delivery& d) {
    if (d.kind == DeliveryKind::Direct)
      nested.set_value(client.session.request("svc/echo", "\xc0", 2s) != nullptr);
  });
  responder.send_to_session(client.session.session_id(), "ORDER", std::string("\xc0"));
  auto result = nested.get_future();
  ASSERT_EQ(result.wait_for(3s), std::future_status::ready);
  EXPECT_TRUE(result.get());
}

TEST_P(SessionRequests, AsyncReplyArrivesOnTheDispatcherThreadWithItsCorrelationId) {
  Responder responder(bus_host(), dispatching(GetParam()));
  serve_echo(responder, "svc/echo");
  Client client(bus_host());
  auto context = std::make_shared<int>(7);
  client.session.request_async("svc/echo", "\xc0", "corr-9", context);
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Reply, 1));
  const auto replies = client.listener->of(DeliveryKind::Reply);
  EXPECT_EQ(replies[0].corrid, "corr-9");
  EXPECT_EQ(replies[0].topic, "svc/echo");
  EXPECT_NE(replies[0].thread, std::this_thread::get_id());
}

INSTANTIATE_TEST_SUITE_P(Dispatch, SessionRequests, ::testing::Values(Dispatch::Worker, Dispatch::Inline),
                         [](const auto& info) {
                           return info.param == Dispatch::Worker ? "Worker" : "Inline";
                         });

TEST(Session, RequestWithoutResponderTimesOutAndLateRepliesAreDropped) {
  Responder responder(bus_host());
  ReplyHandle late;
  std::promise<void> got;
  responder.serve("svc/slow", [&](const ServiceRequest& req) {
    late = req.reply_handle();
    got.set_value();
  });
  Client client(bus_host());

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.session.request("svc/none", "\xc0", 100ms), nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);

  EXPECT_EQ(client.session.request("svc/slow", "\xc0", 50ms), nullptr);
  got.get_future().wait();
  EXPECT_TRUE(late.reply(std::string("\xc0")));
  EXPECT_FALSE(late.reply(std::string("\xc0")));  // only the first reply is sent
  // The late reply neither reaches the dispatcher nor completes a later request.
  EXPECT_FALSE(client.listener->wait_count(DeliveryKind::Reply, 1, 100ms));
}

TEST(Session, RefusesWorkWhenNotConnected) {
  auto listener = std::make_shared<RecordingListener>();
  Session session(listener);
  EXPECT_FALSE(session.is_open());
  try {
    session.request("svc/x", "\xc0", 10ms);
    FAIL();
  } catch (const BusError& e) {
    EXPECT_NE(std::string(e.what()).find("not connected"), std::string::npos) << e.what();
  }
  EXPECT_THROW(session.subscribe("a/b"), BusError);
  EXPECT_THROW(session.request_async("svc/x", "", "1", nullptr), BusError);
}

TEST(Session, RefusesInvalidTopicsAndOptions) {
  Client client(bus_host());
  EXPECT_THROW(client.session.request("a/*/b", "\xc0", 10ms), quorvex::core::TopicError);
  EXPECT_THROW(client.session.subscribe("a/>/b"), quorvex::core::TopicError);
  auto bad = options(bus_host());
  bad.connect_timeout_ms = 0;
  try {
    client.session.connect(bad);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "connect_timeout_ms must be positive, got 0");
  }
  EXPECT_TRUE(client.session.is_open());  // a refused connect leaves the open session alone
}

TEST(Session, WildcardSubscriptionsDeliverOnceInOrder) {
  Responder feed(bus_host());
  Client client(bus_host());
  client.session.subscribe("TIC/v1/STK/*/TSE/>");
  client.session.subscribe("TIC/v1/STK/*/TSE/2330");  // overlaps: still one copy
  client.session.subscribe("QUO/v1/FOP/*/TFE/TXFA4");

  feed.publish("TIC/v1/STK/1/TSE/2330", std::string("\x01"));
  feed.publish("TIC/v1/STK/1/OTC/6488", std::string("\x02"));  // not subscribed
  feed.publish("QUO/v1/FOP/1/TFE/TXFA4", std::string("\x03"));
  feed.publish("TIC/v1/STK/2/TSE/2317", std::string("\x04"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 3));
  client.session.unsubscribe("TIC/v1/STK/*/TSE/>");
  client.session.unsubscribe("TIC/v1/STK/*/TSE/2330");
  feed.publish("TIC/v1/STK/3/TSE/2330", std::string("\x05"));
  feed.publish("QUO/v1/FOP/3/TFE/TXFA4", std::string("\x06"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 4));

  std::string order;
  for (const auto& m : client.listener->of(DeliveryKind::Message)) order += m.payload;
  EXPECT_EQ(order, "\x01\x03\x04\x06");
}

TEST(Session, PointToPointReachesOnlyTheAddressedSession) {
  Responder broker(bus_host());
  Client alice(bus_host(), "PYAPI/ALICE");
  Client bob(bus_host(), "PYAPI/BOB");

  EXPECT_EQ(broker.send_to_session(alice.session.session_id(), "ORDER", std::string("\x01")), 1u);
  EXPECT_EQ(broker.send_to_client("PYAPI/BOB", "DEAL", std::string("\x02")), 1u);
  EXPECT_EQ(broker.send_to_client("PYAPI/NOBODY", "DEAL", std::string("\x03")), 0u);
  bob.session.set_client_name("PYAPI/BOB2");
  EXPECT_EQ(broker.send_to_client("PYAPI/BOB", "DEAL", std::string("\x04")), 0u);
  EXPECT_EQ(broker.send_to_client("PYAPI/BOB2", "FDEAL", std::string("\x05")), 1u);

  ASSERT_TRUE(alice.listener->wait_count(DeliveryKind::Direct, 1));
  ASSERT_TRUE(bob.listener->wait_count(DeliveryKind::Direct, 2));
  std::this_thread::sleep_for(20ms);
  const auto to_alice = alice.listener->of(DeliveryKind::Direct);
  const auto to_bob = bob.listener->of(DeliveryKind::Direct);
  ASSERT_EQ(to_alice.size(), 1u);
  EXPECT_EQ(to_alice[0].topic, "ORDER");
  ASSERT_EQ(to_bob.size(), 2u);
  EXPECT_EQ(to_bob[0].payload + to_bob[1].payload, "\x02\x05");
}

TEST(Session, RepliesMessagesAndDirectMessagesKeepArrivalOrder) {
  Responder responder(bus_host(), dispatching(Dispatch::Inline));
  Client client(bus_host());
  responder.serve("svc/x", [&](const ServiceRequest& req) {
    // The order report goes out before the reply, and must arrive before it.
    responder.send_to_session(req.session_id(), "ORDER", std::string("\x01"));
    req.reply(std::string("\x02"));
  });
  client.session.subscribe("feed/>");
  client.session.request_async("svc/x", "\xc0", "c1", nullptr);
  responder.publish("feed/a", std::string("\x03"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 1));
  std::string order;
  for (const auto& s : client.listener->all()) order += s.payload;
  EXPECT_EQ(order, "\x01\x02\x03");  // the Connected event carries no payload
}

TEST(Session, ThrowingListenerDoesNotStopDelivery) {
  Responder feed(bus_host());
  Client client(bus_host());
  client.listener->set_hook([](const Delivery& d) {
    if (d.kind == DeliveryKind::Message && d.message->payload == "\x01")
      throw std::runtime_error("handler bug");
  });
  client.session.subscribe("t");
  feed.publish("t", std::string("\x01"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 1));
  feed.publish("t", std::string("\x02"));
  EXPECT_TRUE(client.listener->wait_count(DeliveryKind::Message, 2));
}

TEST(Session, DisconnectWithSlowDeliveriesInFlightReturnsPromptly) {
  Responder feed(bus_host());
  Client client(bus_host());
  std::atomic<int> delivered{0};
  client.listener->set_hook([&](const Delivery& d) {
    if (d.kind != DeliveryKind::Message) return;
    ++delivered;
    std::this_thread::sleep_for(50ms);
  });
  client.session.subscribe("t");
  for (int i = 0; i < 50; ++i) feed.publish("t", std::string("\xc0"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 1));

  const auto start = std::chrono::steady_clock::now();
  client.session.disconnect();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);  // not the 2.5 s the queue would take
  const int after_disconnect = delivered;
  std::this_thread::sleep_for(120ms);
  EXPECT_LE(delivered.load(), after_disconnect + 1);  // at most the one in progress finishes
  EXPECT_FALSE(client.session.is_open());
}

TEST(Session, DisconnectGivesUpOnAStuckDeliveryAfterTheGrace) {
  Responder feed(bus_host());
  Client client(bus_host());
  std::promise<void> release;
  auto released = release.get_future().share();
  client.listener->set_hook([released](const Delivery& d) {
    if (d.kind == DeliveryKind::Message) released.wait();
  });
  client.session.set_disconnect_grace(50ms);
  client.session.subscribe("t");
  feed.publish("t", std::string("\xc0"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 1));
  const auto start = std::chrono::steady_clock::now();
  client.session.disconnect();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  release.set_value();
}

TEST(Session, DisconnectWakesBlockedRequests) {
  Responder responder(bus_host());
  responder.serve("svc/never", [](const ServiceRequest&) {});
  Client client(bus_host());
  auto result =
      std::async(std::launch::async, [&] { return client.session.request("svc/never", "\xc0", 10s); });
  std::this_thread::sleep_for(50ms);
  client.session.disconnect();
  ASSERT_EQ(result.wait_for(1s), std::future_status::ready);
  EXPECT_EQ(result.get(), nullptr);
}

TEST(Session, DroppingTheSessionInsideItsOwnDeliveryIsSafe) {
  Responder feed(bus_host());
  auto listener = std::make_shared<RecordingListener>();
  auto session = std::make_shared<Session>(listener);
  session->connect(options(bus_host()));
  session->subscribe("t");
  std::promise<void> dropped;
  listener->set_hook([&](const Delivery& d) {
    if (d.kind != DeliveryKind::Message) return;
    session.reset();
    dropped.set_value();
  });
  feed.publish("t", std::string("\xc0"));
  EXPECT_EQ(dropped.get_future().wait_for(2s), std::future_status::ready);
}

TEST(Session, ReconnectsAfterTheBusDropsTheLinkAndRestoresSubscriptions) {
  Responder feed(bus_host());
  auto o = options(bus_host());
  o.reconnect_retry_wait_ms = 10;
  Client client(o);
  client.session.subscribe("t");
  auto bus = InprocBus::named(bus_host().substr(9));
  ASSERT_TRUE(bus->sever(client.session.session_id()));
  ASSERT_TRUE(client.listener->wait_until([](const std::vector<Seen>& s) {
    for (const auto& x : s) {
      if (x.event_code == static_cast<int>(SessionEventCode::Reconnected)) return true;
    }
    return false;
  }));
  feed.publish("t", std::string("\x07"));
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Message, 1));
  std::vector<int> codes;
  for (const auto& e : client.listener->of(DeliveryKind::Event)) codes.push_back(e.event_code);
  EXPECT_EQ(codes, (std::vector<int>{0, 1, 2}));  // connected, reconnecting, reconnected
}

TEST(Session, GoesDownWhenEveryRetryFails) {
  auto o = options(bus_host());
  o.reconnect_retries = 3;
  o.reconnect_retry_wait_ms = 5;
  Client client(o);
  auto bus = InprocBus::named(bus_host().substr(9));
  bus->shutdown();
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::SessionDown, 1));
  const auto events = client.listener->of(DeliveryKind::Event);
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events.back().event_code, static_cast<int>(SessionEventCode::Down));
  EXPECT_NE(events.back().info.find("shut down"), std::string::npos) << events.back().info;
  EXPECT_TRUE(client.session.is_open());  // open until disconnect()
  try {
    client.session.request("svc/x", "\xc0", 10ms);
    FAIL();
  } catch (const BusError& e) {
    EXPECT_NE(std::string(e.what()).find("down"), std::string::npos) << e.what();
  }
  bus->restart();
  client.session.connect(o);  // a fresh connect works again
  EXPECT_TRUE(client.listener->wait_count(DeliveryKind::Event, events.size() + 1));
}

TEST(Session, CorrelationIdsAreUniqueAcrossThreads) {
  auto listener = std::make_shared<RecordingListener>();
  Session session(listener);
  std::vector<std::string> ids[4];
  std::vector<std::thread> threads;
  for (auto& out : ids) {
    threads.emplace_back([&session, &out] {
      for (int i = 0; i < 1000; ++i) out.push_back(session.next_correlation_id());
    });
  }
  for (auto& t : threads) t.join();
  std::set<std::string> all;
  for (const auto& out : ids) all.insert(out.begin(), out.end());
  EXPECT_EQ(all.size(), 4000u);
}

TEST(Session, ConcurrentRequestsEachGetTheirOwnReply) {
  Responder responder(bus_host());
  responder.serve("svc/double", [](const ServiceRequest& req) {
    req.reply(Value::map({{"n", req.payload_value().get_int("n") * 2}}));
  });
  Client client(bus_host());
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const int n = t * 1000 + i;
        auto reply = client.session.request("svc/double", quorvex::core::encode(Value::map({{"n", n}})), 2s);
        if (!reply || quorvex::core::decode(reply->payload).get_int("n") != 2 * n) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

// A listener that falls behind: published messages queue up to the bound and the oldest are
// dropped, with an event saying how many; replies and point-to-point messages pass the queued
// messages and are never dropped.
TEST(SessionLanes, RepliesAndReportsPassQueuedQuotesAndDroppedQuotesAreReported) {
  Responder responder(bus_host());
  serve_echo(responder, "svc/echo");
  auto listener = std::make_shared<RecordingListener>();
  Session session(listener);
  session.set_message_queue_limit(100);
  session.connect(options(bus_host(), "slow"));
  session.subscribe("Q/>");

  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  std::atomic<bool> holding{false};
  listener->set_hook([&](const Delivery& d) {
    if (d.kind == DeliveryKind::Message && !holding.exchange(true)) gate.wait();
  });
  responder.publish("Q/first", std::string("\xc0"));
  ASSERT_TRUE(listener->wait_count(DeliveryKind::Message, 1));
  for (int i = 0; i < 1000; ++i) responder.publish("Q/x", std::string("\xc0"));
  session.request_async("svc/echo", "\xc0", "late-reply", nullptr);
  responder.send_to_session(session.session_id(), "ORDER", std::string("\xc0"));
  std::this_thread::sleep_for(50ms);  // both are queued behind the held delivery
  release.set_value();

  std::vector<Seen> seen;
  ASSERT_TRUE(listener->wait_until([&](const std::vector<Seen>& now) {
    seen = now;
    return std::any_of(now.begin(), now.end(), [](const Seen& s) {
      return s.kind == DeliveryKind::Event &&
             s.event_code == static_cast<int>(SessionEventCode::SlowConsumer);
    });
  }));
  std::this_thread::sleep_for(100ms);  // what was kept drains
  seen = listener->of(DeliveryKind::Message);
  EXPECT_LE(seen.size(), 1U + 100U);  // the held one, then at most the bound
  EXPECT_GE(seen.size(), 2U);
  ASSERT_EQ(listener->of(DeliveryKind::Reply).size(), 1U);
  ASSERT_EQ(listener->of(DeliveryKind::Direct).size(), 1U);

  // The reply and the report came right after the held delivery, not behind the queue.
  std::vector<Seen> all;
  listener->wait_until([&](const std::vector<Seen>& now) {
    all = now;
    return true;
  });
  std::size_t messages_before = 0;
  for (const auto& s : all) {
    if (s.kind == DeliveryKind::Reply || s.kind == DeliveryKind::Direct) break;
    messages_before += s.kind == DeliveryKind::Message;
  }
  EXPECT_LE(messages_before, 1U + Session::kMessageBatch);
}
