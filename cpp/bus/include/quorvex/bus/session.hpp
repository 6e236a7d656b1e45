// A client session on the bus: requests with replies, subscriptions, point-to-point messages and
// session events, with one dispatcher thread delivering everything that is not a blocking reply.
//
// Threading and blocking:
//   - Every method is safe from any thread, including the dispatcher thread (inside a delivery).
//   - request() blocks the calling thread until the reply or the timeout. Its reply is handed
//     straight to the waiting thread, never through the dispatcher, so a delivery may itself make
//     a blocking request.
//   - Non-blocking replies, published messages, point-to-point messages and events are delivered to
//     the SessionListener on the session's dispatcher thread, in batches, in two lanes: replies,
//     point-to-point messages and events first, in arrival order, never dropped; published
//     messages in arrival order, at most kMessageBatch a batch, so a reply never waits behind more
//     than that many. Published messages queue up to a bound (set_message_queue_limit); past it the
//     oldest are dropped and a SlowConsumer event says how many.
//   - A lost link is recovered on the dispatcher thread, which keeps delivering while it waits
//     between attempts: Reconnecting, then Reconnected (subscriptions restored) or Down after
//     reconnect_retries attempts. Blocking requests in progress when the link drops return at once
//     with no reply; non-blocking ones are forgotten.
//   - No session lock is held while a listener runs or while a transport is called.
//   - disconnect() returns promptly: it waits at most `disconnect_grace` for a delivery in progress
//     and otherwise leaves that delivery to finish on its own; nothing more is delivered after it.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorvex/bus/message.hpp"
#include "quorvex/bus/transport.hpp"

namespace quorvex::bus {

// The reply routing of a non-blocking request: its correlation id and what the caller attached.
struct PendingReply {
  std::string corrid;
  std::shared_ptr<void> context;  // opaque to the bus; released on the thread that drops the last delivery
};

enum class DeliveryKind : std::uint8_t { Reply, Message, Direct, Event, SessionDown };

struct Delivery {
  DeliveryKind kind;
  MessagePtr message;                           // Reply, Message, Direct
  std::shared_ptr<const PendingReply> request;  // Reply
  std::shared_ptr<const SessionEvent> event;    // Event
};

class SessionListener {
 public:
  virtual ~SessionListener() = default;
  // Called on the dispatcher thread with everything queued since the last call, oldest first.
  // `stop` turns true when the session is disconnecting; a long batch may end early then.
  virtual void deliver(std::vector<Delivery>& batch, const std::atomic<bool>& stop) = 0;
};

class Session {
 public:
  // Published messages queued for the listener at most, by default; and per batch.
  static constexpr std::size_t kDefaultMessageQueueLimit = 100000;
  static constexpr std::size_t kMessageBatch = 64;

  explicit Session(std::shared_ptr<SessionListener> listener);
  ~Session();  // disconnects
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Opens the link and starts the dispatcher; an open session is disconnected first.
  // BusError naming the host on failure, with the session left disconnected;
  // std::invalid_argument for invalid options (the open session is then left alone).
  void connect(const ConnectOptions& options);
  // Idempotent. Blocking requests in progress return with no reply.
  void disconnect();
  // True from a successful connect() until disconnect(), also while reconnecting or down.
  bool is_open() const;
  std::string session_id() const;

  void set_token(std::string token);
  std::string token() const;
  void set_client_name(std::string name);
  std::string client_name() const;

  // A fresh correlation id, unique within this session object.
  std::string next_correlation_id();

  // Blocking request: the reply, or nullptr when none came within `timeout` (or the session closed).
  // BusError when the session is not up; core::TopicError for an invalid topic.
  MessagePtr request(std::string topic, std::string payload, std::chrono::milliseconds timeout);
  // The same, with the wait for a reply that has not come by the time the send returns run
  // inside `around_wait` (which must call the function it is given once). A reply that is
  // already there, as from a service that answers on the sender's thread, is taken without
  // it: a binding releases its interpreter lock there, and only when there is a wait.
  using WaitScope = std::function<void(const std::function<void()>& wait)>;
  MessagePtr request(std::string topic, std::string payload, std::chrono::milliseconds timeout,
                     const WaitScope& around_wait);
  // Non-blocking request: returns at once; the reply comes as a DeliveryKind::Reply delivery.
  void request_async(std::string topic, std::string payload, std::string corrid,
                     std::shared_ptr<void> context);

  void subscribe(const std::string& filter);
  void unsubscribe(const std::string& filter);
  void publish(std::string topic, std::string payload);

  // How long disconnect() waits for a delivery in progress before leaving it behind.
  void set_disconnect_grace(std::chrono::milliseconds grace);
  // How many published messages may wait for the listener (at least 1); from the next connect on.
  void set_message_queue_limit(std::size_t limit);
  std::size_t message_queue_limit() const;

  class Core;

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace quorvex::bus
