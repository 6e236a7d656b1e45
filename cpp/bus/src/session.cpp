#include "quorvex/bus/session.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "quorvex/core/topic.hpp"
#include "registry.hpp"
#include "stoppable_thread.hpp"

namespace quorvex::bus {
namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<const SessionEvent> make_event(SessionEventCode code, int response_code, std::string info) {
  return std::make_shared<const SessionEvent>(SessionEvent{code, response_code, std::move(info)});
}

void check_options(const ConnectOptions& o) {
  auto require = [&](bool ok, const char* name, int value, const char* expected) {
    if (!ok)
      throw std::invalid_argument(std::string(name) + " must be " + expected + ", got " +
                                  std::to_string(value));
  };
  require(o.connect_timeout_ms > 0, "connect_timeout_ms", o.connect_timeout_ms, "positive");
  require(o.reconnect_retries >= -1, "reconnect_retries", o.reconnect_retries, "-1 (forever) or more");
  require(o.keep_alive_ms >= 0, "keep_alive_ms", o.keep_alive_ms, "zero or more");
  require(o.reconnect_retry_wait_ms >= 0, "reconnect_retry_wait", o.reconnect_retry_wait_ms, "zero or more");
  require(o.keep_alive_limit >= 0, "keep_alive_limit", o.keep_alive_limit, "zero or more");
}

void check_topic_for(const std::string& topic, const char* action) {
  try {
    core::check_topic(topic);
  } catch (const core::TopicError& e) {
    throw core::TopicError(std::string("cannot ") + action + ": " + e.what());
  }
}

// The pause before reconnect attempt `attempt` (from 0): the retry wait doubling each time up to
// a cap, each pause drawn from its upper half so that sessions dropped together spread out.
std::chrono::milliseconds retry_pause(int retry_wait_ms, int attempt) {
  constexpr long long kCapMs = 30000;
  const long long cap = std::max<long long>(retry_wait_ms, kCapMs);
  const long long full =
      std::min<long long>(static_cast<long long>(retry_wait_ms) << std::min(attempt, 20), cap);
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::uniform_real_distribution<double> half_to_full(0.5, 1.0);
  return std::chrono::milliseconds(static_cast<long long>(static_cast<double>(full) * half_to_full(random)));
}

// Deliveries of one connection in two lanes, and the thread that hands them to the listener.
struct Channel {
  explicit Channel(std::size_t limit) : message_limit(limit) {}

  std::mutex mutex;
  std::condition_variable wake;
  std::vector<Delivery> urgent;   // replies, point-to-point messages, events: never dropped
  std::deque<Delivery> messages;  // published messages: the oldest go first when full
  const std::size_t message_limit;
  std::uint64_t dropped = 0;  // messages dropped since the last SlowConsumer event
  bool link_lost = false;
  std::string link_lost_reason;
  detail::StoppableThread thread;

  void push(Delivery delivery) {
    std::lock_guard<std::mutex> lock(mutex);
    if (thread.stop_requested()) return;
    const bool was_idle = urgent.empty() && messages.empty();
    if (delivery.kind == DeliveryKind::Message) {
      if (messages.size() >= message_limit) {
        messages.pop_front();
        ++dropped;
      }
      messages.push_back(std::move(delivery));
    } else {
      urgent.push_back(std::move(delivery));
    }
    if (was_idle) wake.notify_one();
  }

  void flag_link_lost(const std::string& reason) {
    std::lock_guard<std::mutex> lock(mutex);
    link_lost = true;
    link_lost_reason = reason;
    wake.notify_one();
  }

  bool has_work() const { return !urgent.empty() || !messages.empty() || link_lost; }
};

// The dispatcher's own state while it recovers a lost link.
struct Recovery {
  bool active = false;
  int attempt = 0;
  Clock::time_point next_at;
  std::string last_error;
};

}  // namespace

class Session::Core : public detail::Endpoint, public std::enable_shared_from_this<Session::Core> {
 public:
  explicit Core(std::shared_ptr<SessionListener> listener) : listener_(std::move(listener)) {}
  void close_endpoint() override { disconnect(); }

