// The in-process bus. One mutex guards the routing tables; deliveries to listeners happen under it
// (they only queue work, and keep one order across publishers), except requests, which may run
// service code inline, and replies, which may release the requester's context: those go out unlocked.
#include "quorvex/bus/inproc.hpp"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "quorvex/core/topic_index.hpp"
#include "registry.hpp"

namespace quorvex::bus {
namespace {

struct Link {
  std::string session_id;
  std::string client_name;
  std::weak_ptr<TransportListener> listener;
  bool attached = true;
  bool closed = false;
  bool watching = false;
  std::uint64_t publish_mark = 0;  // dedupes a publish that matches several of this link's filters
};
using LinkPtr = std::shared_ptr<Link>;

template <class F>
void with_listener(const Link& link, F&& f) {
  if (auto listener = link.listener.lock()) f(*listener);
}

void erase_link(std::vector<LinkPtr>& links, const LinkPtr& link) {
  links.erase(std::remove(links.begin(), links.end(), link), links.end());
}

// The subscribers of one filter. `order` counts from when the filter gained its first subscriber:
// a publish reaches the subscribers of its exact filter first, then those of matching wildcard
// filters in that order.
struct Subscription {
  std::uint64_t order = 0;
  std::vector<LinkPtr> links;  // in subscription order
};

// One endpoint serving a filter; `order` is its place in serving order across all filters.
struct Server {
  std::uint64_t order = 0;
  LinkPtr link;
};

class Bus final : public InprocBus, public std::enable_shared_from_this<Bus> {
 public:
  explicit Bus(std::string name) : name_(std::move(name)) {}

  const std::string& name() const override { return name_; }
  std::unique_ptr<Transport> attach(const ConnectOptions& options,
                                    std::weak_ptr<TransportListener> listener) override;
  bool sever(const std::string& session_id) override;
  void shutdown() override;
  void restart() override;
  std::size_t endpoint_count() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return links_.size();
  }

  // Operations of the links.
  void set_client_name(const LinkPtr& link, const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    link->client_name = name;
  }

  void request(const LinkPtr& from_link, MessagePtr message, std::uint64_t request_id,
               const Requester& from) {
    std::shared_ptr<TransportListener> server;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      require_attached(*from_link, "send a request");
      if (const Link* link = find_server(message->topic)) server = link->listener.lock();
    }
    if (server) server->on_request(IncomingRequest{std::move(message), from, request_id, {}, {}});
  }

