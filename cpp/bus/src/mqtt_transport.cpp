// The bus on any MQTT 5 broker, over libmosquitto. The mapping of topics, requests, replies and
// inboxes is docs/protocol.md's "The bus on MQTT"; mqtt_mapping.hpp holds its pure parts.
//
// Threads: each endpoint has one network thread that connects (blocking, so a connect timeout is
// kept by the caller's wait, not by the socket) and then runs libmosquitto's loop for I/O only.
// libmosquitto's own threaded loop is not used because it reconnects by itself; reconnecting is
// the session's decision (Session and Responder call reopen()). Sends come from any thread:
// libmosquitto queues the packet and wakes the network thread, so a sender never waits for I/O.
// Callbacks from libmosquitto run on the network thread and only copy into the listener's queues
// (or run a responder's inline handler), never taking an interpreter lock.
#include "mqtt_transport.hpp"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "mqtt_mapping.hpp"
#include "quorvex/core/topic_index.hpp"
#include "stoppable_thread.hpp"

namespace quorvex::bus {
namespace {

using Clock = std::chrono::steady_clock;

// Packets in flight each way; above it libmosquitto queues, and the broker holds back.
constexpr int kInflightMaximum = 100;
constexpr int kLoopTimeoutMs = 1000;
// How long close() waits for the goodbye to be written before leaving the network thread behind.
constexpr std::chrono::milliseconds kCloseGrace{2000};
// The longest bus topic a request can carry: its correlation data (id and topic) is at most 64 KiB.
constexpr std::size_t kLongestRequestTopic = 60000;

void init_library() {
  static const int done = [] {
    mosquitto_lib_init();
    return 0;
  }();
  (void)done;
}

// An owned MQTT 5 property list.
class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list_); }

  void add_string(int id, const std::string& value) {
    check(mosquitto_property_add_string(&list_, id, value.c_str()));
  }
  void add_pair(const char* name, const std::string& value) {
    check(mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name, value.c_str()));
  }
  void add_binary(int id, const std::string& value) {
    check(mosquitto_property_add_binary(&list_, id, value.data(), static_cast<std::uint16_t>(value.size())));
  }
  void add_int32(int id, std::uint32_t value) { check(mosquitto_property_add_int32(&list_, id, value)); }
  void add_varint(int id, std::uint32_t value) { check(mosquitto_property_add_varint(&list_, id, value)); }
  const mosquitto_property* get() const { return list_; }
  // Hands the list over (to mosquitto_will_set_v5, which frees it on success).
  mosquitto_property* release() { return std::exchange(list_, nullptr); }

 private:
  static void check(int rc) {
    if (rc == MOSQ_ERR_MALFORMED_UTF8)
      throw std::invalid_argument("a client name, token or topic that is not UTF-8 cannot travel over MQTT");
    if (rc != MOSQ_ERR_SUCCESS)
      throw BusError(std::string("MQTT property refused: ") + mosquitto_strerror(rc));
  }
  mosquitto_property* list_ = nullptr;
};

// What the bus reads from an incoming message's properties.
struct Incoming {
  std::vector<std::uint32_t> subscription_ids;
  std::string response_topic;
  std::string correlation;
  std::string token;
  std::string client;
  std::string origin;
  std::uint64_t seq = 0;
  bool waits = false;
};

Incoming read_properties(const mosquitto_property* props) {
  Incoming in;
  for (const mosquitto_property* p = props; p != nullptr; p = mosquitto_property_next(p)) {
    switch (mosquitto_property_identifier(p)) {
      case MQTT_PROP_SUBSCRIPTION_IDENTIFIER: {
        std::uint32_t id = 0;
        if (mosquitto_property_read_varint(p, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, &id, false)) {
          in.subscription_ids.push_back(id);
        }
        break;
      }
      case MQTT_PROP_RESPONSE_TOPIC: {
        char* text = nullptr;
        if (mosquitto_property_read_string(p, MQTT_PROP_RESPONSE_TOPIC, &text, false)) {
          in.response_topic = text;
          std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): libmosquitto's allocation
        }
        break;
      }
      case MQTT_PROP_CORRELATION_DATA: {
        void* data = nullptr;
        std::uint16_t len = 0;
        if (mosquitto_property_read_binary(p, MQTT_PROP_CORRELATION_DATA, &data, &len, false)) {
          in.correlation.assign(static_cast<const char*>(data), len);
          std::free(data);  // NOLINT(cppcoreguidelines-no-malloc): libmosquitto's allocation
        }
        break;
      }
      case MQTT_PROP_USER_PROPERTY: {
        char* name = nullptr;
        char* value = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false)) {
          const std::string_view key = name;
          if (key == "token") {
            in.token = value;
          } else if (key == "client") {
            in.client = value;
          } else if (key == "waits") {
            in.waits = std::strcmp(value, "1") == 0;
          } else if (key == "origin") {
            in.origin = value;
          } else if (key == "seq") {
            in.seq = std::strtoull(value, nullptr, 10);
          }
          std::free(name);   // NOLINT(cppcoreguidelines-no-malloc): libmosquitto's allocation
          std::free(value);  // NOLINT(cppcoreguidelines-no-malloc): libmosquitto's allocation
        }
        break;
      }
      default: break;
    }
  }
  return in;
}

