// The paper broker on a bus: BrokerCore serving every api/v1/ topic of an in-process bus, and
// the paper:// scheme that starts one on first use.
//
//   quorvex::paper::PaperBroker broker(quorvex::paper::demo_config());
//   broker.attach("trading");          // clients now reach it with inproc://trading
//   broker.attach("mqtt://127.0.0.1:1883", {.user = "broker", .password = secret});  // a network bus
//
//   quorvex::paper::register_paper_scheme();
//   session.connect({.host = "paper://trading"});  // starts the broker of bus "trading"
//
// Threading: attach() and close() may be called from any thread but not concurrently with each
// other. Requests are decided one at a time on the broker's own responder thread, never on a
// requester's; replies and reports leave in the order they were decided, after the core's lock
// is released. close() waits for the request being decided.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "quorvex/paper/broker_config.hpp"
#include "quorvex/paper/broker_core.hpp"

namespace quorvex::paper {

class MarketDataLink;

// How the broker logs in to a network bus (unused in-process). The password is a secret.
struct BusLogin {
  std::string vpn;
  std::string user;
  std::string password;
};

// The bus a bare "paper://" (no name) reaches.
inline constexpr std::string_view kDefaultPaperBus = "paper";

class PaperBroker {
 public:
  explicit PaperBroker(PaperBrokerConfig config = demo_config());
  ~PaperBroker();  // close()
  PaperBroker(const PaperBroker&) = delete;
  PaperBroker& operator=(const PaperBroker&) = delete;

  // Serves the in-process bus `bus_name` (created on first use), or, when it has a scheme
  // ("mqtt://HOST:PORT"), the bus at that host with `login`. bus::BusError when the bus refuses
  // the attachment; std::logic_error when already attached (close() first).
  void attach(const std::string& bus_name, const BusLogin& login = {});
  // Stops serving; requests already being decided finish first. Idempotent. The books stay,
  // so the broker can be attached again.
  void close();
  bool attached() const;
  const std::string& bus_name() const;

  BrokerCore& core();
  // Books what happened on the engine outside requests and sends its reports (see
  // BrokerCore::settle); for whoever trades on the engine from its own thread.
  void settle();

 private:
  struct Link;
  std::unique_ptr<BrokerCore> core_;
  std::unique_ptr<MarketDataLink> market_data_;  // quotes and history; outlives attachments
  std::unique_ptr<Link> link_;
  std::string bus_name_;
};

// Registers the "paper" scheme with the bus: connecting to paper://NAME (or paper://, bus
// "paper") attaches the session to the in-process bus NAME and starts that bus's paper broker
// with demo_config() if none is running. The broker lives while any session connected through
// paper://NAME is; when the last one disconnects it stops and its books are gone. A broker
// attached explicitly (PaperBroker::attach) is reached with inproc://NAME instead; do not mix
// both kinds on one bus. Idempotent; thread-safe.
void register_paper_scheme();

}  // namespace quorvex::paper
