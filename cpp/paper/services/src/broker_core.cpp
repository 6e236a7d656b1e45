#include "quorvex/paper/broker_core.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "account_desk.hpp"
#include "auth_desk.hpp"
#include "contract_desk.hpp"
#include "order_desk.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/paper/feed/market_clock.hpp"
#include "request.hpp"

namespace quorvex::paper {

// ---- Outbox ----

void Outbox::push(Outgoing message) {
  std::lock_guard<std::mutex> lock(mutex_);
  queue_.push_back(std::move(message));
}

std::size_t Outbox::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return queue_.size();
}

std::vector<std::string> Outbox::drain(DirectSender& sender) {
  std::vector<std::string> gone;
  std::unique_lock<std::mutex> lock(mutex_);
  if (draining_) return gone;
  draining_ = true;
  while (!queue_.empty()) {
    Outgoing message = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    try {
      if (message.reply_to) {
        message.reply_to->reply(std::move(message.payload));
      } else if (sender.send_to_session(message.session_id, std::move(message.topic),
                                        std::move(message.payload)) == 0) {
        gone.push_back(std::move(message.session_id));
      }
    } catch (...) {
      // A carrier that fails to send one message must not strand the rest.
    }
    lock.lock();
  }
  draining_ = false;
  return gone;
}

// ---- the core's state: its clocks, the market and the desks ----

namespace {

// Market time: the broker clock from a starting instant, sped up by a factor.
class ScaledClock final : public core::Clock {
 public:
  ScaledClock(std::shared_ptr<const core::Clock> base, double speed)
      : base_(std::move(base)), speed_(speed), start_(base_->now()) {}
  time_point now() const override {
    const time_point base_now = base_->now();
    if (speed_ == 1.0) return base_now;
    const auto elapsed = std::chrono::duration<double>(base_now - start_) * speed_;
    return start_ + std::chrono::duration_cast<duration>(elapsed);
  }

 private:
  std::shared_ptr<const core::Clock> base_;
  double speed_;
  time_point start_;
};

std::shared_ptr<const core::Clock> clock_of(const PaperBrokerConfig& config) {
  return config.clock ? config.clock : core::system_clock();
}

// The reference data's day: the market clock's Taipei date, or the last business day before it.
ContractMasterConfig master_config(const PaperBrokerConfig& config, const core::Clock& clock) {
  ContractMasterConfig master = config.contracts;
  if (!config.use_config_trading_day) {
    Date day = taipei_date(to_timestamp(clock.now()));
    while (!day.is_business_day()) day = day.plus_days(-1);
    master.trading_day = day;
  }
  return master;
}

EngineConfig engine_config(const PaperBrokerConfig& config) {
  EngineConfig engine;
  engine.liquidity.enabled = config.synthetic_liquidity;
  engine.liquidity.seed = config.seed;
  return engine;
}

double checked_speed(double speed) {
  if (!(speed > 0.0) || speed > 1e6) {
    throw std::invalid_argument("clock_speed " + std::to_string(speed) +
                                " is not usable; expected above 0, at most 1e6");
  }
  return speed;
}

}  // namespace

// Everything is guarded by `mutex`: the desks run with it held, one request at a time.
struct BrokerCore::State {
  explicit State(const PaperBrokerConfig& config)
      : clock(clock_of(config)),
        market_clock(config.market_start != 0
                         ? std::make_shared<const ReplayClock>(clock, config.market_start)
                         : clock,
                     checked_speed(config.clock_speed)),
        master(master_config(config, market_clock)),
        engine(master, market_clock, engine_config(config)),
        auth(config, *clock),
        contracts(master),
        accounts(master, auth, market_clock, *clock, mark_prices()),
        orders(engine, master, auth, accounts, market_clock, *clock) {
    auth.serve(services);
    contracts.serve(services);
    accounts.serve(services);
    orders.serve(services);
  }

  // Decides one request; returns the encoded reply. Reports are left in `request.reports`.
  std::string decide(Request& request);

  // Open positions are valued at the market's last price, or the reference before any trade.
  MarkPrice mark_prices() const {
    return [this](std::string_view code) -> std::optional<Price> {
      const Result<BookSnapshot> book = engine.book(code, Board::Common, 0);
      if (book && book->last_price) return book->last_price;
      const Contract* contract = master.find(code);
      if (contract == nullptr) return std::nullopt;
      return contract->reference;
    };
  }

  std::mutex mutex;
  std::shared_ptr<const core::Clock> clock;  // the broker clock
  ScaledClock market_clock;
  ContractMaster master;
  MatchingEngine engine;
  ServiceTable services;
  AuthDesk auth;
  ContractDesk contracts;
  AccountDesk accounts;
  OrderDesk orders;
};