// A request's correlation data: its id (8 bytes, big-endian) and the bus topic, echoed by the
// service so the reply needs no lookup.
std::string correlation_of(std::uint64_t request_id, const std::string& topic) {
  std::string out(8, '\0');
  for (int i = 7; i >= 0; --i) {
    out[static_cast<std::size_t>(i)] = static_cast<char>(request_id & 0xff);
    request_id >>= 8;
  }
  return out + topic;
}

bool read_correlation(const std::string& data, std::uint64_t& request_id, std::string& topic) {
  if (data.size() <= 8) return false;
  request_id = 0;
  for (std::size_t i = 0; i < 8; ++i) request_id = (request_id << 8) | static_cast<unsigned char>(data[i]);
  topic = data.substr(8);
  return true;
}

// A shared-subscription group name from a client name: MQTT forbids "/", "+" and "#" there.
std::string group_name(const std::string& client_name) {
  std::string group = client_name.empty() ? std::string("quorvex") : client_name;
  for (char& c : group) {
    if (c == '/' || c == '+' || c == '#') c = '_';
  }
  return group;
}

class MqttEndpoint : public std::enable_shared_from_this<MqttEndpoint> {
 public:
  MqttEndpoint(const ConnectOptions& options, std::weak_ptr<TransportListener> listener)
      : display_host_(host_for_display(options.host)),
        address_(mqtt::parse_broker_address(options.host)),
        topics_(options.vpn),
        session_id_(new_session_id()),
        listener_(std::move(listener)),
        service_(options.kind == EndpointKind::Service),
        group_(address_.group.empty() ? group_name(options.client_name) : address_.group),
        connect_timeout_(options.connect_timeout_ms),
        client_name_(options.client_name.empty() ? session_id_ : options.client_name) {
    init_library();
    // A session's inbox outlives its link (clean start off, a session expiry); a service keeps nothing.
    mosq_ = mosquitto_new(session_id_.c_str(), service_, this);
    if (mosq_ == nullptr) throw BusError("cannot connect to host '" + display_host_ + "': out of memory");
    configure(options);
  }

  ~MqttEndpoint() { mosquitto_destroy(mosq_); }
  MqttEndpoint(const MqttEndpoint&) = delete;
  MqttEndpoint& operator=(const MqttEndpoint&) = delete;

  void start() {
    network_.start([self = shared_from_this()] { self->run(); });
    connect_and_wait("connect to host '" + display_host_ + "'");
  }

  const std::string& session_id() const { return session_id_; }

  // ---- sending ----

  void request(const MessagePtr& message, std::uint64_t request_id, const Requester& from) {
    if (message->topic.size() > kLongestRequestTopic) {
      throw core::TopicError("cannot send a request: the topic is " + std::to_string(message->topic.size()) +
                             " bytes long; expected at most " + std::to_string(kLongestRequestTopic));
    }
    mqtt::check_mqtt_topic(message->topic, "cannot send a request");
    Properties props;
    props.add_string(MQTT_PROP_RESPONSE_TOPIC, reply_topic_);
    props.add_binary(MQTT_PROP_CORRELATION_DATA, correlation_of(request_id, message->topic));
    if (!from.token.empty()) props.add_pair("token", from.token);
    props.add_pair("client", from.client_name);
    if (from.waits) props.add_pair("waits", "1");
    send("send a request on '" + message->topic + "'", topics_.request(session_id_, message->topic), *message,
         0, props, false);
  }