  void connect(const ConnectOptions& options);
  void disconnect();
  MessagePtr request(std::string topic, std::string payload, std::chrono::milliseconds timeout,
                     const Session::WaitScope& around_wait);
  void request_async(std::string topic, std::string payload, std::string corrid,
                     std::shared_ptr<void> context);
  void subscribe(const std::string& filter);
  void unsubscribe(const std::string& filter);
  void publish(std::string topic, std::string payload);
  void set_client_name(std::string name);
  bool is_open() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_ != LinkState::Closed;
  }

  // From the transport, on any thread.
  void complete(std::uint64_t request_id, MessagePtr reply, const std::shared_ptr<Channel>& channel);

  mutable std::mutex mutex_;
  std::string token_;
  std::string client_name_;
  std::string session_id_;
  std::atomic<std::uint64_t> next_corrid_{0};
  std::chrono::milliseconds grace_{1000};
  std::size_t message_limit_ = Session::kDefaultMessageQueueLimit;

  // From the transport, on any thread: ends every request waiting on the lost link.
  void link_lost(const std::shared_ptr<Channel>& channel, const std::string& reason);
  void subscription_refused(const std::shared_ptr<Channel>& channel, const std::string& filter,
                            const std::string& reason);

 private:
  enum class LinkState { Closed, Up, Reconnecting, Down };

  struct BlockingWait {
    std::condition_variable done_cv;
    MessagePtr reply;
    bool done = false;
  };
  struct Pending {
    BlockingWait* waiter = nullptr;             // blocking request, on the caller's stack
    std::shared_ptr<const PendingReply> async;  // non-blocking request
  };

  void run_dispatcher(const std::shared_ptr<Channel>& channel);
  void start_recovery(const std::shared_ptr<Channel>& channel, const std::string& reason, Recovery& recovery);
  void try_reconnect(const std::shared_ptr<Channel>& channel, Recovery& recovery);
  std::shared_ptr<Transport> usable_transport(const std::string& action) const;
  std::uint64_t add_pending(Pending pending);
  void drop_pending(std::uint64_t request_id);

  std::shared_ptr<SessionListener> listener_;
  LinkState state_ = LinkState::Closed;
  ConnectOptions options_;
  std::shared_ptr<Transport> transport_;
  std::shared_ptr<TransportListener> link_listener_;
  std::shared_ptr<Channel> channel_;
  std::uint64_t next_request_id_ = 0;
  std::unordered_map<std::uint64_t, Pending> pending_;
  std::vector<std::string> subscriptions_;
  std::vector<std::string> dropped_while_down_;  // unsubscribed while the link was down
  std::mutex subscription_order_;                // keeps transport subscribe/unsubscribe calls in call order
};

namespace {

// Routes one connection's transport events into its channel; holds the core weakly.
class LinkListener final : public TransportListener {
 public:
  LinkListener(std::weak_ptr<Session::Core> core, std::shared_ptr<Channel> channel)
      : core_(std::move(core)), channel_(std::move(channel)) {}

  void on_reply(std::uint64_t request_id, MessagePtr reply) override {
    if (auto core = core_.lock()) core->complete(request_id, std::move(reply), channel_);
  }
  void on_message(MessagePtr message) override {
    channel_->push(Delivery{DeliveryKind::Message, std::move(message), {}, {}});
  }
  void on_direct(MessagePtr message) override {
    channel_->push(Delivery{DeliveryKind::Direct, std::move(message), {}, {}});
  }
  void on_link_lost(const std::string& reason) override {
    if (auto core = core_.lock()) core->link_lost(channel_, reason);
  }
  void on_subscription_refused(const std::string& filter, const std::string& reason) override {
    if (auto core = core_.lock()) core->subscription_refused(channel_, filter, reason);
  }

 private:
  std::weak_ptr<Session::Core> core_;
  std::shared_ptr<Channel> channel_;
};

}  // namespace

