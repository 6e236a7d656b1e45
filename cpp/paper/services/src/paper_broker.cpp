#include "quorvex/paper/paper_broker.hpp"

#include <algorithm>
#include <map>
#include <mutex>
#include <stdexcept>

#include "quorvex/bus/inproc.hpp"
#include "quorvex/bus/responder.hpp"
#include "quorvex/paper/feed/market_data_link.hpp"

namespace quorvex::paper {

namespace {

class BusReply final : public ReplyTarget {
 public:
  explicit BusReply(bus::ReplyHandle handle) : handle_(std::move(handle)) {}
  void reply(std::string payload) const override { handle_.reply(std::move(payload)); }

 private:
  bus::ReplyHandle handle_;
};

class ResponderSender final : public DirectSender {
 public:
  explicit ResponderSender(bus::Responder& responder) : responder_(responder) {}
  std::size_t send_to_session(const std::string& session_id, std::string topic,
                              std::string payload) override {
    return responder_.send_to_session(session_id, std::move(topic), std::move(payload));
  }

 private:
  bus::Responder& responder_;
};

}  // namespace

// The broker's endpoint on its bus and the queue its messages leave through.
struct PaperBroker::Link {
  Link(BrokerCore& core, const std::string& bus_name, const BusLogin& login) : core(core) {
    bus::ResponderOptions options;
    options.client_name = "paper-broker";
    options.vpn = login.vpn;
    options.user = login.user;
    options.password = login.password;
    // A blocking request is decided on its sender's thread, which waits anyway, when nothing
    // is queued before it; everything else on the responder's own thread, so a non-blocking
    // sender goes on at once and its reply lands after the placeholder it files on return.
    // Only the quick services: contract pages and market history can be large, and the
    // sender's thread may hold an interpreter lock through the send.
    options.dispatch = bus::Dispatch::InlineWhenWaited;
    options.inline_filters = {"api/v1/auth/>", "api/v1/order/>", "api/v1/paper/>", "api/v1/portfolio/>"};
    const bool has_scheme = bus_name.find("://") != std::string::npos;
    responder =
        std::make_unique<bus::Responder>(has_scheme ? bus_name : "inproc://" + bus_name, std::move(options));
    sender = std::make_unique<ResponderSender>(*responder);
    responder->serve("api/v1/>", [this](const bus::ServiceRequest& request) { serve(request); });
  }

  void serve(const bus::ServiceRequest& request) {
    core.handle(Caller{request.session_id(), request.client_name(), request.token()}, request.topic(),
                request.payload(), std::make_shared<BusReply>(request.reply_handle()), outbox);
    for (const std::string& gone : outbox.drain(*sender)) core.session_closed(gone);
  }

  BrokerCore& core;
  Outbox outbox;
  std::unique_ptr<bus::Responder> responder;
  std::unique_ptr<ResponderSender> sender;
};

// The seed is a plain number, still readable once the core has taken the configuration.
PaperBroker::PaperBroker(PaperBrokerConfig config)
    : core_(std::make_unique<BrokerCore>(std::move(config))),
      market_data_(std::make_unique<MarketDataLink>(*core_, MarketDataOptions{config.seed, {}})) {}

PaperBroker::~PaperBroker() { close(); }

void PaperBroker::attach(const std::string& bus_name, const BusLogin& login) {
  if (link_) {
    throw std::logic_error("the paper broker is already attached to bus '" + bus_name_ +
                           "'; close() it first");
  }
  link_ = std::make_unique<Link>(*core_, bus_name, login);
  market_data_->attach(*link_->responder);
  bus_name_ = bus_name;
}

void PaperBroker::close() {
  if (!link_) return;
  market_data_->detach();
  link_->responder->close();
  link_.reset();
  bus_name_.clear();
}

bool PaperBroker::attached() const { return static_cast<bool>(link_); }
const std::string& PaperBroker::bus_name() const { return bus_name_; }
BrokerCore& PaperBroker::core() { return *core_; }

void PaperBroker::settle() {
  if (!link_) return;
  core_->settle(link_->outbox);
  for (const std::string& gone : link_->outbox.drain(*link_->sender)) core_->session_closed(gone);
}

// ---- the paper:// scheme ----

namespace {

// The embedded brokers of paper:// buses, counted by the sessions attached through the scheme.
// Owned by the scheme's transport factory, which the bus registry keeps.
class EmbeddedBrokers : public std::enable_shared_from_this<EmbeddedBrokers> {
 public:
  // Keeps the bus's broker running while the lease lives.
  class Lease {
   public:
    Lease(std::shared_ptr<EmbeddedBrokers> owner, std::string bus)
        : owner_(std::move(owner)), bus_(std::move(bus)) {}
    ~Lease() { owner_->release(bus_); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

   private:
    std::shared_ptr<EmbeddedBrokers> owner_;
    std::string bus_;
  };