  void reply(const IncomingRequest& to, const MessagePtr& reply) {
    if (to.reply_topic.empty()) return;  // the requester asked for no reply
    Properties props;
    if (!to.correlation.empty()) props.add_binary(MQTT_PROP_CORRELATION_DATA, to.correlation);
    // A reply to a requester whose link is gone is lost like a late reply; the requester's wait ends.
    send("reply on '" + reply->topic + "'", to.reply_topic, *reply, 0, props, true);
  }

  void publish(const MessagePtr& message) {
    mqtt::check_mqtt_topic(message->topic, "cannot publish");
    Properties none;
    send("publish on '" + message->topic + "'", topics_.publication(message->topic), *message, 0, none,
         false);
  }

  std::size_t send_direct(AddressKind kind, const std::string& address, const MessagePtr& message) {
    mqtt::check_mqtt_topic(message->topic, "cannot send a point-to-point message");
    std::vector<std::string> targets;
    {
      std::lock_guard<std::mutex> lock(interest_mutex_);
      if (kind == AddressKind::SessionId) {
        // A session not heard of yet may still be on its way; only one known to have left is skipped.
        if (!interest_.gone(address)) targets.push_back(address);
      } else {
        targets = interest_.sessions_named(address);
      }
    }
    for (const auto& target : targets) {
      Properties props;
      props.add_pair("origin", session_id_);
      props.add_pair("seq", std::to_string(next_seq_.fetch_add(1, std::memory_order_relaxed) + 1));
      // QoS 1: libmosquitto keeps it until the broker has it, across a lost link too.
      send("send to session '" + target + "'", topics_.inbox(target, message->topic), *message, 1, props,
           true);
    }
    return targets.size();
  }

  // ---- filters ----

  void subscribe(const std::string& filter) {
    const std::string mqtt_filter = topics_.subscription(mqtt::to_mqtt_filter(filter, "cannot subscribe"));
    if (!add_filter(filter, mqtt_filter, 0)) return;
    publish_interest(mqtt::interest::added(filter));
  }

  void unsubscribe(const std::string& filter) {
    if (!remove_filter(filter)) return;
    publish_interest(mqtt::interest::removed(filter));
  }

  void serve(const std::string& filter) {
    add_filter(filter, topics_.service_filter(group_, mqtt::to_mqtt_filter(filter, "cannot serve")), 0);
  }

  void stop_serving(const std::string& filter) { remove_filter(filter); }

  void set_client_name(const std::string& name) {
    {
      std::lock_guard<std::mutex> lock(filters_mutex_);
      client_name_ = name;
    }
    if (!service_) publish_interest(snapshot());
  }

  void watch_subscriptions(bool on) {
    std::shared_ptr<TransportListener> listener = listener_.lock();
    std::lock_guard<std::mutex> lock(interest_mutex_);
    watching_ = on;
    if (!on || !listener) return;
    for (const auto& filter : interest_.active_filters()) listener->on_subscription_change(filter, true);
  }

  bool has_subscribers(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(interest_mutex_);
    return interest_.has_subscribers(topic);
  }

  // ---- the link ----

  void reopen() { connect_and_wait("reconnect to host '" + display_host_ + "'"); }