void Session::Core::connect(const ConnectOptions& options) {
  check_options(options);
  disconnect();
  std::size_t limit;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    limit = message_limit_;
  }
  auto channel = std::make_shared<Channel>(limit);
  auto link_listener = std::make_shared<LinkListener>(weak_from_this(), channel);
  std::shared_ptr<Transport> transport = open_transport(options, link_listener);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    options_ = options;
    transport_ = transport;
    link_listener_ = link_listener;
    channel_ = channel;
    session_id_ = transport->session_id();
    client_name_ = options.client_name.empty() ? session_id_ : options.client_name;
    subscriptions_.clear();
    dropped_while_down_.clear();
    state_ = LinkState::Up;
  }
  channel->thread.start([weak = weak_from_this(), channel] {
    if (auto core = weak.lock()) core->run_dispatcher(channel);
  });
  channel->push(
      Delivery{DeliveryKind::Event,
               {},
               {},
               make_event(SessionEventCode::Connected, 0, "connected to " + host_for_display(options.host))});
}

void Session::Core::run_dispatcher(const std::shared_ptr<Channel>& channel) {
  // The thread holds the core, so a Session dropped from inside a delivery (or left behind by a
  // disconnect whose grace ran out) stays valid until the loop ends.
  std::vector<Delivery> batch;
  Recovery recovery;
  while (true) {
    bool lost = false;
    std::string reason;
    {
      std::unique_lock<std::mutex> lock(channel->mutex);
      auto ready = [&] { return channel->thread.stop_requested() || channel->has_work(); };
      if (recovery.active) {
        channel->wake.wait_until(lock, recovery.next_at, ready);
      } else {
        channel->wake.wait(lock, ready);
      }
      if (channel->thread.stop_requested()) return;
      batch.swap(channel->urgent);
      if (channel->dropped > 0) {
        const std::uint64_t dropped = std::exchange(channel->dropped, 0);
        batch.push_back(
            Delivery{DeliveryKind::Event,
                     {},
                     {},
                     make_event(SessionEventCode::SlowConsumer, 1,
                                "dropped " + std::to_string(dropped) +
                                    " published messages: the message callback fell behind by more than " +
                                    std::to_string(channel->message_limit) + " queued messages")});
      }
      for (std::size_t n = 0; n < Session::kMessageBatch && !channel->messages.empty(); ++n) {
        batch.push_back(std::move(channel->messages.front()));
        channel->messages.pop_front();
      }
      lost = std::exchange(channel->link_lost, false);
      reason = std::move(channel->link_lost_reason);
    }
    if (!batch.empty() && listener_) {
      try {
        listener_->deliver(batch, channel->thread.stop_flag());
      } catch (...) {
        // A listener's failure must not end the dispatcher; the batch is dropped.
      }
    }
    batch.clear();
    if (lost) start_recovery(channel, reason, recovery);
    if (recovery.active && Clock::now() >= recovery.next_at) try_reconnect(channel, recovery);
  }
}

void Session::Core::link_lost(const std::shared_ptr<Channel>& channel, const std::string& reason) {
  std::unordered_map<std::uint64_t, Pending> forgotten;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel_ != channel || state_ != LinkState::Up) return;
    // A blocking request waiting on a lost link ends now, as a timed-out one does; a reply
    // to a non-blocking one cannot come either.
    for (auto& entry : pending_) {
      if (entry.second.waiter) {
        entry.second.waiter->done = true;
        entry.second.waiter->done_cv.notify_one();
      }
    }
    forgotten.swap(pending_);
  }
  channel->flag_link_lost(reason);
  // `forgotten` releases the callers' contexts here, with no lock held.
}

void Session::Core::subscription_refused(const std::shared_ptr<Channel>& channel, const std::string& filter,
                                         const std::string& reason) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel_ != channel) return;
    subscriptions_.erase(std::remove(subscriptions_.begin(), subscriptions_.end(), filter),
                         subscriptions_.end());
  }
  channel->push(Delivery{DeliveryKind::Event,
                         {},
                         {},
                         make_event(SessionEventCode::SubscriptionError, 1,
                                    "the subscription to '" + filter + "' failed: " + reason)});
}

void Session::Core::start_recovery(const std::shared_ptr<Channel>& channel, const std::string& reason,
                                   Recovery& recovery) {
  int retry_wait_ms;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel_ != channel || state_ != LinkState::Up) return;
    state_ = LinkState::Reconnecting;
    retry_wait_ms = options_.reconnect_retry_wait_ms;
  }
  channel->push(Delivery{DeliveryKind::Event, {}, {}, make_event(SessionEventCode::Reconnecting, 0, reason)});
  recovery = Recovery{true, 0, Clock::now() + retry_pause(retry_wait_ms, 0), reason};
}

