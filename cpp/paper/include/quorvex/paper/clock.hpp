// The paper market's sense of time, injectable so tests and demos can run any trading day.
#pragma once

#include <atomic>

#include "quorvex/paper/calendar.hpp"

namespace quorvex::paper {

// Threading: implementations must allow now() from any thread at any time.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Timestamp now() const = 0;
  Date today() const { return taipei_date(now()); }
};

class SystemClock final : public Clock {
 public:
  Timestamp now() const override;
};

// A clock that moves only when told to; set() and advance() may race with now().
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Timestamp start = 0) : now_(start) {}
  Timestamp now() const override { return now_.load(std::memory_order_relaxed); }
  void set(Timestamp ts) { now_.store(ts, std::memory_order_relaxed); }
  void advance(Timestamp by) { now_.fetch_add(by, std::memory_order_relaxed); }

 private:
  std::atomic<Timestamp> now_;
};

}  // namespace quorvex::paper