  bool session_resumed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return session_present_;
  }

  void close() {
    if (closing_.exchange(true)) return;
    bool up;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      up = phase_ == Phase::Up;
      changed_.notify_all();
    }
    if (up && !service_) {
      // A goodbye with the will: the session ends at once and services hear it has left.
      Properties props;
      props.add_int32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
      mosquitto_disconnect_v5(mosq_, MQTT_RC_DISCONNECT_WITH_WILL_MSG, props.get());
    } else {
      mosquitto_disconnect(mosq_);
    }
    network_.stop(kCloseGrace);
  }

 private:
  enum class Phase { Idle, Connecting, Up, Failed, Lost, Closed };
  struct Filter {
    std::uint32_t id = 0;
    std::string mqtt_filter;
    int qos = 0;
  };

  void configure(const ConnectOptions& options) {
    mosquitto_threaded_set(mosq_, true);
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_int_option(mosq_, MOSQ_OPT_RECEIVE_MAXIMUM, kInflightMaximum);
    mosquitto_int_option(mosq_, MOSQ_OPT_SEND_MAXIMUM, kInflightMaximum);
    const std::string& user = options.user.empty() ? address_.user : options.user;
    const std::string& password = options.user.empty() ? address_.password : options.password;
    if (!user.empty()) {
      mosquitto_username_pw_set(mosq_, user.c_str(), password.empty() ? nullptr : password.c_str());
    }
    if (address_.tls) configure_tls();
    mosquitto_connect_v5_callback_set(
        mosq_, [](mosquitto*, void* self, int rc, int flags, const mosquitto_property* props) {
          static_cast<MqttEndpoint*>(self)->on_connect(rc, flags, props);
        });
    mosquitto_disconnect_v5_callback_set(mosq_,
                                         [](mosquitto*, void* self, int rc, const mosquitto_property*) {
                                           // Reason codes of a broker's DISCONNECT start at 0x80;
                                           // libmosquitto's own errors are small.
                                           if (rc >= 0x80)
                                             static_cast<MqttEndpoint*>(self)->broker_reason_.store(rc);
                                         });
    mosquitto_message_v5_callback_set(
        mosq_, [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* props) {
          static_cast<MqttEndpoint*>(self)->on_message(*message, props);
        });
    mosquitto_subscribe_v5_callback_set(
        mosq_, [](mosquitto*, void* self, int mid, int count, const int* granted, const mosquitto_property*) {
          static_cast<MqttEndpoint*>(self)->on_suback(mid, count, granted);
        });
    mosquitto_log_callback_set(mosq_, [](mosquitto*, void* self, int level, const char* text) {
      if (level == MOSQ_LOG_ERR) static_cast<MqttEndpoint*>(self)->note_error(text);
    });
    keepalive_s_ = 0;
    if (options.keep_alive_ms > 0) {
      const long long limit = std::max(options.keep_alive_limit, 1);
      const long long seconds = (static_cast<long long>(options.keep_alive_ms) * limit + 999) / 1000;
      keepalive_s_ =
          static_cast<int>(std::clamp<long long>(seconds, 5, 65535));  // libmosquitto's floor is 5 s
    }
    if (!service_) {
      reply_topic_ = topics_.reply(session_id_);
      Properties will;
      will.add_int32(MQTT_PROP_WILL_DELAY_INTERVAL, address_.session_expiry_s);
      const std::string gone = mqtt::interest::gone();
      const std::string topic = topics_.interest(session_id_);
      mosquitto_property* list = will.release();
      if (mosquitto_will_set_v5(mosq_, topic.c_str(), static_cast<int>(gone.size()), gone.data(), 1, false,
                                list) != MOSQ_ERR_SUCCESS) {
        mosquitto_property_free_all(&list);
      }
    }
  }

  void configure_tls() {
    const char* cafile = address_.cafile.empty() ? nullptr : address_.cafile.c_str();
    const char* capath = address_.capath.empty() ? nullptr : address_.capath.c_str();
    if (cafile == nullptr && capath == nullptr) {
      mosquitto_int_option(mosq_, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
      capath = "/etc/ssl/certs";
    }
    const int rc = mosquitto_tls_set(mosq_, cafile, capath, nullptr, nullptr, nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
      throw BusError("cannot connect to host '" + display_host_ + "': the trusted authorities (cafile '" +
                     address_.cafile + "', capath '" + address_.capath +
                     "') cannot be read; expected a readable PEM file or directory");
    }
    // Peer verification and host-name checking stay on; TLS 1.2 is the oldest accepted.
    mosquitto_tls_opts_set(mosq_, 1, "tlsv1.2", nullptr);
  }

  // Connects (on the network thread) and waits for the outcome up to the connect timeout.
  void connect_and_wait(const std::string& action) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (closing_) throw BusError("cannot " + action + ": the link was closed");
    if (phase_ == Phase::Up) return;
    phase_ = Phase::Connecting;
    const std::uint64_t attempt = ++attempt_;
    failure_.clear();
    connect_wanted_ = true;
    changed_.notify_all();
    const bool settled = changed_.wait_for(lock, std::chrono::milliseconds(connect_timeout_),
                                           [&] { return closing_ || phase_ != Phase::Connecting; });
    if (closing_) throw BusError("cannot " + action + ": the link was closed");
    if (!settled) {
      abandoned_ = attempt;
      phase_ = Phase::Failed;
      throw BusError("cannot " + action + ": no answer from the MQTT broker within " +
                     std::to_string(connect_timeout_) + " ms");
    }
    if (phase_ != Phase::Up) throw BusError("cannot " + action + ": " + failure_);
  }

  void run() {
    bool first = true;
    while (true) {
      std::uint64_t attempt;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return closing_ || connect_wanted_; });
        if (closing_) return;
        connect_wanted_ = false;
        attempt = attempt_;
        running_attempt_ = attempt;
      }
      {
        std::lock_guard<std::mutex> lock(error_mutex_);
        last_error_.clear();
      }
      broker_reason_.store(0);
      Properties connect_props;
      if (!service_) connect_props.add_int32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, address_.session_expiry_s);
      // The first call stores the host and properties; later attempts reuse them.
      int rc = first ? mosquitto_connect_bind_v5(mosq_, address_.host.c_str(), address_.port, keepalive_s_,
                                                 nullptr, connect_props.get())
                     : mosquitto_reconnect(mosq_);
      int error = errno;
      first = false;
      while (rc == MOSQ_ERR_SUCCESS) {
        if (abandoned(attempt)) {
          mosquitto_disconnect(mosq_);
          break;
        }
        rc = mosquitto_loop(mosq_, kLoopTimeoutMs, 1);
        error = errno;
      }
      link_ended(attempt, rc, error);
    }
  }

  bool abandoned(std::uint64_t attempt) {
    std::lock_guard<std::mutex> lock(mutex_);
    return abandoned_ == attempt && phase_ != Phase::Up;
  }

  void note_error(const char* text) {
    std::lock_guard<std::mutex> lock(error_mutex_);
    last_error_ = text;
  }

  std::string describe(int rc, int error) {
    const int reason = broker_reason_.load();
    if (reason >= 0x80)
      return std::string("the MQTT broker closed the link: ") + mosquitto_reason_string(reason);
    std::string logged;
    {
      std::lock_guard<std::mutex> lock(error_mutex_);
      logged = last_error_;
    }
    switch (rc) {
      case MOSQ_ERR_ERRNO: return std::strerror(error);
      case MOSQ_ERR_EAI: return "the host name '" + address_.host + "' cannot be resolved";
      case MOSQ_ERR_TLS: return "TLS failed" + (logged.empty() ? std::string() : ": " + logged);
      case MOSQ_ERR_CONN_LOST: return "the connection was lost";
      case MOSQ_ERR_KEEPALIVE: return "the MQTT broker did not answer within the keep-alive time";
      default: return logged.empty() ? std::string(mosquitto_strerror(rc)) : logged;
    }
  }

  void link_ended(std::uint64_t attempt, int rc, int error) {
    const std::string reason = describe(rc, error);
    bool lost = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closing_) {
        phase_ = Phase::Closed;
      } else if (phase_ == Phase::Up) {
        phase_ = Phase::Lost;
        lost = true;
      } else if (phase_ == Phase::Connecting && attempt == attempt_) {
        phase_ = Phase::Failed;
        failure_ = reason;
      }
      changed_.notify_all();
    }
    if (!lost) return;
    if (auto listener = listener_.lock()) {
      listener->on_link_lost("the link to " + display_host_ + " dropped: " + reason);
    }
  }

  // On the network thread, when the broker has answered the CONNECT.
  void on_connect(int rc, int flags, const mosquitto_property* props) {
    std::uint64_t attempt;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      attempt = running_attempt_;
      if (closing_ || abandoned_ == attempt) {
        mosquitto_disconnect(mosq_);
        return;
      }
      if (rc != 0) {
        phase_ = Phase::Failed;
        failure_ = std::string("the MQTT broker refused the connection: ") + mosquitto_reason_string(rc);
        changed_.notify_all();
        return;
      }
      session_present_ = (flags & 1) != 0;
      std::uint32_t max_packet = 0;
      if (mosquitto_property_read_int32(props, MQTT_PROP_MAXIMUM_PACKET_SIZE, &max_packet, false)) {
        max_packet_.store(max_packet);
      }
    }
    // Subscriptions are queued before the caller may send, so replies and reports find their way.
    if (service_) {
      subscribe_raw(topics_.interest_filter(), 1, 0);
      {
        std::shared_ptr<TransportListener> listener = listener_.lock();
        std::lock_guard<std::mutex> lock(interest_mutex_);
        // The broker may have lost every session's record: rebuild from their answers to the query.
        interest_.clear(notifier(listener));
      }
      publish_raw(topics_.interest_query(), "\x80", 1);
    } else {
      subscribe_raw(reply_topic_, 0, 0);
      subscribe_raw(topics_.inbox_filter(session_id_), 1, 0);
      subscribe_raw(topics_.interest_query(), 1, 0);
    }
    resubscribe();
    if (!service_) publish_interest(snapshot());
    std::lock_guard<std::mutex> lock(mutex_);
    if (!closing_ && abandoned_ != attempt) {
      // Also answers a newer reopen() that came while this attempt was under way.
      phase_ = Phase::Up;
      connect_wanted_ = false;
    }
    changed_.notify_all();
  }

  void on_message(const mosquitto_message& m, const mosquitto_property* props) {
    const std::string_view mqtt_topic = m.topic;
    const mqtt::TopicMap::Received received = topics_.parse(mqtt_topic);
    const char* payload = static_cast<const char*>(m.payload);
    const std::size_t size = m.payloadlen > 0 ? static_cast<std::size_t>(m.payloadlen) : 0;
    std::shared_ptr<TransportListener> listener = listener_.lock();
    if (!listener) return;
    switch (received.kind) {
      case mqtt::TopicMap::Kind::Publication: {
        if (service_) return;
        std::string topic(received.topic);
        if (!chosen_copy(topic, read_properties(props).subscription_ids, false)) return;
        listener->on_message(make_message(std::move(topic), std::string(payload, size)));
        return;
      }
      case mqtt::TopicMap::Kind::Reply: {
        if (service_ || received.session_id != session_id_) return;
        std::uint64_t request_id = 0;
        std::string topic;
        if (!read_correlation(read_properties(props).correlation, request_id, topic)) return;
        listener->on_reply(request_id, make_message(std::move(topic), std::string(payload, size)));
        return;
      }
      case mqtt::TopicMap::Kind::Inbox: {
        if (service_ || received.session_id != session_id_) return;
        const Incoming in = read_properties(props);
        if (!in.origin.empty() && in.seq != 0) {
          // QoS 1 may bring a message twice (resent after a lost acknowledgement); one origin's
          // messages arrive in order, so anything not newer than its last is a copy.
          std::uint64_t& last = last_seq_[in.origin];
          if (in.seq <= last) return;
          last = in.seq;
        }
        listener->on_direct(make_message(std::string(received.topic), std::string(payload, size)));
        return;
      }
      case mqtt::TopicMap::Kind::Request: {
        if (!service_) return;
        Incoming in = read_properties(props);
        std::string topic(received.topic);
        if (!chosen_copy(topic, in.subscription_ids, true)) return;
        IncomingRequest request;
        request.message = make_message(std::move(topic), std::string(payload, size));
        request.from =
            Requester{std::string(received.session_id), std::move(in.client), std::move(in.token), in.waits};
        request.reply_topic = std::move(in.response_topic);
        request.correlation = std::move(in.correlation);
        listener->on_request(std::move(request));
        return;
      }
      case mqtt::TopicMap::Kind::Interest: {
        if (!service_ || received.session_id.empty()) return;
        std::lock_guard<std::mutex> lock(interest_mutex_);
        interest_.apply(std::string(received.session_id), std::string_view(payload, size),
                        notifier(listener));
        return;
      }
      case mqtt::TopicMap::Kind::InterestQuery:
        if (!service_) publish_interest(snapshot());
        return;
      case mqtt::TopicMap::Kind::Unknown: return;
    }
  }

  // Under interest_mutex_: what tells a watching listener of a change.
  mqtt::InterestTable::Notify notifier(const std::shared_ptr<TransportListener>& listener) {
    if (!watching_ || !listener) return nullptr;
    return [listener](const std::string& filter, bool active) {
      listener->on_subscription_change(filter, active);
    };
  }

  // MQTT sends one copy per matching subscription; the bus delivers one. The copy kept is the
  // one of the subscription a delivery is decided by: for requests the served filter the
  // responder picks (the exact one, else the first served), for publications the oldest
  // subscription. A topic that matches none of the bus's own filters ("a/#" also matches "a")
  // is dropped.
  bool chosen_copy(const std::string& topic, const std::vector<std::uint32_t>& ids, bool exact_first) {
    std::uint32_t chosen = 0;
    {
      std::lock_guard<std::mutex> lock(filters_mutex_);
      const Filter* exact = filters_.find(topic);
      if (exact != nullptr) chosen = exact->id;
      if (exact == nullptr || !exact_first) {
        filters_.for_each_wildcard_match(topic, [&](const std::string&, const Filter& f) {
          if (chosen == 0 || f.id < chosen) chosen = f.id;
        });
      }
    }
    if (chosen == 0) return false;
    if (ids.empty()) return true;  // a broker without subscription identifiers: copies may repeat
    return std::find(ids.begin(), ids.end(), chosen) != ids.end();
  }

  // Returns false when the filter was held already.
  bool add_filter(const std::string& filter, const std::string& mqtt_filter, int qos) {
    std::lock_guard<std::mutex> lock(filters_mutex_);
    if (filters_.find(filter) != nullptr) return false;
    Filter& entry = filters_[filter];
    entry.id = next_filter_id_++;
    entry.mqtt_filter = mqtt_filter;
    entry.qos = qos;
    order_.push_back(filter);
    const int mid = subscribe_raw(mqtt_filter, qos, entry.id);
    if (mid > 0) pending_subacks_[mid] = filter;
    return true;
  }

  bool remove_filter(const std::string& filter) {
    std::string mqtt_filter;
    {
      std::lock_guard<std::mutex> lock(filters_mutex_);
      const Filter* entry = filters_.find(filter);
      if (entry == nullptr) return false;
      mqtt_filter = entry->mqtt_filter;
      filters_.erase(filter);
      order_.erase(std::remove(order_.begin(), order_.end(), filter), order_.end());
    }
    // While the link is down the broker's copy stays; its messages match no filter and are dropped.
    mosquitto_unsubscribe_v5(mosq_, nullptr, mqtt_filter.c_str(), nullptr);
    return true;
  }

  // The filters held, subscribed again in the order they were added (on the network thread).
  void resubscribe() {
    std::lock_guard<std::mutex> lock(filters_mutex_);
    pending_subacks_.clear();
    for (const auto& filter : order_) {
      const Filter* entry = filters_.find(filter);
      const int mid = subscribe_raw(entry->mqtt_filter, entry->qos, entry->id);
      if (mid > 0) pending_subacks_[mid] = filter;
    }
  }

  // The message id of the SUBSCRIBE, or 0 when it could not be queued (no link: the filter is
  // subscribed when the link is back).
  int subscribe_raw(const std::string& mqtt_filter, int qos, std::uint32_t id) {
    Properties props;
    if (id != 0) props.add_varint(MQTT_PROP_SUBSCRIPTION_IDENTIFIER, id);
    int mid = 0;
    const int rc = mosquitto_subscribe_v5(mosq_, &mid, mqtt_filter.c_str(), qos, 0, props.get());
    if (rc == MOSQ_ERR_NO_CONN) return 0;
    if (rc != MOSQ_ERR_SUCCESS) {
      throw BusError("cannot subscribe to '" + mqtt_filter + "' on " + display_host_ + ": " +
                     mosquitto_strerror(rc));
    }
    return mid;
  }

  void on_suback(int mid, int count, const int* granted) {
    std::string filter;
    {
      std::lock_guard<std::mutex> lock(filters_mutex_);
      auto it = pending_subacks_.find(mid);
      if (it == pending_subacks_.end()) return;
      filter = std::move(it->second);
      pending_subacks_.erase(it);
      if (count < 1 || granted[0] < 0x80) return;
      filters_.erase(filter);
      order_.erase(std::remove(order_.begin(), order_.end(), filter), order_.end());
    }
    if (!service_) publish_interest(mqtt::interest::removed(filter));
    if (auto listener = listener_.lock()) {
      listener->on_subscription_refused(
          filter, std::string("the MQTT broker refused it: ") + mosquitto_reason_string(granted[0]));
    }
  }

  std::string snapshot() {
    std::lock_guard<std::mutex> lock(filters_mutex_);
    return mqtt::interest::snapshot(client_name_, order_);
  }

  // Interest records are QoS 1: libmosquitto keeps them across a lost link, in order.
  void publish_interest(const std::string& record) {
    if (service_) return;
    publish_raw(topics_.interest(session_id_), record, 1);
  }

  void publish_raw(const std::string& topic, const std::string& payload, int qos) {
    mosquitto_publish_v5(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                         false, nullptr);
  }

  void send(const std::string& action, const std::string& mqtt_topic, const Message& message, int qos,
            const Properties& props, bool quiet_when_down) {
    const int rc =
        mosquitto_publish_v5(mosq_, nullptr, mqtt_topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), qos, false, props.get());
    switch (rc) {
      case MOSQ_ERR_SUCCESS: return;
      case MOSQ_ERR_NO_CONN:
        // A QoS 1 message is queued and goes out when the link is back.
        if (qos > 0 || quiet_when_down) return;
        throw BusError("cannot " + action + ": the link to " + display_host_ + " is down");
      case MOSQ_ERR_OVERSIZE_PACKET:
        throw std::length_error(
            "cannot " + action + ": the message of " + std::to_string(message.payload.size()) +
            " bytes is larger than the MQTT broker at " + display_host_ + " accepts (packets of at most " +
            std::to_string(max_packet_.load()) + " bytes); expected a smaller payload");
      case MOSQ_ERR_PAYLOAD_SIZE:
        throw std::length_error("cannot " + action + ": the message of " +
                                std::to_string(message.payload.size()) +
                                " bytes is larger than MQTT can carry (256 MiB)");
      case MOSQ_ERR_MALFORMED_UTF8:
        throw core::TopicError("cannot " + action + ": the topic is not UTF-8; expected UTF-8 text");
      default: throw BusError("cannot " + action + " on " + display_host_ + ": " + mosquitto_strerror(rc));
    }
  }

  const std::string display_host_;
  const mqtt::BrokerAddress address_;
  const mqtt::TopicMap topics_;
  const std::string session_id_;
  const std::weak_ptr<TransportListener> listener_;
  const bool service_;
  const std::string group_;
  std::string reply_topic_;
  mosquitto* mosq_ = nullptr;
  int keepalive_s_ = 0;
  const int connect_timeout_;

  // The link, guarded by mutex_.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Phase phase_ = Phase::Idle;
  bool connect_wanted_ = false;
  std::uint64_t attempt_ = 0;
  std::uint64_t abandoned_ = 0;
  std::uint64_t running_attempt_ = 0;  // the attempt the network thread works on
  std::string failure_;
  bool session_present_ = false;
  std::atomic<bool> closing_{false};
  std::atomic<int> broker_reason_{0};
  std::atomic<std::uint32_t> max_packet_{0};

  std::mutex error_mutex_;
  std::string last_error_;  // libmosquitto's last error log line (TLS errors come only that way)

  // Subscribed or served filters, guarded by filters_mutex_.
  std::mutex filters_mutex_;
  core::TopicFilterIndex<Filter> filters_;
  std::vector<std::string> order_;
  std::map<int, std::string> pending_subacks_;  // SUBSCRIBE message id -> bus filter
  std::uint32_t next_filter_id_ = 1;
  std::string client_name_;

  mutable std::mutex interest_mutex_;
  mqtt::InterestTable interest_;
  bool watching_ = false;

  std::unordered_map<std::string, std::uint64_t> last_seq_;  // network thread only
  std::atomic<std::uint64_t> next_seq_{0};

  detail::StoppableThread network_;
};