void Session::Core::try_reconnect(const std::shared_ptr<Channel>& channel, Recovery& recovery) {
  std::shared_ptr<Transport> transport;
  ConnectOptions options;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel_ != channel || state_ != LinkState::Reconnecting) {
      recovery.active = false;
      return;
    }
    transport = transport_;
    options = options_;
  }
  auto emit = [&](SessionEventCode code, int response_code, std::string info) {
    channel->push(Delivery{DeliveryKind::Event, {}, {}, make_event(code, response_code, std::move(info))});
  };
  bool reopened = false;
  if (options.reconnect_retries != 0) {
    try {
      transport->reopen();
      reopened = true;
    } catch (const BusError& e) {
      recovery.last_error = e.what();
    }
  }
  if (!reopened) {
    ++recovery.attempt;
    if (options.reconnect_retries < 0 || recovery.attempt < options.reconnect_retries) {
      recovery.next_at = Clock::now() + retry_pause(options.reconnect_retry_wait_ms, recovery.attempt);
      return;
    }
    recovery.active = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (channel_ != channel) return;
      state_ = LinkState::Down;
    }
    emit(SessionEventCode::Down, 1,
         "gave up reconnecting to " + host_for_display(options.host) + ": " + recovery.last_error);
    channel->push(Delivery{DeliveryKind::SessionDown, {}, {}, {}});
    return;
  }
  recovery.active = false;
  std::vector<std::string> filters;
  std::vector<std::string> dropped;
  {
    std::lock_guard<std::mutex> lock(subscription_order_);
    {
      std::lock_guard<std::mutex> lock_core(mutex_);
      if (channel_ != channel) return;
      filters = subscriptions_;
      dropped.swap(dropped_while_down_);
    }
    for (const auto& filter : dropped) {
      try {
        transport->unsubscribe(filter);
      } catch (const std::exception&) {
        // Gone with the old link already.
      }
    }
    for (const auto& filter : filters) {
      try {
        transport->subscribe(filter);
      } catch (const std::exception& e) {
        emit(SessionEventCode::SubscriptionError, 1,
             "could not restore subscription '" + filter + "': " + e.what());
      }
    }
    std::lock_guard<std::mutex> lock_core(mutex_);
    if (channel_ != channel) return;
    state_ = LinkState::Up;
  }
  if (transport->session_resumed()) {
    emit(SessionEventCode::Reconnected, 0, "reconnected to " + host_for_display(options.host));
  } else {
    emit(SessionEventCode::Reconnected, 1,
         "reconnected to " + host_for_display(options.host) +
             "; the broker did not keep the session, so point-to-point messages sent meanwhile (order "
             "and deal reports) are lost: refresh the order status");
  }
}

void Session::Core::disconnect() {
  std::shared_ptr<Transport> transport;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<TransportListener> link_listener;
  std::unordered_map<std::uint64_t, Pending> pending;
  std::chrono::milliseconds grace;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == LinkState::Closed) return;
    state_ = LinkState::Closed;
    transport = std::move(transport_);
    channel = std::move(channel_);
    link_listener = std::move(link_listener_);
    pending.swap(pending_);
    subscriptions_.clear();
    grace = grace_;
    for (auto& entry : pending) {
      if (entry.second.waiter) {
        entry.second.waiter->done = true;
        entry.second.waiter->done_cv.notify_one();
      }
    }
  }
  if (transport) transport->close();
  link_listener.reset();
  if (channel) {
    std::vector<Delivery> undelivered;
    std::deque<Delivery> unread;
    {
      std::lock_guard<std::mutex> lock(channel->mutex);
      undelivered.swap(channel->urgent);
      unread.swap(channel->messages);
    }
    // Setting the flag and waking happen under the channel's lock so the thread cannot miss them.
    {
      std::lock_guard<std::mutex> lock(channel->mutex);
      channel->thread.request_stop();
      channel->wake.notify_all();
    }
    channel->thread.stop(grace);
  }
  // `pending` and `undelivered` release their contexts here, with no lock held.
}

