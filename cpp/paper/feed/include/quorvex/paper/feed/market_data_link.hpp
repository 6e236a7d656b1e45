// A paper broker's market data on its bus. Built with the broker, it serves the api/v1/data/
// history topics through the broker's core, behind its session checks (short-stock sources to
// live sessions only). While attached to the broker's responder, the quote feed publishes
// through it whenever the bus has subscribers for its topics. The market's books (the broker's
// own trades among them) stay across detaching and attaching again.
//
// Threading: attach() and detach() on the thread that attaches and closes the broker, not
// concurrently. detach() returns once nothing more is published, so the responder may close
// after it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "quorvex/bus/responder.hpp"
#include "quorvex/paper/broker_core.hpp"
#include "quorvex/paper/feed/market_data.hpp"

namespace quorvex::paper {

class MarketDataLink {
 public:
  // `core` must outlive the link.
  explicit MarketDataLink(BrokerCore& core, MarketDataOptions options = {});
  ~MarketDataLink();
  MarketDataLink(const MarketDataLink&) = delete;
  MarketDataLink& operator=(const MarketDataLink&) = delete;

  // Publishes through `responder` (which must outlive the attachment) and follows its bus's
  // subscriptions; detaches from an earlier responder first.
  void attach(bus::Responder& responder);
  void detach();

  PaperMarketData& market_data() { return data_; }

 private:
  PaperMarketData data_;
  bus::Responder* responder_ = nullptr;
};

// Applies the market options of a paper:// address ("clock_speed=60&market_start=2026-01-05T09:00",
// the text after "?") to a broker's configuration, so a demo or test runs a chosen trading moment
// faster than real time. bus::BusError naming `host` for an unknown option or an unusable value.
void apply_market_options(PaperBrokerConfig& config, std::string_view options, const std::string& host);

}  // namespace quorvex::paper
