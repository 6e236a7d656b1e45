#include "quorvex/paper/feed/market_data_link.hpp"

#include <string>

namespace quorvex::paper {

MarketDataLink::MarketDataLink(BrokerCore& core, MarketDataOptions options)
    : data_(core.contracts(), core.market_clock(), RestingDepth{}, options) {
  for (const std::string_view service : kMarketDataServices) {
    core.add_service(
        "api/v1/data/" + std::string(service),
        [this, service](const ServiceCall& call) {
          core::Value reply = data_.answer(service, call.payload, call.simulation);
          const auto status = static_cast<int>(reply.get("status").get_int("status_code"));
          if (status != 200) throw ServiceRefused(status, reply.get("status").get_string("detail"));
          return std::move(reply.as_map()["response"]);
        },
        service != "short_stock_sources");
  }
}

MarketDataLink::~MarketDataLink() { detach(); }

void MarketDataLink::attach(bus::Responder& responder) {
  detach();
  data_.start([&responder](const std::string& topic, std::string payload) { responder.publish(topic, std::move(payload)); });
  responder_ = &responder;
  // The watcher first hears every filter active now, then each change.
  responder.watch_subscriptions(
      [this](const std::string& filter, bool active) { data_.on_subscription(filter, active); });
}

void MarketDataLink::detach() {
  if (responder_ == nullptr) return;
  try {
    responder_->watch_subscriptions(nullptr);
  } catch (const bus::BusError&) {
    // Closed already: it watches nothing any more.
  }
  responder_ = nullptr;
  data_.stop();
}

}  // namespace quorvex::paper
