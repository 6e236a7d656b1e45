#include "quorvex/paper/feed/market_clock.hpp"

#include <cmath>
#include <stdexcept>
#include <string>

namespace quorvex::paper {

AcceleratedClock::AcceleratedClock(Timestamp start, double speed)
    : start_(start), speed_(speed), origin_(std::chrono::steady_clock::now()) {
  if (!std::isfinite(speed) || speed <= 0) {
    throw std::invalid_argument("market clock speed must be a number above zero, got " +
                                std::to_string(speed));
  }
}

AcceleratedClock::time_point AcceleratedClock::now() const {
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - origin_);
  return to_time_point(start_ + static_cast<Timestamp>(static_cast<double>(elapsed.count()) * speed_));
}

std::optional<Timestamp> parse_taipei_instant(std::string_view text) {
  const std::optional<Date> date = Date::parse(text.substr(0, 10));
  if (!date) return std::nullopt;
  if (text.size() == 10) return taipei_instant(*date);
  if (text.size() != 16 && text.size() != 19) return std::nullopt;
  if (text[10] != 'T' && text[10] != ' ') return std::nullopt;
  auto two = [&](std::size_t at, int limit) -> int {
    if (text[at] < '0' || text[at] > '9' || text[at + 1] < '0' || text[at + 1] > '9') return -1;
    const int v = (text[at] - '0') * 10 + (text[at + 1] - '0');
    return v < limit ? v : -1;
  };
  const int hour = two(11, 24), minute = text[13] == ':' ? two(14, 60) : -1;
  int second = 0;
  if (text.size() == 19) second = text[16] == ':' ? two(17, 60) : -1;
  if (hour < 0 || minute < 0 || second < 0) return std::nullopt;
  return taipei_instant(*date, hour * 3600 + minute * 60 + second);
}

}  // namespace quorvex::paper
