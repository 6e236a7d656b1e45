// A paper broker on its own in-process bus, with clients for the service tests: each client
// is a bus session with its token, making blocking requests and collecting the reports the
// broker pushes to it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvex/bus/session.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_config.hpp"
#include "quorvex/paper/paper_broker.hpp"

namespace quorvex::paper::testing {

using core::Value;

// The demo persons on a small, fixed market: a manual clock on a business day at 10:00
// Taipei time, a few hundred contracts.
inline PaperBrokerConfig test_config(std::shared_ptr<core::ManualClock> clock = nullptr) {
  PaperBrokerConfig config = demo_config();
  config.contracts.size = 400;
  if (!clock)
    clock = std::make_shared<core::ManualClock>(
        to_time_point(taipei_instant({2026, 1, 5}, std::int64_t{10} * 3600)));
  config.clock = clock;
  return config;
}

struct Pushed {
  std::string topic;
  Value message;
};

// Collects what the bus pushes to one session.
class Inbox final : public bus::SessionListener {
 public:
  void deliver(std::vector<bus::Delivery>& batch, const std::atomic<bool>&) override {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const bus::Delivery& d : batch) {
      if (d.kind == bus::DeliveryKind::Direct)
        pushed_.push_back({d.message->topic, core::decode(d.message->payload)});
    }
    arrived_.notify_all();
  }
  // Waits until `count` messages have arrived (or a second passed); returns them all.
  std::vector<Pushed> wait_for(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, std::chrono::seconds(1), [&] { return pushed_.size() >= count; });
    return pushed_;
  }
  std::vector<Pushed> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(pushed_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Pushed> pushed_;
};

class BrokerHarness {
 public:
  struct Client {
    std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    std::unique_ptr<bus::Session> session = std::make_unique<bus::Session>(inbox);
    std::string token;
    std::string session_id() const { return session->session_id(); }
  };

  explicit BrokerHarness(PaperBrokerConfig config = test_config()) : broker_(std::move(config)) {
    static std::atomic<int> next{0};
    bus_ = "services-test-" + std::to_string(++next);
    broker_.attach(bus_);
  }
  ~BrokerHarness() {
    clients_.clear();
    broker_.close();
  }

  BrokerCore& core() { return broker_.core(); }
  PaperBroker& broker() { return broker_; }

  Client& client(const std::string& name) {
    auto& slot = clients_[name];
    if (!slot) {
      slot = std::make_unique<Client>();
      bus::ConnectOptions options;
      options.host = "inproc://" + bus_;
      options.client_name = "test/" + name;
      slot->session->connect(options);
    }
    return *slot;
  }

  Value request(Client& client, const std::string& topic, const Value& payload) {
    client.session->set_token(client.token);
    const bus::MessagePtr reply =
        client.session->request(topic, core::encode(payload), std::chrono::milliseconds(2000));
    EXPECT_TRUE(reply) << "no reply on " << topic;
    return reply ? core::decode(reply->payload) : Value();
  }

  // Password login of a demo person; installs the token on the client.
  Client& login(const std::string& name, std::string_view person_id, std::string_view password,
                bool simulation = false) {
    Client& c = client(name);
    const Value reply = request(c, "api/v1/auth/login",
                                Value::map({{"person_id", person_id},
                                            {"password", password},
                                            {"simulation", simulation},
                                            {"hashed", false},
                                            {"subscribe_trade", true}}));
    EXPECT_EQ(reply.get("status").get_int("status_code"), 200) << reply;
    c.token = reply.get("response").get_string("token");
    return c;
  }

 private:
  PaperBroker broker_;
  std::string bus_;
  std::map<std::string, std::unique_ptr<Client>> clients_;
};

inline std::int64_t status_code(const Value& reply) { return reply.get("status").get_int("status_code"); }
inline std::string detail(const Value& reply) { return reply.get("response").get_string("detail"); }

// The demo persons' accounts as requests name them: A is the first person's, B the second's.
inline const Value kStockA =
    Value::map({{"account_type", "S"}, {"broker_id", "9A95"}, {"account_id", "0000001"}});
inline const Value kFuturesA =
    Value::map({{"account_type", "F"}, {"broker_id", "F002000"}, {"account_id", "1234567"}});
inline const Value kStockB =
    Value::map({{"account_type", "S"}, {"broker_id", "9A95"}, {"account_id", "0000002"}});
inline const Value kFuturesB =
    Value::map({{"account_type", "F"}, {"broker_id", "F002000"}, {"account_id", "7654321"}});

// A limit ROD order; `extra` fields replace or add to it.
inline Value order_of(const Value& account, const char* action, double price, std::int64_t quantity,
                      std::initializer_list<core::MapEntry> extra = {}) {
  Value order = Value::map({{"action", action},
                            {"price", price},
                            {"quantity", quantity},
                            {"account", account},
                            {"price_type", "LMT"},
                            {"order_type", "ROD"}});
  for (const core::MapEntry& e : extra) order.set(e.key, e.value);
  return order;
}

inline Value placement(std::string_view code, Value order) {
  return Value::map(
      {{"contract", Value::map({{"code", code}})}, {"order", std::move(order)}, {"tft", false}});
}

// A stock the broker lends, so it can be reserved.
inline std::string lendable_stock(const ContractMaster& master) {
  for (const Contract& c : master.contracts(SecurityType::Stock)) {
    if (c.short_selling && c.short_selling_balance > 0 && !c.is_etf()) return c.code;
  }
  return "";
}

// A broker with the second demo person logged in as client "b".
class ServicesTest : public ::testing::Test {
 protected:
  BrokerHarness broker;
  BrokerHarness::Client& b = broker.login("b", demo::kSecondPersonId, demo::kSecondPassword);

  Value place(BrokerHarness::Client& c, std::string_view code, Value order,
              const char* topic = "api/v1/order/place_order") {
    return broker.request(c, topic, placement(code, std::move(order)));
  }
};

}  // namespace quorvex::paper::testing
