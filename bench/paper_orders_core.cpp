// Order placements per second decided by the paper broker's services alone (no bus, no
// Python): BrokerCore::handle on place_order, its reply and reports queued and drained.
//
// Run: build/dev/bench/paper_orders_core [ORDERS]   (also `ctest -L bench`)
//
// The orders are IOC buys at the day's lower limit: accepted, funds held, nothing to match,
// cancelled, two reports. The baseline, measured in the same run, is the codec work any
// service must do for the same traffic: decoding the request and encoding a reply of the same
// size plus the two reports. The ratio says how much the order itself costs beyond the wire.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "quorvex/core/codec.hpp"
#include "quorvex/paper/broker_core.hpp"

using namespace quorvex;
using paper::BrokerCore;
using Clock = std::chrono::steady_clock;

namespace {

struct Slot final : paper::ReplyTarget {
  mutable std::string payload;
  void reply(std::string p) const override { payload = std::move(p); }
};

struct Counter final : paper::DirectSender {
  std::size_t sent = 0;
  std::size_t send_to_session(const std::string&, std::string, std::string) override { return ++sent; }
};

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int orders = argc > 1 ? std::atoi(argv[1]) : 100000;
  paper::PaperBrokerConfig config = paper::demo_config();
  config.contracts.size = 2000;
  BrokerCore core(config);
  paper::Outbox out;
  Counter sink;
  auto slot = std::make_shared<Slot>();

  paper::Caller caller{"bench-session", "bench", ""};
  core.handle(caller, "api/v1/auth/login",
              core::encode(core::Value::map({{"person_id", paper::demo::kSecondPersonId},
                                             {"password", paper::demo::kSecondPassword},
                                             {"hashed", false}})),
              slot, out);
  out.drain(sink);
  caller.token = core::decode(slot->payload).get("response").get_string("token");

  const core::Value account = core::Value::map({{"account_type", "S"},
                                                {"person_id", paper::demo::kSecondPersonId},
                                                {"broker_id", "9A95"},
                                                {"account_id", "0000002"},
                                                {"signed", false},
                                                {"username", "Paper Second"}});
  const std::string payload = core::encode(core::Value::map(
      {{"contract", core::Value::map({{"security_type", "STK"}, {"exchange", "TSE"}, {"code", "2330"}})},
       {"order", core::Value::map({{"action", "Buy"},
                                   {"price", 900.0},
                                   {"quantity", 1},
                                   {"account", account},
                                   {"price_type", "LMT"},
                                   {"order_type", "IOC"},
                                   {"order_lot", "Common"},
                                   {"order_cond", "Cash"},
                                   {"ca", ""}})},
       {"tft", false}}));

  // One placement to learn the sizes of a reply and of the reports.
  core.handle(caller, "api/v1/order/place_order", payload, slot, out);
  std::vector<std::string> reports;
  struct Keep final : paper::DirectSender {
    std::vector<std::string>& kept;
    explicit Keep(std::vector<std::string>& k) : kept(k) {}
    std::size_t send_to_session(const std::string&, std::string, std::string p) override {
      kept.push_back(std::move(p));
      return 1;
    }
  } keep(reports);
  out.drain(keep);
  const core::Value reply = core::decode(slot->payload);
  const core::Value report_values[2] = {core::decode(reports.at(0)), core::decode(reports.at(1))};

  auto start = Clock::now();
  std::size_t bytes = 0;
  for (int i = 0; i < orders; ++i) {
    const core::Value request = core::decode(payload);
    bytes += request.size() + core::encode(reply).size() + core::encode(report_values[0]).size() +
             core::encode(report_values[1]).size();
  }
  const double baseline = seconds_since(start);

  start = Clock::now();
  for (int i = 0; i < orders; ++i) {
    core.handle(caller, "api/v1/order/place_order", payload, slot, out);
    out.drain(sink);
  }
  const double placed = seconds_since(start);

  std::printf("%d placements (%zu reports, %zu codec bytes)\n", orders, sink.sent, bytes);
  std::printf("%-40s %12.0f /s\n", "baseline: decode request, encode replies", orders / baseline);
  std::printf("%-40s %12.0f /s  ratio %.2f\n", "BrokerCore place_order", orders / placed, placed / baseline);
  return 0;
}
