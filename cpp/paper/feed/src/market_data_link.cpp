#include "quorvex/paper/feed/market_data_link.hpp"

#include <cstdlib>
#include <string>

#include "quorvex/bus/message.hpp"
#include "quorvex/core/query.hpp"
#include "quorvex/paper/feed/market_clock.hpp"

namespace quorvex::paper {
namespace {

// The engine's resting orders of a book, the best levels a side; nullopt for a book with none.
RestingDepth resting_depth(const MatchingEngine& engine) {
  return [&engine](const std::string& code, Board board) -> std::optional<BookSnapshot> {
    Result<BookSnapshot> book = engine.book(code, board, kBookDepth);
    if (!book || (book->bids.empty() && book->asks.empty())) return std::nullopt;
    return std::move(book).value();
  };
}

}  // namespace

MarketDataLink::MarketDataLink(BrokerCore& core, MarketDataOptions options)
    : data_(core.contracts(), core.market_clock(), resting_depth(core.engine()), options) {
  core.add_deal_listener([this](const MarketDeal& deal) {
    OwnTrade trade;
    trade.code = deal.contract->code;
    trade.board = deal.board;
    trade.deal = deal.deal;
    trade.ts = deal.ts;
    trade.price = deal.price;
    trade.quantity = deal.quantity;
    trade.aggressor = deal.aggressor ? deal.side : opposite(deal.side);
    data_.record_trade(trade);
  });
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
  data_.start([&responder](const std::string& topic, std::string payload) {
    responder.publish(topic, std::move(payload));
  });
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

void apply_market_options(PaperBrokerConfig& config, std::string_view options, const std::string& host) {
  auto refuse = [&host](const std::string& what) {
    throw bus::BusError(
        "cannot start the paper broker of '" + host + "': " + what +
        "; expected clock_speed=<above 0, at most 1e6> and market_start=<YYYY-MM-DDTHH:MM[:SS], "
        "Taipei time> joined by '&'");
  };
  core::for_each_query_option(options, [&](const std::string& key, const std::string& value) {
    if (key == "clock_speed") {
      char* end = nullptr;
      const double speed = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !(speed > 0.0) || speed > 1e6)
        refuse("clock_speed '" + value + "' is not usable");
      config.clock_speed = speed;
    } else if (key == "market_start") {
      const std::optional<Timestamp> start = parse_taipei_instant(value);
      if (!start) refuse("market_start '" + value + "' is not a Taipei date and time");
      config.market_start = *start;
    } else {
      refuse("unknown option '" + key + "'");
    }
  });
}

}  // namespace quorvex::paper
