#include "quorvex/bus/responder.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "quorvex/core/codec.hpp"
#include "quorvex/core/topic.hpp"
#include "quorvex/core/topic_index.hpp"
#include "registry.hpp"
#include "stoppable_thread.hpp"

namespace quorvex::bus {

// Where one reply goes; sends at most once.
class ReplyRoute {
 public:
  ReplyRoute(std::weak_ptr<Transport> transport, const IncomingRequest& request)
      : transport_(std::move(transport)),
        route_{request.message, Requester{request.from.session_id, {}, {}}, request.request_id,
               request.reply_topic, request.correlation} {}

  bool send(std::string payload) {
    if (replied_.exchange(true, std::memory_order_acq_rel)) return false;
    auto transport = transport_.lock();
    if (!transport) return false;
    transport->reply(route_, make_message(route_.message->topic, std::move(payload)));
    return true;
  }
  bool replied() const { return replied_.load(std::memory_order_acquire); }

 private:
  std::weak_ptr<Transport> transport_;
  IncomingRequest route_;
  std::atomic<bool> replied_{false};
};

bool ReplyHandle::reply(std::string payload) const { return route_ && route_->send(std::move(payload)); }
bool ReplyHandle::reply(const core::Value& payload) const { return reply(core::encode(payload)); }
bool ReplyHandle::replied() const { return route_ && route_->replied(); }

core::Value ServiceRequest::payload_value() const { return core::decode(payload()); }

namespace {

// Tracks inline handlers so close() can wait for those running on other threads.
class InflightGate {
 public:
  bool enter() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    active_.push_back(std::this_thread::get_id());
    return true;
  }
  void leave() {
    std::lock_guard<std::mutex> lock(mutex_);
    active_.erase(std::find(active_.begin(), active_.end(), std::this_thread::get_id()));
    idle_.notify_all();
  }
  // Handlers on the calling thread (close() from inside a handler) are not waited for.
  void close_and_wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    closed_ = true;
    const auto self = std::this_thread::get_id();
    idle_.wait(lock, [&] {
      return std::all_of(active_.begin(), active_.end(), [&](auto id) { return id == self; });
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  bool closed_ = false;
  std::vector<std::thread::id> active_;
};

void check_filter(const std::string& filter, const char* action) {
  try {
    core::check_topic_filter(filter);
  } catch (const core::TopicError& e) {
    throw core::TopicError(std::string("cannot ") + action + ": " + e.what());
  }
}

}  // namespace

class Responder::Core : public TransportListener,
                        public detail::Endpoint,
                        public std::enable_shared_from_this<Responder::Core> {
 public:
  Core(std::string host, ResponderOptions options) : host_(std::move(host)), options_(std::move(options)) {}
  void close_endpoint() override { close(); }

  void open() {
    ConnectOptions connect;
    connect.host = host_;
    connect.vpn = options_.vpn;
    connect.user = options_.user;
    connect.password = options_.password;
    connect.connect_timeout_ms = options_.connect_timeout_ms;
    connect.client_name = options_.client_name;
    connect.kind = EndpointKind::Service;
    transport_ = open_transport(connect, weak_from_this());
    session_id_ = transport_->session_id();
    worker_.start([self = shared_from_this()] { self->run_worker(); });
  }

  // ---- TransportListener ----
  void on_request(IncomingRequest request) override {
    if (options_.dispatch == Dispatch::Inline ||
        (options_.dispatch == Dispatch::InlineWhenWaited && request.from.waits &&
         may_run_inline(request.message->topic) && worker_idle())) {
      if (!inline_gate_.enter()) return;
      handle(request);
      inline_gate_.leave();
      return;
    }
    post([self = shared_from_this(), request = std::move(request)] { self->handle(request); });
  }
  void on_subscription_change(const std::string& filter, bool active) override {
    post([self = shared_from_this(), filter, active] {
      std::shared_ptr<const SubscriptionWatcher> watcher;
      {
        std::lock_guard<std::mutex> lock(self->mutex_);
        watcher = self->watcher_;
      }
      if (watcher) {
        try {
          (*watcher)(filter, active);
        } catch (const std::exception& e) {
          self->report(filter, e.what());
        } catch (...) {
          self->report(filter, "unknown exception");
        }
      }
    });
  }
  void on_link_lost(const std::string& /*reason*/) override {
    post([self = shared_from_this()] { self->recover(); });
  }

  // ---- operations ----
  void serve(const std::string& filter, RequestHandler handler) {
    check_filter(filter, "serve");
    auto shared = std::make_shared<const RequestHandler>(std::move(handler));
    std::shared_ptr<Transport> transport;
    bool is_new = true;
    std::shared_ptr<const RequestHandler> replaced;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      transport = live_transport("serve '" + filter + "'");
      if (Service* service = services_.find(filter)) {
        replaced = std::exchange(service->handler, shared);
        is_new = false;
      } else {
        services_[filter] = Service{++service_orders_, shared};
      }
    }
    if (is_new) transport->serve(filter);
  }