  // Delivered unlocked: completing a reply may release what the requester attached to it.
  void reply(const IncomingRequest& to, MessagePtr reply) {
    std::shared_ptr<TransportListener> requester;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = links_.find(to.from.session_id);
      if (it == links_.end()) return;  // the requester has gone
      requester = it->second->listener.lock();
    }
    if (requester) requester->on_reply(to.request_id, std::move(reply));
  }

  void publish(const LinkPtr& from_link, const MessagePtr& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    require_attached(*from_link, "publish");
    const std::uint64_t mark = ++publish_marks_;
    auto deliver = [&](const Subscription& subscription) {
      for (const auto& link : subscription.links) {
        if (link->publish_mark == mark) continue;
        link->publish_mark = mark;
        with_listener(*link, [&](TransportListener& l) { l.on_message(message); });
      }
    };
    if (const Subscription* exact = subscriptions_.find(message->topic)) deliver(*exact);
    matched_.clear();
    subscriptions_.for_each_wildcard_match(
        message->topic, [&](const std::string&, const Subscription& s) { matched_.push_back(&s); });
    if (matched_.size() > 1) {
      std::sort(matched_.begin(), matched_.end(),
                [](const auto* a, const auto* b) { return a->order < b->order; });
    }
    for (const Subscription* subscription : matched_) deliver(*subscription);
  }

  std::size_t send_direct(const LinkPtr& from_link, AddressKind kind, const std::string& address,
                          const MessagePtr& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    require_attached(*from_link, "send a point-to-point message");
    std::size_t delivered = 0;
    auto deliver = [&](const Link& link) {
      with_listener(link, [&](TransportListener& l) {
        l.on_direct(message);
        ++delivered;
      });
    };
    if (kind == AddressKind::SessionId) {
      auto it = links_.find(address);
      if (it != links_.end()) deliver(*it->second);
    } else {
      for (const auto& entry : links_) {
        if (entry.second->client_name == address) deliver(*entry.second);
      }
    }
    return delivered;
  }

  void subscribe(const LinkPtr& link, const std::string& filter) {
    std::lock_guard<std::mutex> lock(mutex_);
    require_attached(*link, "subscribe");
    auto& subscription = subscriptions_[filter];
    auto& links = subscription.links;
    if (std::find(links.begin(), links.end(), link) != links.end()) return;
    links.push_back(link);
    if (links.size() == 1) {
      subscription.order = ++subscription_orders_;
      notify_watchers(filter, true);
    }
  }

  void unsubscribe(const LinkPtr& link, const std::string& filter) {
    std::lock_guard<std::mutex> lock(mutex_);
    unsubscribe_locked(link, filter);
  }

  void serve(const LinkPtr& link, const std::string& filter) {
    std::lock_guard<std::mutex> lock(mutex_);
    require_attached(*link, "serve");
    auto& servers = servers_[filter];
    for (const auto& server : servers) {
      if (server.link == link) return;
    }
    servers.push_back(Server{++serving_orders_, link});
  }

  void stop_serving(const LinkPtr& link, const std::string& filter) {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_serving_locked(link, filter);
  }

  void watch(const LinkPtr& link, bool on) {
    std::lock_guard<std::mutex> lock(mutex_);
    require_attached(*link, "watch subscriptions");
    if (link->watching == on) return;
    link->watching = on;
    if (!on) {
      erase_link(watchers_, link);
      return;
    }
    watchers_.push_back(link);
    subscriptions_.for_each([&](const std::string& filter, const Subscription&) {
      with_listener(*link, [&](TransportListener& l) { l.on_subscription_change(filter, true); });
    });
  }

  bool has_subscribers(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_.matches_any(topic);
  }

  void reopen(const LinkPtr& link) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (link->closed) throw BusError("cannot reconnect to inproc://" + name_ + ": the link was closed");
    if (shut_down_) throw BusError("cannot reconnect to inproc://" + name_ + ": the bus is shut down");
    if (link->attached) return;
    link->attached = true;
    links_[link->session_id] = link;
  }

  void close(const LinkPtr& link) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (link->closed) return;
    link->closed = true;
    detach_locked(link);
  }

 private:
  void require_attached(const Link& link, const char* what) const {
    if (!link.attached) {
      throw BusError("cannot " + std::string(what) + " on inproc://" + name_ + ": the link is " +
                     (link.closed ? "closed" : "down"));
    }
  }

  const Link* find_server(const std::string& topic) const {
    if (const auto* exact = servers_.find(topic)) return exact->front().link.get();
    const Server* first = nullptr;
    servers_.for_each_wildcard_match(topic, [&](const std::string&, const std::vector<Server>& servers) {
      if (first == nullptr || servers.front().order < first->order) first = &servers.front();
    });
    return first != nullptr ? first->link.get() : nullptr;
  }

  void stop_serving_locked(const LinkPtr& link, const std::string& filter) {
    auto* servers = servers_.find(filter);
    if (servers == nullptr) return;
    servers->erase(
        std::remove_if(servers->begin(), servers->end(), [&](const Server& s) { return s.link == link; }),
        servers->end());
    if (servers->empty()) servers_.erase(filter);
  }

  void notify_watchers(const std::string& filter, bool active) {
    for (const auto& watcher : watchers_) {
      with_listener(*watcher, [&](TransportListener& l) { l.on_subscription_change(filter, active); });
    }
  }

  void unsubscribe_locked(const LinkPtr& link, const std::string& filter) {
    Subscription* subscription = subscriptions_.find(filter);
    if (subscription == nullptr) return;
    const std::size_t before = subscription->links.size();
    erase_link(subscription->links, link);
    if (subscription->links.empty() && before > 0) {
      subscriptions_.erase(filter);
      notify_watchers(filter, false);
    }
  }

  // Removes a link from every table; its subscriptions and served filters are forgotten.
  void detach_locked(const LinkPtr& link) {
    if (!link->attached) return;
    link->attached = false;
    links_.erase(link->session_id);
    std::vector<std::string> filters;
    subscriptions_.for_each([&](const std::string& filter, const Subscription& s) {
      if (std::find(s.links.begin(), s.links.end(), link) != s.links.end()) filters.push_back(filter);
    });
    for (const auto& filter : filters) unsubscribe_locked(link, filter);
    filters.clear();
    servers_.for_each([&](const std::string& filter, const std::vector<Server>& servers) {
      if (std::any_of(servers.begin(), servers.end(), [&](const Server& s) { return s.link == link; })) {
        filters.push_back(filter);
      }
    });
    for (const auto& filter : filters) stop_serving_locked(link, filter);
    if (link->watching) {
      link->watching = false;
      erase_link(watchers_, link);
    }
  }

  std::string name_;
  mutable std::mutex mutex_;
  bool shut_down_ = false;
  std::unordered_map<std::string, LinkPtr> links_;       // attached links by session id
  core::TopicFilterIndex<Subscription> subscriptions_;   // filter -> subscribers, never empty
  core::TopicFilterIndex<std::vector<Server>> servers_;  // filter -> servers in serving order, never empty
  std::vector<LinkPtr> watchers_;
  std::uint64_t publish_marks_ = 0;
  std::uint64_t subscription_orders_ = 0;
  std::uint64_t serving_orders_ = 0;
  std::vector<const Subscription*> matched_;  // publish's scratch list, kept to spare an allocation
};

