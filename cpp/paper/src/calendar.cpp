#include "quorvex/paper/calendar.hpp"

#include <cstdio>

namespace quorvex::paper {
namespace {

// Howard Hinnant's civil-date algorithms: exact over the proleptic Gregorian calendar.
std::int64_t days_from_civil(int y, int m, int d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

int days_in_month(int y, int m) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : kDays[m - 1];
}

constexpr std::int64_t kTaipeiOffsetSeconds = 8 * 3600;

std::int64_t floor_div(std::int64_t a, std::int64_t b) {
  return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

}  // namespace

std::int64_t Date::serial() const { return days_from_civil(year, month, day); }

Date Date::from_serial(std::int64_t days) {
  const std::int64_t z = days + 719468;  // days since 0000-03-01
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int y = static_cast<int>(yoe + era * 400) + (m <= 2);
  return Date{y, m, d};
}

std::string Date::to_string() const {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", year, month, day);
  return buf;
}

std::string Date::year_month() const {
  char buf[12];
  std::snprintf(buf, sizeof buf, "%04d%02d", year, month);
  return buf;
}

std::optional<Date> Date::parse(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
  auto number = [&](std::size_t from, std::size_t len) -> int {
    int v = 0;
    for (std::size_t i = from; i < from + len; ++i) {
      if (text[i] < '0' || text[i] > '9') return -1;
      v = v * 10 + (text[i] - '0');
    }
    return v;
  };
  const int y = number(0, 4), m = number(5, 2), d = number(8, 2);
  if (y < 1 || m < 1 || m > 12 || d < 1 || d > days_in_month(y, m)) return std::nullopt;
  return Date{y, m, d};
}

int Date::weekday() const {
  // 1970-01-01 was a Thursday.
  return static_cast<int>(((serial() % 7) + 7 + 4) % 7);
}

Date Date::plus_business_days(int days) const {
  Date d = *this;
  const int step = days >= 0 ? 1 : -1;
  for (int left = days >= 0 ? days : -days; left > 0;) {
    d = d.plus_days(step);
    if (d.is_business_day()) --left;
  }
  return d;
}

Date third_wednesday(int year, int month) {
  const Date first{year, month, 1};
  const int to_wednesday = (3 - first.weekday() + 7) % 7;
  return first.plus_days(to_wednesday + 14);
}

Date taipei_date(Timestamp ts) {
  const std::int64_t seconds = floor_div(ts, kNanosPerSecond) + kTaipeiOffsetSeconds;
  return Date::from_serial(floor_div(seconds, 86400));
}

Timestamp taipei_instant(const Date& date, std::int64_t seconds_into_day) {
  return (date.serial() * 86400 + seconds_into_day - kTaipeiOffsetSeconds) * kNanosPerSecond;
}

}  // namespace quorvex::paper
