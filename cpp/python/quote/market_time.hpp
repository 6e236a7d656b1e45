// Exchange wall-clock time of the Taiwan market, without the interpreter.
//
// Quote content carries instants as microseconds since the Unix epoch (UTC). Records give
// them back as the naive wall-clock time in Taipei (UTC+8, no daylight saving), the time
// printed on every exchange report, so a record's time reads 09:00 at the opening bell
// wherever the client runs.
#pragma once

#include <cstdint>

namespace quorvex::quote {

constexpr std::int64_t kMicrosPerSecond = 1000000;
constexpr std::int64_t kMicrosPerDay = 86400 * kMicrosPerSecond;
constexpr std::int64_t kTaipeiOffsetMicros = 8 * 3600 * kMicrosPerSecond;

struct WallTime {
  int year, month, day, hour, minute, second, microsecond;
};

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
constexpr std::int64_t days_from_civil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

// Wall-clock micros (micros since 1970-01-01 00:00 of the same clock) of a calendar time.
constexpr std::int64_t wall_micros(const WallTime& t) {
  return days_from_civil(t.year, static_cast<unsigned>(t.month), static_cast<unsigned>(t.day)) *
             kMicrosPerDay +
         ((t.hour * 60LL + t.minute) * 60LL + t.second) * kMicrosPerSecond + t.microsecond;
}

// The calendar time of wall-clock micros (inverse of wall_micros).
constexpr WallTime wall_time(std::int64_t micros) {
  std::int64_t days = micros / kMicrosPerDay;
  std::int64_t rest = micros % kMicrosPerDay;
  if (rest < 0) {
    rest += kMicrosPerDay;
    --days;
  }
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
  const std::int64_t seconds = rest / kMicrosPerSecond;
  return WallTime{static_cast<int>(y),
                  static_cast<int>(m),
                  static_cast<int>(d),
                  static_cast<int>(seconds / 3600),
                  static_cast<int>(seconds / 60 % 60),
                  static_cast<int>(seconds % 60),
                  static_cast<int>(rest % kMicrosPerSecond)};
}

// The wall-clock range a Python datetime can hold: 0001-01-01 to 9999-12-31 23:59:59.999999.
constexpr std::int64_t kEarliestWallMicros = days_from_civil(1, 1, 1) * kMicrosPerDay;
constexpr std::int64_t kLatestWallMicros = days_from_civil(10000, 1, 1) * kMicrosPerDay - 1;

constexpr std::int64_t taipei_from_epoch(std::int64_t epoch_micros) {
  return epoch_micros + kTaipeiOffsetMicros;
}
constexpr std::int64_t epoch_from_taipei(std::int64_t wall) { return wall - kTaipeiOffsetMicros; }

static_assert(days_from_civil(1970, 1, 1) == 0, "epoch day");
static_assert(wall_time(wall_micros({2024, 2, 29, 13, 30, 0, 5})).day == 29, "leap day round trip");
static_assert(wall_time(-1).year == 1969, "instants before the epoch");

}  // namespace quorvex::quote
