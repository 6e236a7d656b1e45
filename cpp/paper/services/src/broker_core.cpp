#include <sodium.h>

#include <algorithm>
#include <stdexcept>

#include "broker_state.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/paper/feed/market_clock.hpp"

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

// ---- ScaledClock ----

ScaledClock::ScaledClock(std::shared_ptr<const core::Clock> base, double speed)
    : base_(std::move(base)), speed_(speed), start_(base_->now()) {}

core::Clock::time_point ScaledClock::now() const {
  const time_point base_now = base_->now();
  if (speed_ == 1.0) return base_now;
  const auto elapsed = std::chrono::duration<double>(base_now - start_) * speed_;
  return start_ + std::chrono::duration_cast<duration>(elapsed);
}

// ---- State ----

namespace {

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

BrokerCore::State::State(PaperBrokerConfig config)
    : clock(clock_of(config)),
      market_clock(
          config.market_start != 0 ? std::make_shared<const ReplayClock>(clock, config.market_start) : clock,
          checked_speed(config.clock_speed)),
      max_receive_window_ms(config.max_receive_window_ms),
      ip_address(config.ip_address),
      master(master_config(config, market_clock)),
      directory(config),
      engine(master, market_clock, engine_config(config),
             [this](const OrderEvent& event) {
               std::lock_guard<std::mutex> lock(events_mutex);
               pending_events.push_back(event);
             }),
      reservations(master) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium could not be initialised");
  for (const PersonConfig& person : config.persons) {
    for (const std::string& token : person.simulation_tokens) {
      sessions.add_standing(token, directory.person(person.person_id));
    }
  }
  serve_auth();
  serve_contracts();
  serve_orders();
  serve_accounts();
  serve_reservations();
}

BrokerCore::State::Service BrokerCore::State::bound(core::Value (State::*method)(Request&)) {
  return [this, method](Request& request) { return (this->*method)(request); };
}

void BrokerCore::State::serve(const std::string& topic, Access access, Service service) {
  routes[topic] = Route{std::move(service), access};
}

void BrokerCore::State::serve_with_paper_twin(const std::string& category, const std::string& name,
                                              Service service) {
  serve("api/v1/" + category + "/" + name, Access::Session, service);
  serve("api/v1/paper/" + name, Access::SimulationOnly, std::move(service));
}

void BrokerCore::State::check_access(Request& request, Access access) {
  if (access == Access::Open) return;
  if (request.caller.token.empty()) {
    wire::refuse(wire::kUnauthorized,
                 "no session token on the request; log in first and send the token it returns");
  }
  const Grant* grant = sessions.grant(request.caller.token);
  if (grant == nullptr) {
    wire::refuse(
        wire::kUnauthorized,
        "the session token is not valid: unknown, revoked by a logout or issued by another broker; log in "
        "again");
  }
  request.session = &sessions.bind(request.caller.session_id, request.caller.token, *grant);
  if (access == Access::LiveOnly && request.session->simulation) {
    wire::refuse(wire::kForbidden, request.topic +
                                       " is not offered to simulation sessions; log in without "
                                       "simulation to use it");
  }
  if (access == Access::SimulationOnly && !request.session->simulation) {
    wire::refuse(wire::kForbidden, request.topic +
                                       " serves simulation sessions only; live sessions use the "
                                       "api/v1/order/ and api/v1/portfolio/ topics");
  }
}

std::string BrokerCore::State::decide(Request& request) {
  core::Value reply;
  try {
    const auto route = routes.find(request.topic);
    if (route == routes.end()) {
      wire::refuse(wire::kNotFound, "no service on topic " + request.topic +
                                        "; expected one of the api/v1/ topics "
                                        "in the protocol description");
    }
    check_access(request, route->second.access);
    core::Value response = route->second.service(request);
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

const Account& BrokerCore::State::owned_account(const Request& request, const wire::Field& account) const {
  const std::string broker_id = account["broker_id"].text();
  const std::string account_id = account["account_id"].text();
  const Account* found = directory.account(broker_id, account_id);
  // Unknown and foreign accounts get the same answer, so accounts cannot be probed.
  if (found == nullptr || found->holder != request.session->person) {
    wire::refuse(wire::kForbidden, "account " + broker_id + "-" + account_id +
                                       " is not an account of person " + request.person().person_id +
                                       "; expected one of the accounts the login listed");
  }
  return *found;
}

const Contract& BrokerCore::State::known_contract(const wire::Field& contract) const {
  const std::string code = contract["code"].text();
  const Contract* found = master.find(code);
  if (found == nullptr) {
    wire::refuse(wire::kNotFound,
                 "contract " + code +
                     " is not in the contract master; expected the code of a "
                     "listed stock, future or option",
                 static_cast<int>(RefusalCode::UnknownContract));
  }
  return *found;
}

// ---- BrokerCore ----

BrokerCore::BrokerCore(PaperBrokerConfig config) : state_(std::make_unique<State>(std::move(config))) {}
BrokerCore::~BrokerCore() = default;

void BrokerCore::handle(const Caller& caller, const std::string& topic, std::string_view payload,
                        std::shared_ptr<const ReplyTarget> reply_to, Outbox& out) {
  core::Value decoded;
  bool readable = true;
  try {
    decoded = core::decode(payload);
  } catch (const std::exception&) {
    readable = false;
  }
  std::lock_guard<std::mutex> lock(state_->mutex);
  Request request{caller, topic, decoded};
  request.paper_topic = topic.rfind("api/v1/paper/", 0) == 0;
  std::string reply;
  if (readable) {
    reply = state_->decide(request);
  } else {
    reply = core::encode(wire::refused_reply(ServiceRefused(
        wire::kBadRequest, "the payload is not one well-formed msgpack message; expected a map")));
  }
  // Under the lock, so that messages leave in the order their requests were decided.
  if (reply_to) out.push(Outgoing{std::move(reply_to), {}, topic, std::move(reply)});
  for (Report& report : request.reports) {
    out.push(
        Outgoing{nullptr, std::move(report.session_id), std::move(report.topic), std::move(report.payload)});
  }
}

void BrokerCore::session_closed(const std::string& session_id) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->sessions.forget(session_id);
}

void BrokerCore::add_service(std::string topic, ServiceHandler handler, bool simulation_allowed) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->serve(topic, simulation_allowed ? Access::Session : Access::LiveOnly,
                [handler = std::move(handler)](Request& request) {
                  const ServiceCall call{request.caller, request.topic, request.payload,
                                         request.person().person_id, request.simulation()};
                  return handler(call);
                });
}

std::vector<std::string> BrokerCore::topics() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::vector<std::string> topics;
  for (const auto& route : state_->routes) topics.push_back(route.first);
  std::sort(topics.begin(), topics.end());
  return topics;
}

void BrokerCore::settle(Outbox& out) {
  static const std::string kNoTopic;
  std::lock_guard<std::mutex> lock(state_->mutex);
  const Caller nobody;
  const core::Value nothing;
  Request request(nobody, kNoTopic, nothing);
  state_->settle_events(request);
  for (Report& report : request.reports) {
    out.push(
        Outgoing{nullptr, std::move(report.session_id), std::move(report.topic), std::move(report.payload)});
  }
}

void BrokerCore::add_deal_listener(DealListener listener) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->deal_listeners.push_back(std::move(listener));
}

MatchingEngine& BrokerCore::engine() { return state_->engine; }

const ContractMaster& BrokerCore::contracts() const { return state_->master; }
const core::Clock& BrokerCore::market_clock() const { return state_->market_clock; }

}  // namespace quorvex::paper