  std::unique_ptr<Lease> acquire(const std::string& bus, const std::string& options,
                                 const std::string& host) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto running = slots_.find(bus);
    if (running != slots_.end() && running->second.broker && !options.empty() &&
        options != running->second.options) {
      const std::string& now = running->second.options;
      throw bus::BusError("the paper broker of '" + host + "' already runs " +
                          (now.empty() ? std::string("without market options") : "with '" + now + "'") +
                          "; connect with the same options or none");
    }
    Slot& slot = slots_[bus];
    if (!slot.broker) {
      PaperBrokerConfig config = demo_config();
      apply_market_options(config, options, host);
      auto broker = std::make_unique<PaperBroker>(std::move(config));
      slot.options = options;
      broker->attach(bus);
      slot.broker = std::move(broker);
    }
    ++slot.sessions;
    return std::make_unique<Lease>(shared_from_this(), bus);
  }

 private:
  struct Slot {
    std::unique_ptr<PaperBroker> broker;
    std::size_t sessions = 0;
    std::string options;  // the market options it started with
  };

  // The last lease closes the broker under the lock, so a session connecting meanwhile gets a
  // new broker only after the old one stopped serving.
  void release(const std::string& bus) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = slots_.find(bus);
    if (it == slots_.end() || --it->second.sessions > 0) return;
    std::unique_ptr<PaperBroker> stopping = std::move(it->second.broker);
    slots_.erase(it);
    stopping.reset();
  }

  std::mutex mutex_;
  std::map<std::string, Slot> slots_;
};

// A session's in-process link that also keeps its bus's embedded broker alive.
class BrokeredTransport final : public bus::Transport {
 public:
  BrokeredTransport(std::unique_ptr<EmbeddedBrokers::Lease> lease, std::unique_ptr<bus::Transport> inner)
      : lease_(std::move(lease)), inner_(std::move(inner)) {}
  ~BrokeredTransport() override { inner_->close(); }

  const std::string& session_id() const override { return inner_->session_id(); }
  void set_client_name(const std::string& name) override { inner_->set_client_name(name); }
  void request(bus::MessagePtr message, std::uint64_t request_id, const bus::Requester& from) override {
    inner_->request(std::move(message), request_id, from);
  }
  void reply(const bus::IncomingRequest& to, bus::MessagePtr reply) override {
    inner_->reply(to, std::move(reply));
  }
  void publish(bus::MessagePtr message) override { inner_->publish(std::move(message)); }
  std::size_t send_direct(bus::AddressKind kind, const std::string& address,
                          bus::MessagePtr message) override {
    return inner_->send_direct(kind, address, std::move(message));
  }
  void subscribe(const std::string& filter) override { inner_->subscribe(filter); }
  void unsubscribe(const std::string& filter) override { inner_->unsubscribe(filter); }
  void serve(const std::string& filter) override { inner_->serve(filter); }
  void stop_serving(const std::string& filter) override { inner_->stop_serving(filter); }
  void watch_subscriptions(bool on) override { inner_->watch_subscriptions(on); }
  bool has_subscribers(const std::string& topic) const override { return inner_->has_subscribers(topic); }
  void reopen() override { inner_->reopen(); }
  void close() override { inner_->close(); }

 private:
  // Declared first, released last: the session's link closes before the broker may stop.
  std::unique_ptr<EmbeddedBrokers::Lease> lease_;
  std::unique_ptr<bus::Transport> inner_;
};

std::string paper_bus_name(const std::string& host) {
  const auto pos = host.find("://");
  std::string name = pos == std::string::npos ? std::string() : host.substr(pos + 3);
  name = name.substr(0, name.find('?'));  // market options follow a "?"
  return name.empty() ? std::string(kDefaultPaperBus) : name;
}

std::string paper_options(const std::string& host) {
  const auto pos = host.find('?');
  return pos == std::string::npos ? std::string() : host.substr(pos + 1);
}

}  // namespace

void register_paper_scheme() {
  // Registering twice would strand the brokers of the first table, so the first one stays.
  const std::vector<std::string> schemes = bus::registered_schemes();
  if (std::find(schemes.begin(), schemes.end(), "paper") != schemes.end()) return;
  auto brokers = std::make_shared<EmbeddedBrokers>();
  bus::register_transport(
      "paper",
      [brokers](const bus::ConnectOptions& options,
                std::weak_ptr<bus::TransportListener> listener) -> std::unique_ptr<bus::Transport> {
        const std::string name = paper_bus_name(options.host);
        auto lease = brokers->acquire(name, paper_options(options.host), options.host);
        auto inner = bus::InprocBus::named(name)->attach(options, std::move(listener));
        return std::make_unique<BrokeredTransport>(std::move(lease), std::move(inner));
      });
}

}  // namespace quorvex::paper
