// The service side of the bus: serve request topics, reply now or later, publish, send
// point-to-point messages to one session, and learn when topics gain or lose subscribers.
//
//   auto responder = std::make_shared<Responder>("inproc://paper");
//   responder->serve("api/v1/portfolio/>", [](const ServiceRequest& req) {
//     const core::Value payload = req.payload_value();
//     req.reply(core::Value::map({{"status", core::Value::map({{"status_code", 200}})}}));
//   });
//
// Threading and blocking:
//   - Handlers and the subscription watcher run on the responder's worker thread, one at a time,
//     in arrival order (Dispatch::Worker, the default), or, for requests, inline on the requesting
//     thread (Dispatch::Inline: lowest latency; handlers must then be thread-safe and quick).
//     Dispatch::InlineWhenWaited mixes the two: a request whose sender is blocked waiting for it
//     runs on the sender's thread when the worker has nothing queued or running (so it cannot
//     overtake an earlier request), every other one on the worker; the sender's wait then costs
//     no thread hand-over, and a sender that does not wait is not slowed by the handler.
//   - reply(), publish() and send_to_*() may be called from any thread, also inside handlers.
//   - close() stops new deliveries and waits for a handler running on the worker, unless called
//     from a handler; inline handlers already running on other threads are waited for too.
//   - A handler that throws sends no reply; the exception goes to the error hook, if set.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/bus/message.hpp"
#include "quorvex/bus/transport.hpp"
#include "quorvex/core/value.hpp"

namespace quorvex::bus {

class ReplyRoute;

// Replies to one request; copyable, usable from any thread. Only the first reply is sent.
class ReplyHandle {
 public:
  ReplyHandle() = default;
  // False when already replied, or the responder is closed.
  bool reply(std::string payload) const;
  bool reply(const core::Value& payload) const;
  bool replied() const;
  explicit operator bool() const { return static_cast<bool>(route_); }

 private:
  friend class Responder;
  explicit ReplyHandle(std::shared_ptr<ReplyRoute> route) : route_(std::move(route)) {}
  std::shared_ptr<ReplyRoute> route_;
};

// One request as a service sees it.
class ServiceRequest {
 public:
  ServiceRequest(IncomingRequest request, ReplyHandle handle)
      : request_(std::move(request)), handle_(std::move(handle)) {}

  const std::string& topic() const { return request_.message->topic; }
  // The payload's msgpack bytes.
  std::string_view payload() const { return request_.message->payload; }
  // The payload decoded; core::CodecError when it is not well-formed msgpack.
  core::Value payload_value() const;
  const std::string& token() const { return request_.from.token; }
  const std::string& client_name() const { return request_.from.client_name; }
  const std::string& session_id() const { return request_.from.session_id; }

  bool reply(std::string payload) const { return handle_.reply(std::move(payload)); }
  bool reply(const core::Value& payload) const { return handle_.reply(payload); }
  // For a reply later, from any thread.
  ReplyHandle reply_handle() const { return handle_; }

 private:
  IncomingRequest request_;
  ReplyHandle handle_;
};

using RequestHandler = std::function<void(const ServiceRequest&)>;
using SubscriptionWatcher = std::function<void(const std::string& filter, bool active)>;
using ErrorHook = std::function<void(const std::string& topic, const std::string& what)>;

enum class Dispatch { Worker, Inline, InlineWhenWaited };

struct ResponderOptions {
  std::string client_name = "responder";  // on MQTT also the shared-subscription group of its services
  // The connection, as for a session (ConnectOptions); the password is a secret, never logged.
  std::string vpn;
  std::string user;
  std::string password;
  int connect_timeout_ms = 3000;
  Dispatch dispatch = Dispatch::Worker;
  // With InlineWhenWaited: only requests on topics matching one of these filters may run on
  // the sender's thread (every topic when empty). A binding may hold its interpreter lock
  // through a send, so services that can take long (large pages) belong on the worker.
  std::vector<std::string> inline_filters;
  ErrorHook on_error;  // handler exceptions; runs where the handler ran
};

class Responder {
 public:
  // Connects to `host` (any registered scheme). BusError naming the host on failure. A lost link
  // is reopened on the worker thread, with pauses growing to a second, until close().
  explicit Responder(const std::string& host, ResponderOptions options = {});
  ~Responder();  // close()
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  // Serves requests on topics matching `filter`; serving the same filter again replaces its handler.
  // BusError for an invalid filter.
  void serve(const std::string& filter, RequestHandler handler);
  void stop_serving(const std::string& filter);

  void publish(std::string topic, std::string payload);
  void publish(std::string topic, const core::Value& payload);
  // Point-to-point: return how many sessions received the message (0 when none is connected).
  std::size_t send_to_session(const std::string& session_id, std::string topic, std::string payload);
  std::size_t send_to_session(const std::string& session_id, std::string topic, const core::Value& payload);
  std::size_t send_to_client(const std::string& client_name, std::string topic, std::string payload);
  std::size_t send_to_client(const std::string& client_name, std::string topic, const core::Value& payload);

  // `watcher` learns of every filter that gains its first subscriber (true) or loses its last
  // (false), starting with those active now. Replaces an earlier watcher; nullptr stops watching.
  void watch_subscriptions(SubscriptionWatcher watcher);
  bool has_subscribers(const std::string& topic) const;

  const std::string& session_id() const;
  void close();

  class Core;

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace quorvex::bus