  void stop_serving(const std::string& filter) {
    std::shared_ptr<Transport> transport;
    std::shared_ptr<const RequestHandler> removed;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      transport = transport_;
      Service* service = services_.find(filter);
      if (service == nullptr) return;
      removed = service->handler;
      services_.erase(filter);
    }
    if (transport) transport->stop_serving(filter);
  }

  void watch(SubscriptionWatcher watcher) {
    std::shared_ptr<Transport> transport;
    std::shared_ptr<const SubscriptionWatcher> replaced;
    const bool on = static_cast<bool>(watcher);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      transport = live_transport("watch subscriptions");
      replaced = std::exchange(
          watcher_, on ? std::make_shared<const SubscriptionWatcher>(std::move(watcher)) : nullptr);
    }
    // Off and on again, so a replacing watcher also hears the filters active now.
    transport->watch_subscriptions(false);
    if (on) transport->watch_subscriptions(true);
  }

  std::shared_ptr<Transport> transport_for(const std::string& action) {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_transport(action);
  }

  void close() {
    std::shared_ptr<Transport> transport;
    core::TopicFilterIndex<Service> services;
    std::shared_ptr<const SubscriptionWatcher> watcher;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closed_) return;
      closed_ = true;
      transport = std::move(transport_);
      services = std::exchange(services_, {});
      watcher = std::move(watcher_);
    }
    if (transport) transport->close();
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard<std::mutex> lock(queue_mutex_);
      worker_.request_stop();
      dropped.swap(tasks_);
      wake_.notify_all();
    }
    worker_.stop(std::chrono::milliseconds(-1));
    inline_gate_.close_and_wait();
  }

  const std::string& session_id() const { return session_id_; }

 private:
  // A served filter's handler; `order` is its place in serving order, which decides between
  // wildcard filters that match the same topic.
  struct Service {
    std::uint64_t order = 0;
    std::shared_ptr<const RequestHandler> handler;
  };

  std::shared_ptr<Transport> live_transport(const std::string& action) const {
    if (closed_ || !transport_)
      throw BusError("cannot " + action + ": the responder on '" + host_ + "' is closed");
    return transport_;
  }

  void post(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    if (worker_.stop_requested()) return;
    tasks_.push_back(std::move(task));
    wake_.notify_one();
  }

  bool may_run_inline(const std::string& topic) const {
    if (options_.inline_filters.empty()) return true;
    for (const auto& filter : options_.inline_filters) {
      if (core::topic_matches(filter, topic)) return true;
    }
    return false;
  }

  // Nothing queued for the worker and nothing running on it.
  bool worker_idle() {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    return tasks_.empty() && !worker_busy_;
  }

  void run_worker() {
    while (true) {
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> lock(queue_mutex_);
        wake_.wait(lock, [&] { return worker_.stop_requested() || !tasks_.empty(); });
        if (worker_.stop_requested()) return;
        task = std::move(tasks_.front());
        tasks_.pop_front();
        worker_busy_ = true;
      }
      task();
      std::lock_guard<std::mutex> lock(queue_mutex_);
      worker_busy_ = false;
    }
  }

  void handle(const IncomingRequest& request) {
    const std::string& topic = request.message->topic;
    std::shared_ptr<const RequestHandler> handler;
    std::weak_ptr<Transport> transport;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (const Service* exact = services_.find(topic)) {
        handler = exact->handler;
      } else {
        const Service* first = nullptr;
        services_.for_each_wildcard_match(topic, [&](const std::string&, const Service& s) {
          if (first == nullptr || s.order < first->order) first = &s;
        });
        if (first != nullptr) handler = first->handler;
      }
      transport = transport_;
    }
    if (!handler) return;  // no longer served
    const ServiceRequest service_request(request,
                                         ReplyHandle(std::make_shared<ReplyRoute>(transport, request)));
    try {
      (*handler)(service_request);
    } catch (const std::exception& e) {
      report(topic, e.what());
    } catch (...) {
      report(topic, "unknown exception");
    }
  }

  void report(const std::string& topic, const std::string& what) {
    if (!options_.on_error) return;
    try {
      options_.on_error(topic, what);
    } catch (...) {
      // The error hook itself failed; nothing else can be told.
    }
  }

  // Re-attaches after the bus dropped the link, then restores served filters and the watcher.
  void recover() {
    std::chrono::milliseconds pause(50);
    while (true) {
      std::shared_ptr<Transport> transport;
      std::vector<std::string> filters;
      bool watching;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        transport = transport_;
        std::vector<std::pair<std::uint64_t, std::string>> served;
        services_.for_each(
            [&](const std::string& filter, const Service& s) { served.emplace_back(s.order, filter); });
        std::sort(served.begin(), served.end());  // serve again in the same order
        for (auto& entry : served) filters.push_back(std::move(entry.second));
        watching = static_cast<bool>(watcher_);
      }
      try {
        transport->reopen();
        for (const auto& filter : filters) transport->serve(filter);
        if (watching) transport->watch_subscriptions(true);
        return;
      } catch (const BusError&) {
        std::unique_lock<std::mutex> lock(queue_mutex_);
        if (wake_.wait_for(lock, pause, [&] { return worker_.stop_requested(); })) return;
        pause = std::min(pause * 2, std::chrono::milliseconds(1000));
      }
    }
  }

  const std::string host_;
  const ResponderOptions options_;
  std::string session_id_;

  mutable std::mutex mutex_;
  bool closed_ = false;
  std::shared_ptr<Transport> transport_;
  core::TopicFilterIndex<Service> services_;  // by filter
  std::uint64_t service_orders_ = 0;
  std::shared_ptr<const SubscriptionWatcher> watcher_;

  std::mutex queue_mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool worker_busy_ = false;  // a task taken from `tasks_` is running
  detail::StoppableThread worker_;
  InflightGate inline_gate_;
};