std::shared_ptr<Transport> Session::Core::usable_transport(const std::string& action) const {
  switch (state_) {
    case LinkState::Up: return transport_;
    case LinkState::Closed:
      throw BusError("cannot " + action + ": the session is not connected; call connect() first");
    case LinkState::Reconnecting:
      throw BusError("cannot " + action + ": the session is reconnecting to " +
                     host_for_display(options_.host));
    case LinkState::Down:
      throw BusError("cannot " + action + ": the session is down (reconnecting to " +
                     host_for_display(options_.host) + " failed); connect again");
  }
  return nullptr;
}

MessagePtr Session::Core::request(std::string topic, std::string payload, std::chrono::milliseconds timeout,
                                  const Session::WaitScope& around_wait) {
  check_topic_for(topic, "send a request");
  BlockingWait wait;
  std::shared_ptr<Transport> transport;
  Requester from;
  std::uint64_t request_id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transport = usable_transport("send a request on '" + topic + "'");
    request_id = ++next_request_id_;
    pending_[request_id] = Pending{&wait, nullptr};
    from = Requester{session_id_, client_name_, token_, true};
  }
  // Capped so that adding it to the clock cannot overflow.
  const auto deadline =
      Clock::now() + std::min<std::chrono::milliseconds>(timeout, std::chrono::hours(24 * 365));
  try {
    transport->request(make_message(std::move(topic), std::move(payload)), request_id, from);
  } catch (...) {
    drop_pending(request_id);
    throw;
  }
  bool replied = false;
  auto wait_for_reply = [&] {
    std::unique_lock<std::mutex> lock(mutex_);
    replied = wait.done_cv.wait_until(lock, deadline, [&] { return wait.done; });
    if (!replied) pending_.erase(request_id);
  };
  {
    std::unique_lock<std::mutex> lock(mutex_);
    replied = wait.done;
  }
  if (!replied) {
    if (around_wait) {
      around_wait(wait_for_reply);
    } else {
      wait_for_reply();
    }
  }
  if (!replied) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);  // the reply was written under the lock
  return std::move(wait.reply);
}

void Session::Core::request_async(std::string topic, std::string payload, std::string corrid,
                                  std::shared_ptr<void> context) {
  check_topic_for(topic, "send a request");
  auto reply_route =
      std::make_shared<const PendingReply>(PendingReply{std::move(corrid), std::move(context)});
  std::shared_ptr<Transport> transport;
  Requester from;
  std::uint64_t request_id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transport = usable_transport("send a request on '" + topic + "'");
    request_id = ++next_request_id_;
    pending_[request_id] = Pending{nullptr, reply_route};
    from = Requester{session_id_, client_name_, token_};
  }
  try {
    transport->request(make_message(std::move(topic), std::move(payload)), request_id, from);
  } catch (...) {
    drop_pending(request_id);
    throw;
  }
}

void Session::Core::drop_pending(std::uint64_t request_id) {
  Pending dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = pending_.find(request_id);
    if (it == pending_.end()) return;
    dropped = std::move(it->second);
    pending_.erase(it);
  }
}

void Session::Core::complete(std::uint64_t request_id, MessagePtr reply,
                             const std::shared_ptr<Channel>& channel) {
  std::shared_ptr<const PendingReply> async;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel_ != channel) return;  // a reply to an earlier connection
    auto it = pending_.find(request_id);
    if (it == pending_.end()) return;  // timed out already
    if (BlockingWait* wait = it->second.waiter) {
      wait->reply = std::move(reply);
      wait->done = true;
      wait->done_cv.notify_one();
      pending_.erase(it);
      return;
    }
    async = std::move(it->second.async);
    pending_.erase(it);
  }
  channel->push(Delivery{DeliveryKind::Reply, std::move(reply), std::move(async), {}});
}