class InprocLink final : public Transport {
 public:
  InprocLink(std::shared_ptr<Bus> bus, LinkPtr link) : bus_(std::move(bus)), link_(std::move(link)) {}
  ~InprocLink() override { close(); }

  const std::string& session_id() const override { return link_->session_id; }
  void set_client_name(const std::string& name) override { bus_->set_client_name(link_, name); }
  void request(MessagePtr message, std::uint64_t request_id, const Requester& from) override {
    bus_->request(link_, std::move(message), request_id, from);
  }
  void reply(const IncomingRequest& to, MessagePtr reply) override { bus_->reply(to, std::move(reply)); }
  void publish(MessagePtr message) override { bus_->publish(link_, message); }
  std::size_t send_direct(AddressKind kind, const std::string& address, MessagePtr message) override {
    return bus_->send_direct(link_, kind, address, message);
  }
  void subscribe(const std::string& filter) override { bus_->subscribe(link_, filter); }
  void unsubscribe(const std::string& filter) override { bus_->unsubscribe(link_, filter); }
  void serve(const std::string& filter) override { bus_->serve(link_, filter); }
  void stop_serving(const std::string& filter) override { bus_->stop_serving(link_, filter); }
  void watch_subscriptions(bool on) override { bus_->watch(link_, on); }
  bool has_subscribers(const std::string& topic) const override { return bus_->has_subscribers(topic); }
  void reopen() override { bus_->reopen(link_); }
  void close() override { bus_->close(link_); }

 private:
  std::shared_ptr<Bus> bus_;
  LinkPtr link_;
};

std::unique_ptr<Transport> Bus::attach(const ConnectOptions& options,
                                       std::weak_ptr<TransportListener> listener) {
  auto link = std::make_shared<Link>();
  link->session_id = new_session_id();
  link->client_name = options.client_name.empty() ? link->session_id : options.client_name;
  link->listener = std::move(listener);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_down_) throw BusError("cannot connect to host 'inproc://" + name_ + "': the bus is shut down");
    links_[link->session_id] = link;
  }
  return std::make_unique<InprocLink>(shared_from_this(), std::move(link));
}

bool Bus::sever(const std::string& session_id) {
  LinkPtr link;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = links_.find(session_id);
    if (it == links_.end()) return false;
    link = it->second;
    detach_locked(link);
  }
  with_listener(*link, [&](TransportListener& l) {
    l.on_link_lost("the bus inproc://" + name_ + " dropped the link");
  });
  return true;
}

void Bus::shutdown() {
  std::vector<LinkPtr> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shut_down_ = true;
    for (const auto& entry : links_) dropped.push_back(entry.second);
    for (const auto& link : dropped) detach_locked(link);
  }
  for (const auto& link : dropped) {
    with_listener(*link,
                  [&](TransportListener& l) { l.on_link_lost("the bus inproc://" + name_ + " shut down"); });
  }
}

void Bus::restart() {
  std::lock_guard<std::mutex> lock(mutex_);
  shut_down_ = false;
}

}  // namespace

std::shared_ptr<InprocBus> InprocBus::named(const std::string& name) {
  if (name.empty()) throw BusError("an in-process bus needs a name, as in inproc://NAME");
  auto& reg = detail::registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  auto& slot = reg.buses[name];
  if (auto existing = slot.lock()) return existing;
  for (auto it = reg.buses.begin(); it != reg.buses.end();) {
    it = it->second.expired() && it->first != name ? reg.buses.erase(it) : std::next(it);
  }
  auto bus = std::make_shared<Bus>(name);
  slot = bus;
  return bus;
}

}  // namespace quorvex::bus
