// Messages per second the quote feed produces with no bus behind it: every stock of the demo
// master subscribed for typed ticks and bid/asks, an hour of market replayed through QuoteFeed to
// a counting publisher. Baseline, in the same run: the same stocks' tapes for the same hour alone
// (the synthetic trades, no quote state, book or encoding). The ratio says what the feed adds
// on top of drawing the trades.
//
// Run: scripts/dev build && build/dev/cpp/paper/feed_generation_bench [market minutes]
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "quorvex/paper/feed/quote_feed.hpp"

namespace qp = quorvex::paper;

namespace {

class MarketTime final : public quorvex::core::Clock {
 public:
  explicit MarketTime(qp::Timestamp start) : ts_(start) {}
  time_point now() const override { return qp::to_time_point(ts_.load()); }
  void advance(qp::Timestamp by) { ts_.fetch_add(by); }

 private:
  std::atomic<qp::Timestamp> ts_;
};

// CPU time of the whole process: the publishing thread's work while the main thread sleeps.
double cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
  const long minutes = argc > 1 ? std::atol(argv[1]) : 60;
  const qp::Date day{2026, 1, 5};
  const qp::ContractMaster master({20260105, 5000, day});
  const qp::MarketModel model(master, 20260105);
  const qp::Timestamp from = qp::taipei_instant(day, 9 * 3600 + 60);
  const qp::Timestamp to = from + minutes * 60 * qp::kNanosPerSecond;

  // Baseline: the tapes alone over the same hour.
  double start = cpu_seconds();
  long trades = 0;
  for (const qp::Contract& c : master.contracts(qp::SecurityType::Stock)) {
    qp::TickTape tape = model.tape(c, qp::Market::Stock, day);
    while (!tape.done() && tape.next_ts() <= to) {
      const qp::TapeTrade t = tape.next();
      trades += t.ts > from ? 1 : 0;
    }
  }
  const double baseline_cpu = cpu_seconds() - start;

  MarketTime clock(from);
  qp::TradeLedger ledger;
  qp::QuoteFeed feed(model, clock, ledger, {}, {std::chrono::microseconds(500)});
  std::atomic<long> messages{0};
  feed.start([&](const std::string&, std::string) { messages.fetch_add(1, std::memory_order_relaxed); });
  feed.on_subscription("TIC/v1/STK/*/*/>", true);
  feed.on_subscription("QUO/v1/STK/*/*/>", true);
  while (feed.stats().rounds < 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  const long before = messages.load();
  const auto wall = std::chrono::steady_clock::now();
  start = cpu_seconds();
  clock.advance(to - from);
  // Every trade sends its tick and its bid/ask.
  while (messages.load() - before < 2 * trades) std::this_thread::sleep_for(std::chrono::microseconds(200));
  const double feed_cpu = cpu_seconds() - start;  // the waiting thread sleeps: this is the feed's
  const double feed_wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
  feed.stop();
  const long sent = messages.load() - before;

  std::printf("stocks %zu, market minutes %ld, trades %ld, messages %ld (tick and bid/ask)\n",
              master.contracts(qp::SecurityType::Stock).size(), minutes, trades, sent);
  std::printf("baseline: tapes alone %.0f trades/s of CPU\n", trades / baseline_cpu);
  std::printf("wall %.3f s, cpu %.3f s\n", feed_wall, feed_cpu);
  std::printf("feed: %.0f messages/s of CPU, %.2f us per message; feed / baseline time per trade %.1f\n",
              sent / feed_cpu, feed_cpu / sent * 1e6, (feed_cpu / trades) / (baseline_cpu / trades));
  return 0;
}
