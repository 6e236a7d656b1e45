// A paper broker with clients for the service tests: each client is a bus session with its
// token, sending requests and collecting the reports pushed to it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quorvex/core/codec.hpp"
#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_config.hpp"
#include "quorvex/paper/broker_core.hpp"

namespace quorvex::paper::testing {

using core::Value;

// The demo persons on a small, fixed market: a manual clock on a business day at 10:00
// Taipei time, a few hundred contracts.
inline PaperBrokerConfig test_config(std::shared_ptr<ManualClock> clock = nullptr) {
  PaperBrokerConfig config = demo_config();
  config.contracts.size = 400;
  if (!clock) clock = std::make_shared<ManualClock>(taipei_instant(Date{2026, 1, 5}, 10 * 3600));
  config.clock = clock;
  return config;
}

struct Pushed {
  std::string topic;
  Value message;
};

class BrokerHarness {
 public:
  struct Client {
    std::string session_id;
    std::string token;
    std::vector<Pushed> inbox;
  };

  explicit BrokerHarness(PaperBrokerConfig config = test_config()) : core_(std::move(config)) {}

  BrokerCore& core() { return core_; }

  Client& client(const std::string& session_id) {
    Client& c = clients_[session_id];
    c.session_id = session_id;
    return c;
  }

  Value request(Client& client, const std::string& topic, const Value& payload) {
    auto slot = std::make_shared<Slot>();
    core_.handle(Caller{client.session_id, "test/" + client.session_id, client.token}, topic, core::encode(payload),
                 slot, outbox_);
    Sender sender{*this};
    outbox_.drain(sender);
    EXPECT_FALSE(slot->payload.empty()) << "no reply on " << topic;
    return slot->payload.empty() ? Value() : core::decode(slot->payload);
  }

  // Password login of a demo person; installs the token on the client.
  Client& login(const std::string& session_id, std::string_view person_id, std::string_view password,
                bool simulation = false) {
    Client& c = client(session_id);
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
  struct Slot final : ReplyTarget {
    mutable std::string payload;
    void reply(std::string p) const override { payload = std::move(p); }
  };
  struct Sender final : DirectSender {
    BrokerHarness& harness;
    explicit Sender(BrokerHarness& h) : harness(h) {}
    std::size_t send_to_session(const std::string& session_id, std::string topic, std::string payload) override {
      const auto it = harness.clients_.find(session_id);
      if (it == harness.clients_.end()) return 0;
      it->second.inbox.push_back(Pushed{std::move(topic), core::decode(payload)});
      return 1;
    }
  };

  BrokerCore core_;
  Outbox outbox_;
  std::map<std::string, Client> clients_;
};

inline std::int64_t status_code(const Value& reply) { return reply.get("status").get_int("status_code"); }
inline std::string detail(const Value& reply) { return reply.get("response").get_string("detail"); }

}  // namespace quorvex::paper::testing
