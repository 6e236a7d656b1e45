// The paper broker's services without a bus: every request topic answered from one set of
// books, with the replies and the order and deal reports queued in an Outbox, in the order
// they were decided, for whoever carries them (PaperBroker on a bus, or a test).
//
// Threading: handle() may be called from any number of threads at once; requests are decided
// one at a time under one internal lock, and their messages are queued in that same order.
// Nothing is sent while the lock is held: callers drain the Outbox after handle() returns.
// Extension services (add_service) run under that lock, so they must not block.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/core/clock.hpp"
#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_config.hpp"
#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/matching_engine.hpp"

namespace quorvex::paper {

// Who sent a request, as the bus tells it. The token is a secret: never logged or echoed.
struct Caller {
  std::string session_id;
  std::string client_name;
  std::string token;
};

// Where the reply to one request goes.
class ReplyTarget {
 public:
  virtual ~ReplyTarget() = default;
  virtual void reply(std::string payload) const = 0;
};

// Point-to-point delivery to one bus session; returns how many sessions received it.
class DirectSender {
 public:
  virtual ~DirectSender() = default;
  virtual std::size_t send_to_session(const std::string& session_id, std::string topic,
                                      std::string payload) = 0;
};

// One message to send: a reply (reply_to set) or a report to a session.
struct Outgoing {
  std::shared_ptr<const ReplyTarget> reply_to;
  std::string session_id;
  std::string topic;
  std::string payload;  // msgpack
};

// A FIFO of messages decided but not yet sent. One thread drains at a time, in order, with no
// lock held while sending; a thread that finds another draining leaves its messages to it.
class Outbox {
 public:
  void push(Outgoing message);
  // Sends everything queued, including what other threads queue meanwhile. Returns the ids of
  // sessions that received nothing (gone from the bus).
  std::vector<std::string> drain(DirectSender& sender);
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::deque<Outgoing> queue_;
  bool draining_ = false;
};

// What an extension service is told about a request that passed the session checks.
struct ServiceCall {
  const Caller& caller;
  const std::string& topic;
  const core::Value& payload;
  const std::string& person_id;  // the token's person
  bool simulation;               // a simulation session
};

// Extension services answer with the reply's `response` block, or throw ServiceRefused.
using ServiceHandler = std::function<core::Value(const ServiceCall&)>;

// A fill of a client's order, as the market saw it (a quote feed shows it as a trade).
struct MarketDeal {
  const Contract* contract = nullptr;
  Side side = Side::Buy;  // the client's side
  Price price;
  Quantity quantity = 0;  // board lots (stocks), shares (odd-lot boards), contracts
  Board board = Board::Common;
  Timestamp ts = 0;
  // The deal's number, the same in both reports of a deal between two clients, and whether this
  // order took the liquidity: a feed shows each deal once, with the taker's side.
  DealId deal = 0;
  bool aggressor = false;
};
using DealListener = std::function<void(const MarketDeal&)>;

// A refusal an extension service raises: the status code and the detail text of the reply.
class ServiceRefused : public std::runtime_error {
 public:
  ServiceRefused(int status_code, std::string detail, int sts_code = 0)
      : std::runtime_error(detail), status_code_(status_code), sts_code_(sts_code) {}
  int status_code() const { return status_code_; }
  int sts_code() const { return sts_code_; }

 private:
  int status_code_;
  int sts_code_;
};

class BrokerCore {
 public:
  explicit BrokerCore(PaperBrokerConfig config);
  ~BrokerCore();
  BrokerCore(const BrokerCore&) = delete;
  BrokerCore& operator=(const BrokerCore&) = delete;

  // Decides one request and queues its reply (to `reply_to`) and any reports in `out`.
  // Never throws: malformed payloads and service failures are answered as refusals.
  void handle(const Caller& caller, const std::string& topic, std::string_view payload,
              std::shared_ptr<const ReplyTarget> reply_to, Outbox& out);

  // A bus session is gone: reports stop going to it.
  void session_closed(const std::string& session_id);

  // Serves another topic (history, snapshots, ...) behind the same session checks. Replaces an
  // earlier service of the same topic. `simulation_allowed` false refuses simulation sessions.
  void add_service(std::string topic, ServiceHandler handler, bool simulation_allowed = true);
  // Every topic with a service, for carriers that serve exact topics.
  std::vector<std::string> topics() const;

  // Books the engine's events that came from outside a request (another thread trading on
  // the engine) and queues their reports in `out`.
  void settle(Outbox& out);
  // Hears every fill of a client order once it is booked, in order, under the core's lock:
  // the listener must be quick and must not call back into the core.
  void add_deal_listener(DealListener listener);

  const ContractMaster& contracts() const;
  // The paper market itself: books, depth and last prices for quotes; operations on it from
  // outside a request are booked at the next request or settle().
  MatchingEngine& engine();
  // Market time: the broker clock sped up by the configured clock speed.
  const core::Clock& market_clock() const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace quorvex::paper