class MqttTransport final : public Transport {
 public:
  explicit MqttTransport(std::shared_ptr<MqttEndpoint> endpoint) : endpoint_(std::move(endpoint)) {}
  ~MqttTransport() override { endpoint_->close(); }

  const std::string& session_id() const override { return endpoint_->session_id(); }
  void set_client_name(const std::string& name) override { endpoint_->set_client_name(name); }
  void request(MessagePtr message, std::uint64_t request_id, const Requester& from) override {
    endpoint_->request(message, request_id, from);
  }
  void reply(const IncomingRequest& to, MessagePtr reply) override { endpoint_->reply(to, reply); }
  void publish(MessagePtr message) override { endpoint_->publish(message); }
  std::size_t send_direct(AddressKind kind, const std::string& address, MessagePtr message) override {
    return endpoint_->send_direct(kind, address, message);
  }
  void subscribe(const std::string& filter) override { endpoint_->subscribe(filter); }
  void unsubscribe(const std::string& filter) override { endpoint_->unsubscribe(filter); }
  void serve(const std::string& filter) override { endpoint_->serve(filter); }
  void stop_serving(const std::string& filter) override { endpoint_->stop_serving(filter); }
  void watch_subscriptions(bool on) override { endpoint_->watch_subscriptions(on); }
  bool has_subscribers(const std::string& topic) const override { return endpoint_->has_subscribers(topic); }
  void reopen() override { endpoint_->reopen(); }
  bool session_resumed() const override { return endpoint_->session_resumed(); }
  void close() override { endpoint_->close(); }

 private:
  std::shared_ptr<MqttEndpoint> endpoint_;
};

}  // namespace

std::unique_ptr<Transport> open_mqtt_transport(const ConnectOptions& options,
                                               std::weak_ptr<TransportListener> listener) {
  auto endpoint = std::make_shared<MqttEndpoint>(options, std::move(listener));
  try {
    endpoint->start();
  } catch (...) {
    endpoint->close();
    throw;
  }
  return std::make_unique<MqttTransport>(std::move(endpoint));
}

}  // namespace quorvex::bus