std::string BrokerCore::State::decide(Request& request) {
  core::Value reply;
  try {
    const ServiceTable::Route* route = services.find(request.topic);
    if (route == nullptr) {
      wire::refuse(wire::kNotFound, "no service on topic " + request.topic +
                                        "; expected one of the api/v1/ topics "
                                        "in the protocol description");
    }
    auth.admit(request, route->access);
    // What the market did since the last request is booked first, so every answer sees it.
    orders.settle_events(request);
    core::Value response = route->service(request);
    if (!request.encoded_reply.empty()) return std::move(request.encoded_reply);
    reply = wire::ok_reply(std::move(response));
  } catch (const ServiceRefused& refusal) {
    // Reports stay: they tell of what did happen before the refusal (a placement the engine
    // recorded and refused, for one).
    reply = wire::refused_reply(refusal);
  } catch (const core::ValueError& e) {
    reply =
        wire::refused_reply(ServiceRefused(wire::kBadRequest, std::string("malformed payload: ") + e.what()));
  } catch (const std::exception& e) {
    reply = wire::refused_reply(ServiceRefused(500, std::string("the paper broker failed: ") + e.what()));
  }
  return core::encode(reply);
}

// ---- BrokerCore ----

BrokerCore::BrokerCore(PaperBrokerConfig config) : state_(std::make_unique<State>(config)) {}
BrokerCore::~BrokerCore() = default;

void BrokerCore::handle(const Caller& caller, const std::string& topic, std::string_view payload,
                        std::shared_ptr<const ReplyTarget> reply_to, Outbox& out) {
  // The size is checked before decoding, so an oversized request costs nothing to refuse.
  core::Value decoded;
  std::optional<ServiceRefused> unreadable;
  if (payload.size() > wire::kMaxRequestBytes) {
    unreadable.emplace(wire::kPayloadTooLarge,
                       "the request is " + std::to_string(payload.size()) + " bytes; expected at most " +
                           std::to_string(wire::kMaxRequestBytes),
                       wire::kTooLarge);
  } else {
    try {
      decoded = core::decode(payload);
    } catch (const std::exception&) {
      unreadable.emplace(wire::kBadRequest,
                         "the payload is not one well-formed msgpack message; expected a map");
    }
  }
  std::lock_guard<std::mutex> lock(state_->mutex);
  Request request{caller, topic, decoded};
  request.payload_bytes = payload.size();
  std::string reply = unreadable ? core::encode(wire::refused_reply(*unreadable)) : state_->decide(request);
  // Under the lock, so that messages leave in the order their requests were decided.
  if (reply_to) out.push(Outgoing{std::move(reply_to), {}, topic, std::move(reply)});
  for (Report& report : request.reports) {
    out.push(
        Outgoing{nullptr, std::move(report.session_id), std::move(report.topic), std::move(report.payload)});
  }
}

void BrokerCore::session_closed(const std::string& session_id) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->auth.session_closed(session_id);
}

void BrokerCore::add_service(std::string topic, ServiceHandler handler, bool simulation_allowed) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->services.serve(topic, simulation_allowed ? Access::Session : Access::LiveOnly,
                         [handler = std::move(handler)](Request& request) {
                           const ServiceCall call{request.caller, request.topic, request.payload,
                                                  request.person().person_id, request.simulation()};
                           return handler(call);
                         });
}

std::vector<std::string> BrokerCore::topics() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::vector<std::string> topics;
  for (const auto& route : state_->services.routes()) topics.push_back(route.first);
  std::sort(topics.begin(), topics.end());
  return topics;
}

void BrokerCore::settle(Outbox& out) {
  static const std::string kNoTopic;
  std::lock_guard<std::mutex> lock(state_->mutex);
  const Caller nobody;
  const core::Value nothing;
  Request request(nobody, kNoTopic, nothing);
  state_->orders.settle_events(request);
  for (Report& report : request.reports) {
    out.push(
        Outgoing{nullptr, std::move(report.session_id), std::move(report.topic), std::move(report.payload)});
  }
}

void BrokerCore::add_deal_listener(DealListener listener) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->orders.add_deal_listener(std::move(listener));
}

MatchingEngine& BrokerCore::engine() { return state_->engine; }

const ContractMaster& BrokerCore::contracts() const { return state_->master; }
const core::Clock& BrokerCore::market_clock() const { return state_->market_clock; }

}  // namespace quorvex::paper
