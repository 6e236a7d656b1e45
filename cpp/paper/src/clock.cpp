#include "quorvex/paper/clock.hpp"

#include <chrono>

namespace quorvex::paper {

Timestamp SystemClock::now() const {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace quorvex::paper
