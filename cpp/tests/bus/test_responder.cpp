#include <algorithm>
#include <future>

#include "bus_fixtures.hpp"
#include "quorvex/core/codec.hpp"

using namespace bus_test;
using namespace quorvex::bus;
using quorvex::core::Value;

namespace {

std::string text_of(const MessagePtr& reply) { return reply ? reply->payload : std::string("<none>"); }

// Collects subscription changes as "+filter" / "-filter".
struct WatchLog {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> entries;

  SubscriptionWatcher watcher() {
    return [this](const std::string& filter, bool active) {
      std::lock_guard<std::mutex> lock(mutex);
      entries.push_back((active ? "+" : "-") + filter);
      changed.notify_all();
    };
  }
  std::vector<std::string> wait_for(std::size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, 2s, [&] { return entries.size() >= n; });
    return entries;
  }
};

}  // namespace

// Between one responder's own filters; which responder a request reaches is the bus's choice.
TEST(Responder, ExactFilterWinsOverWildcardsWhichGoInServingOrder) {
  Responder responder(bus_host());
  responder.serve("api/>", [](const ServiceRequest& r) { r.reply(std::string("general")); });
  responder.serve("api/v1/*",
                  [](const ServiceRequest& r) { r.reply(std::string("never: api/> came first")); });
  responder.serve("api/v1/login", [](const ServiceRequest& r) { r.reply(std::string("replaced")); });
  responder.serve("api/v1/login", [](const ServiceRequest& r) { r.reply(std::string("specific")); });
  Client client(bus_host());
  EXPECT_EQ(text_of(client.session.request("api/v1/login", "\xc0", 2s)), "specific");
  EXPECT_EQ(text_of(client.session.request("api/v1/logout", "\xc0", 2s)), "general");
  responder.stop_serving("api/v1/login");
  EXPECT_EQ(text_of(client.session.request("api/v1/login", "\xc0", 2s)), "general");
}

TEST(Responder, RepliesLaterFromAnotherThread) {
  Responder responder(bus_host());
  std::mutex mutex;
  std::vector<std::thread> repliers;
  responder.serve("svc/later", [&](const ServiceRequest& r) {
    std::lock_guard<std::mutex> lock(mutex);
    repliers.emplace_back([handle = r.reply_handle()] {
      std::this_thread::sleep_for(20ms);
      handle.reply(Value::map({{"status", Value::map({{"status_code", 200}})}}));
    });
  });
  Client client(bus_host());
  auto reply = client.session.request("svc/later", "\xc0", 2s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(quorvex::core::decode(reply->payload).get("status").get_int("status_code"), 200);
  std::lock_guard<std::mutex> lock(mutex);
  for (auto& t : repliers) t.join();
}

TEST(Responder, HandlerExceptionsGoToTheErrorHookAndSendNoReply) {
  std::promise<std::string> error;
  ResponderOptions o;
  o.on_error = [&](const std::string& topic, const std::string& what) {
    error.set_value(topic + ": " + what);
  };
  Responder responder(bus_host(), o);
  responder.serve("svc/bad", [](const ServiceRequest& r) { r.payload_value(); });
  Client client(bus_host());
  EXPECT_EQ(client.session.request("svc/bad", "\xc1", 100ms), nullptr);
  auto message = error.get_future();
  ASSERT_EQ(message.wait_for(1s), std::future_status::ready);
  EXPECT_EQ(message.get(), "svc/bad: malformed msgpack at byte 0");
}

TEST(Responder, WatcherHearsFirstAndLastSubscriberOfEachFilter) {
  Client early(bus_host());
  early.session.subscribe("TIC/v1/STK/*/TSE/2330");
  Responder feed(bus_host());
  WatchLog log;
  feed.watch_subscriptions(log.watcher());
  EXPECT_EQ(log.wait_for(1), (std::vector<std::string>{"+TIC/v1/STK/*/TSE/2330"}));  // already active

  Client late(bus_host());
  late.session.subscribe("TIC/v1/STK/*/TSE/2330");  // second subscriber: no change
  late.session.subscribe("QUO/v1/FOP/>");
  EXPECT_TRUE(feed.has_subscribers("QUO/v1/FOP/1/TFE/TXFA4"));
  EXPECT_FALSE(feed.has_subscribers("QUO/v1/STK/1/TSE/2330"));
  early.session.unsubscribe("TIC/v1/STK/*/TSE/2330");  // late still subscribes: no change
  late.session.disconnect();                           // drops both of its subscriptions
  auto entries = log.wait_for(4);
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[1], "+QUO/v1/FOP/>");
  std::sort(entries.begin() + 2, entries.end());
  EXPECT_EQ(entries[2], "-QUO/v1/FOP/>");
  EXPECT_EQ(entries[3], "-TIC/v1/STK/*/TSE/2330");
  EXPECT_FALSE(feed.has_subscribers("TIC/v1/STK/1/TSE/2330"));
}