// ---- Responder ----

Responder::Responder(const std::string& host, ResponderOptions options)
    : core_(std::make_shared<Core>(host, std::move(options))) {
  core_->open();
  detail::track_endpoint(core_);
}

Responder::~Responder() { core_->close(); }

void Responder::serve(const std::string& filter, RequestHandler handler) {
  core_->serve(filter, std::move(handler));
}
void Responder::stop_serving(const std::string& filter) { core_->stop_serving(filter); }

void Responder::publish(std::string topic, std::string payload) {
  try {
    core::check_topic(topic);
  } catch (const core::TopicError& e) {
    throw core::TopicError(std::string("cannot publish: ") + e.what());
  }
  const std::shared_ptr<Transport> transport = core_->transport_for("publish on '" + topic + "'");
  transport->publish(make_message(std::move(topic), std::move(payload)));
}

void Responder::publish(std::string topic, const core::Value& payload) {
  publish(std::move(topic), core::encode(payload));
}

std::size_t Responder::send_to_session(const std::string& session_id, std::string topic,
                                       std::string payload) {
  return core_->transport_for("send to session '" + session_id + "'")
      ->send_direct(AddressKind::SessionId, session_id, make_message(std::move(topic), std::move(payload)));
}

std::size_t Responder::send_to_session(const std::string& session_id, std::string topic,
                                       const core::Value& payload) {
  return send_to_session(session_id, std::move(topic), core::encode(payload));
}

std::size_t Responder::send_to_client(const std::string& client_name, std::string topic,
                                      std::string payload) {
  return core_->transport_for("send to client '" + client_name + "'")
      ->send_direct(AddressKind::ClientName, client_name, make_message(std::move(topic), std::move(payload)));
}

std::size_t Responder::send_to_client(const std::string& client_name, std::string topic,
                                      const core::Value& payload) {
  return send_to_client(client_name, std::move(topic), core::encode(payload));
}

void Responder::watch_subscriptions(SubscriptionWatcher watcher) { core_->watch(std::move(watcher)); }

bool Responder::has_subscribers(const std::string& topic) const {
  return core_->transport_for("look up subscribers")->has_subscribers(topic);
}

const std::string& Responder::session_id() const { return core_->session_id(); }

void Responder::close() { core_->close(); }

}  // namespace quorvex::bus
