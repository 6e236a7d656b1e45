// Order events per second through the paper matching engine, against a baseline measured in the
// same run: generating the very same stream of order operations (tickets built, ids chosen)
// without handing them to the engine. The ratio says what matching, records and event delivery
// cost on top of producing the flow; absolute rates are printed too.
//
// Run: scripts/dev build && build/dev/cpp/paper/paper_engine_bench [operations]
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "quorvex/paper/matching_engine.hpp"

namespace qp = quorvex::paper;

namespace {

class Flow {
 public:
  Flow(const std::vector<const qp::Contract*>& contracts, std::uint64_t seed)
      : contracts_(contracts), state_(seed) {}

  // Produces the next operation and hands it to `sink`: place(ticket), cancel(id), change(id, price),
  // reduce(id, by).
  template <typename Sink>
  void next(Sink& sink) {
    const std::uint64_t kind = draw() % 100;
    if (kind < 65 || placed_ == 0) {
      const std::size_t which = static_cast<std::size_t>(draw() % contracts_.size());
      const qp::Contract& c = *contracts_[which];
      ticket_.code = c.code;
      ticket_.side = draw() % 2 ? qp::Side::Buy : qp::Side::Sell;
      const std::uint64_t type = draw() % 100;
      ticket_.price_type = type < 5 ? qp::PriceType::Market : qp::PriceType::Limit;
      ticket_.order_type = type < 5    ? qp::OrderType::IOC
                           : type < 85 ? qp::OrderType::ROD
                           : type < 95 ? qp::OrderType::IOC
                                       : qp::OrderType::FOK;
      ticket_.price = step(c, static_cast<std::int64_t>(draw() % 11) - 5);
      ticket_.quantity = 1 + static_cast<qp::Quantity>(draw() % 10);
      recent_[placed_ % kRecent] = {++placed_, which};
      sink.place(ticket_);
      return;
    }
    const Recent& target = recent_[draw() % std::min<std::uint64_t>(placed_, kRecent)];
    if (kind < 85) {
      sink.cancel(target.id);
    } else if (kind < 93) {
      sink.change(target.id, step(*contracts_[target.contract], static_cast<std::int64_t>(draw() % 11) - 5));
    } else {
      sink.reduce(target.id, 1);
    }
  }

 private:
  static constexpr std::uint64_t kRecent = 1024;
  struct Recent {
    qp::OrderId id = 0;
    std::size_t contract = 0;
  };

  std::uint64_t draw() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  static qp::Price step(const qp::Contract& c, std::int64_t ticks) {
    return ticks >= 0 ? qp::step_up(c.ladder, c.reference, ticks)
                      : qp::step_down(c.ladder, c.reference, -ticks);
  }

  const std::vector<const qp::Contract*>& contracts_;
  std::uint64_t state_;
  qp::OrderTicket ticket_ = [] {
    qp::OrderTicket t;
    t.account = "9A95-0000001";
    return t;
  }();
  Recent recent_[kRecent];
  qp::OrderId placed_ = 0;
};

// Looks at every operation as the engine would receive it, and nothing more.
struct Baseline {
  std::uint64_t checksum = 0;
  void place(const qp::OrderTicket& t) {
    checksum +=
        static_cast<std::uint64_t>(t.price.units()) + static_cast<std::uint64_t>(t.quantity) + t.code.size();
  }
  void cancel(qp::OrderId id) { checksum += id; }
  void change(qp::OrderId id, qp::Price p) { checksum += id + static_cast<std::uint64_t>(p.units()); }
  void reduce(qp::OrderId id, qp::Quantity by) { checksum += id + static_cast<std::uint64_t>(by); }
};

struct EngineSink {
  qp::MatchingEngine& engine;
  std::uint64_t refused = 0;
  void place(const qp::OrderTicket& t) { refused += !engine.place(t).ok(); }
  void cancel(qp::OrderId id) { refused += !engine.cancel(id).ok(); }
  void change(qp::OrderId id, qp::Price p) { refused += !engine.change_price(id, p).ok(); }
  void reduce(qp::OrderId id, qp::Quantity by) { refused += !engine.reduce_quantity(id, by).ok(); }
};

double cpu_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

template <typename Sink>
double seconds_for(const std::vector<const qp::Contract*>& contracts, std::uint64_t operations, Sink& sink) {
  Flow flow(contracts, 42);
  const double start = cpu_seconds();
  for (std::uint64_t i = 0; i < operations; ++i) flow.next(sink);
  return cpu_seconds() - start;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t operations = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1'000'000;
  const double build_start = cpu_seconds();
  const qp::ContractMaster master({20260105, 100000, {2026, 1, 5}});
  const double build_seconds = cpu_seconds() - build_start;

  // 48 stocks, 8 futures and 8 options: books on every ladder.
  std::vector<const qp::Contract*> contracts;
  for (qp::SecurityType type :
       {qp::SecurityType::Stock, qp::SecurityType::Future, qp::SecurityType::Option}) {
    const auto& list = master.contracts(type);
    const std::size_t take = type == qp::SecurityType::Stock ? 48 : 8;
    for (std::size_t i = 0; i < take && i < list.size(); ++i)
      contracts.push_back(&list[i * (list.size() / take)]);
  }

  double best_baseline = 1e9, best_engine = 1e9;
  std::uint64_t events = 0, refused = 0, checksum = 0;
  for (int round = 0; round < 3; ++round) {
    Baseline baseline;
    best_baseline = std::min(best_baseline, seconds_for(contracts, operations, baseline));
    checksum += baseline.checksum;

    const quorvex::core::ManualClock clock(qp::to_time_point(qp::taipei_instant({2026, 1, 5}, 9 * 3600)));
    qp::EngineConfig config;
    config.liquidity.enabled = false;
    config.finished_order_retention = 100000;
    std::uint64_t delivered = 0;
    qp::MatchingEngine engine(master, clock, config, [&delivered](const qp::OrderEvent&) { ++delivered; });
    EngineSink sink{engine};
    best_engine = std::min(best_engine, seconds_for(contracts, operations, sink));
    events = delivered;
    refused = sink.refused;
  }

  const double engine_rate = static_cast<double>(operations) / best_engine;
  const double baseline_rate = static_cast<double>(operations) / best_baseline;
  std::printf("contract master: %zu contracts built in %.3f s\n", master.size(), build_seconds);
  std::printf("operations: %llu on %zu books (%llu refused, %llu events delivered)\n",
              static_cast<unsigned long long>(operations), contracts.size(),
              static_cast<unsigned long long>(refused), static_cast<unsigned long long>(events));
  std::printf("baseline (generate only): %.0f operations/s\n", baseline_rate);
  std::printf("engine (generate + match + deliver): %.0f operations/s, %.0f events/s\n", engine_rate,
              static_cast<double>(events) / best_engine);
  std::printf("engine time / baseline time: %.1f\n", best_engine / best_baseline);
  return checksum == 0 ? 1 : 0;
}
