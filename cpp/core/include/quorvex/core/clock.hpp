// Wall clocks that services read the time from, so tests and simulations can set the time.
//
// Threading: now(), set() and advance() are safe to call concurrently from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

namespace quorvex::core {

class Clock {
 public:
  using time_point = std::chrono::system_clock::time_point;
  using duration = std::chrono::system_clock::duration;

  virtual ~Clock() = default;
  // The current time (UTC, as std::chrono::system_clock counts it).
  virtual time_point now() const = 0;
};

// The machine's clock.
class SystemClock final : public Clock {
 public:
  time_point now() const override { return std::chrono::system_clock::now(); }
};

// A clock that moves only when told to; for tests and replayed trading days.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(time_point start = time_point{}) : ticks_(start.time_since_epoch().count()) {}

  time_point now() const override { return time_point(duration(ticks_.load(std::memory_order_acquire))); }
  void set(time_point t) { ticks_.store(t.time_since_epoch().count(), std::memory_order_release); }
  void advance(duration d) { ticks_.fetch_add(d.count(), std::memory_order_acq_rel); }

 private:
  std::atomic<duration::rep> ticks_;
};

// A shared machine clock, the default wherever a clock can be injected.
inline std::shared_ptr<const Clock> system_clock() { return std::make_shared<const SystemClock>(); }

}  // namespace quorvex::core