void Session::Core::subscribe(const std::string& filter) {
  try {
    core::check_topic_filter(filter);
  } catch (const core::TopicError& e) {
    throw core::TopicError(std::string("cannot subscribe: ") + e.what());
  }
  std::lock_guard<std::mutex> order(subscription_order_);
  std::shared_ptr<Transport> transport;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == LinkState::Closed) usable_transport("subscribe to '" + filter + "'");
    if (std::find(subscriptions_.begin(), subscriptions_.end(), filter) != subscriptions_.end()) return;
    subscriptions_.push_back(filter);
    // While the link is down the subscription is kept and restored on reconnect.
    if (state_ == LinkState::Up) transport = transport_;
  }
  if (!transport) return;
  try {
    transport->subscribe(filter);
  } catch (...) {
    std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_.erase(std::remove(subscriptions_.begin(), subscriptions_.end(), filter),
                         subscriptions_.end());
    throw;
  }
}

void Session::Core::unsubscribe(const std::string& filter) {
  std::lock_guard<std::mutex> order(subscription_order_);
  std::shared_ptr<Transport> transport;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == LinkState::Closed) usable_transport("unsubscribe from '" + filter + "'");
    auto it = std::find(subscriptions_.begin(), subscriptions_.end(), filter);
    if (it == subscriptions_.end()) return;
    subscriptions_.erase(it);
    if (state_ == LinkState::Up) {
      transport = transport_;
    } else {
      dropped_while_down_.push_back(filter);
    }
  }
  if (transport) transport->unsubscribe(filter);
}

void Session::Core::publish(std::string topic, std::string payload) {
  check_topic_for(topic, "publish");
  std::shared_ptr<Transport> transport;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transport = usable_transport("publish on '" + topic + "'");
  }
  transport->publish(make_message(std::move(topic), std::move(payload)));
}

void Session::Core::set_client_name(std::string name) {
  std::shared_ptr<Transport> transport;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    client_name_ = name;
    if (state_ == LinkState::Up) transport = transport_;
  }
  if (transport) transport->set_client_name(name);
}

// ---- Session ----

Session::Session(std::shared_ptr<SessionListener> listener)
    : core_(std::make_shared<Core>(std::move(listener))) {
  detail::track_endpoint(core_);
}

Session::~Session() { core_->disconnect(); }

void Session::connect(const ConnectOptions& options) { core_->connect(options); }
void Session::disconnect() { core_->disconnect(); }

bool Session::is_open() const { return core_->is_open(); }

std::string Session::session_id() const {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  return core_->session_id_;
}

void Session::set_token(std::string token) {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  core_->token_ = std::move(token);
}

std::string Session::token() const {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  return core_->token_;
}

void Session::set_client_name(std::string name) { core_->set_client_name(std::move(name)); }

std::string Session::client_name() const {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  return core_->client_name_;
}

std::string Session::next_correlation_id() {
  return std::to_string(core_->next_corrid_.fetch_add(1, std::memory_order_relaxed) + 1);
}

MessagePtr Session::request(std::string topic, std::string payload, std::chrono::milliseconds timeout) {
  return core_->request(std::move(topic), std::move(payload), timeout, nullptr);
}

MessagePtr Session::request(std::string topic, std::string payload, std::chrono::milliseconds timeout,
                            const WaitScope& around_wait) {
  return core_->request(std::move(topic), std::move(payload), timeout, around_wait);
}

void Session::request_async(std::string topic, std::string payload, std::string corrid,
                            std::shared_ptr<void> context) {
  core_->request_async(std::move(topic), std::move(payload), std::move(corrid), std::move(context));
}

void Session::subscribe(const std::string& filter) { core_->subscribe(filter); }
void Session::unsubscribe(const std::string& filter) { core_->unsubscribe(filter); }
void Session::publish(std::string topic, std::string payload) {
  core_->publish(std::move(topic), std::move(payload));
}

void Session::set_disconnect_grace(std::chrono::milliseconds grace) {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  core_->grace_ = grace;
}

void Session::set_message_queue_limit(std::size_t limit) {
  if (limit == 0) throw std::invalid_argument("the message queue limit must be at least 1 message, got 0");
  std::lock_guard<std::mutex> lock(core_->mutex_);
  core_->message_limit_ = limit;
}

std::size_t Session::message_queue_limit() const {
  std::lock_guard<std::mutex> lock(core_->mutex_);
  return core_->message_limit_;
}

}  // namespace quorvex::bus
