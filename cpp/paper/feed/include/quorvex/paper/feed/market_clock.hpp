// A market clock that starts at a chosen instant and runs faster than real time, so demos and
// tests replay a trading day in seconds while every service reads one consistent time.
//
// Threading: now() may be called from any thread at any time; the clock never changes after
// construction.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string_view>

#include "quorvex/core/clock.hpp"
#include "quorvex/paper/calendar.hpp"

namespace quorvex::paper {

class AcceleratedClock final : public core::Clock {
 public:
  // `speed` simulated seconds pass per real second; 1 is real time. std::invalid_argument
  // when speed is not a finite number above zero.
  AcceleratedClock(Timestamp start, double speed);

  time_point now() const override;
  Timestamp start() const { return start_; }
  double speed() const { return speed_; }

 private:
  Timestamp start_;
  double speed_;
  std::chrono::steady_clock::time_point origin_;
};

// A base clock read as if it had shown `start` when this clock was made: a trading day replayed
// at the base clock's pace (wrap it in a faster clock to speed it up).
class ReplayClock final : public core::Clock {
 public:
  // `base` must not be null.
  ReplayClock(std::shared_ptr<const core::Clock> base, Timestamp start)
      : base_(std::move(base)), offset_(to_time_point(start) - base_->now()) {}
  time_point now() const override { return base_->now() + offset_; }

 private:
  std::shared_ptr<const core::Clock> base_;
  duration offset_;
};

// The instant of a Taipei wall-clock text "YYYY-MM-DD", "YYYY-MM-DDTHH:MM" or
// "YYYY-MM-DDTHH:MM:SS" (a blank may replace the "T"); nullopt for any other text.
std::optional<Timestamp> parse_taipei_instant(std::string_view text);

}  // namespace quorvex::paper