TEST(Responder, CloseWaitsForInlineHandlersOnOtherThreads) {
  ResponderOptions o;
  o.dispatch = Dispatch::Inline;
  Responder responder(bus_host(), o);
  std::promise<void> entered;
  std::atomic<bool> finished{false};
  responder.serve("svc/slow", [&](const ServiceRequest&) {
    entered.set_value();
    std::this_thread::sleep_for(100ms);
    finished = true;
  });
  Client client(bus_host());
  auto call =
      std::async(std::launch::async, [&] { return client.session.request("svc/slow", "\xc0", 50ms); });
  entered.get_future().wait();
  responder.close();
  EXPECT_TRUE(finished.load());
  call.wait();
  EXPECT_THROW(responder.publish("t", std::string("\xc0")), BusError);
}

// A waited-for request on an inline topic runs on its sender's thread when the worker is idle;
// requests nobody waits for run on the worker, and a waited-for one sent behind them does not
// overtake them. Topics outside the inline filters always go to the worker.
TEST(Responder, InlineWhenWaitedKeepsArrivalOrder) {
  ResponderOptions o;
  o.dispatch = Dispatch::InlineWhenWaited;
  o.inline_filters = {"svc"};
  Responder responder(bus_host(), o);
  std::mutex mutex;
  std::vector<std::string> decided;  // payloads, "@sender" when run on the main test thread
  const std::thread::id main_thread = std::this_thread::get_id();
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  auto handler = [&](const ServiceRequest& r) {
    const std::string payload(r.payload());
    if (payload == "slow") released.wait();
    {
      std::lock_guard<std::mutex> lock(mutex);
      decided.push_back(payload + (std::this_thread::get_id() == main_thread ? "@sender" : ""));
    }
    r.reply(payload);
  };
  responder.serve("svc", handler);
  responder.serve("bulk", handler);
  Client client(bus_host());
  EXPECT_EQ(text_of(client.session.request("svc", "first", 2s)), "first");
  EXPECT_EQ(text_of(client.session.request("bulk", "page", 2s)), "page");
  client.session.request_async("svc", "slow", "1", nullptr);
  client.session.request_async("svc", "queued", "2", nullptr);
  auto behind =
      std::async(std::launch::async, [&] { return text_of(client.session.request("svc", "behind", 2s)); });
  std::this_thread::sleep_for(50ms);
  release.set_value();
  EXPECT_EQ(behind.get(), "behind");
  ASSERT_TRUE(client.listener->wait_count(DeliveryKind::Reply, 2));
  std::this_thread::sleep_for(20ms);  // the worker marks itself idle just after its last reply
  EXPECT_EQ(text_of(client.session.request("svc", "last", 2s)), "last");
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(decided,
            (std::vector<std::string>{"first@sender", "page", "slow", "queued", "behind", "last@sender"}));
}

TEST(Responder, ReservesAfterTheBusDropsItsLink) {
  Responder responder(bus_host());
  responder.serve("svc", [](const ServiceRequest& r) { r.reply(std::string("ok")); });
  Client client(bus_host());
  InprocBus::named(bus_host().substr(9))->sever(responder.session_id());
  MessagePtr reply;
  for (int i = 0; i < 50 && !reply; ++i) reply = client.session.request("svc", "\xc0", 20ms);
  EXPECT_EQ(text_of(reply), "ok");
}
