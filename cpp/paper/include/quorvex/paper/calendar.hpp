// Trading dates and time stamps. Value types, free of shared state.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvex::paper {

// Nanoseconds since the Unix epoch, UTC.
using Timestamp = std::int64_t;

inline constexpr Timestamp kNanosPerSecond = 1'000'000'000;

// Between time stamps and the clocks' time points (quorvex/core/clock.hpp).
inline Timestamp to_timestamp(std::chrono::system_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}
inline std::chrono::system_clock::time_point to_time_point(Timestamp ts) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(ts)));
}

// A civil date of the Taipei calendar.
struct Date {
  int year = 1970;
  int month = 1;
  int day = 1;

  // Days since 1970-01-01 (negative before it).
  std::int64_t serial() const;
  static Date from_serial(std::int64_t days);
  // "%Y-%m-%d"; parse refuses any other shape and impossible dates.
  std::string to_string() const;
  static std::optional<Date> parse(std::string_view text);
  // "YYYYMM", the delivery month of derivatives.
  std::string year_month() const;

  // 0 = Sunday .. 6 = Saturday.
  int weekday() const;
  bool is_business_day() const { return weekday() != 0 && weekday() != 6; }
  Date plus_days(std::int64_t days) const { return from_serial(serial() + days); }
  // Weekends are skipped; the paper market keeps no holiday calendar.
  Date plus_business_days(int days) const;

  friend bool operator==(const Date& a, const Date& b) {
    return a.year == b.year && a.month == b.month && a.day == b.day;
  }
  friend bool operator!=(const Date& a, const Date& b) { return !(a == b); }
  friend bool operator<(const Date& a, const Date& b) { return a.serial() < b.serial(); }
  friend bool operator<=(const Date& a, const Date& b) { return !(b < a); }
  friend bool operator>(const Date& a, const Date& b) { return b < a; }
  friend bool operator>=(const Date& a, const Date& b) { return !(a < b); }
};

// Taiwan index derivatives deliver on the third Wednesday of their month.
Date third_wednesday(int year, int month);

// The Taipei (UTC+8) date of an instant.
Date taipei_date(Timestamp ts);
// Midnight of a Taipei date as an instant, plus `seconds_into_day`.
Timestamp taipei_instant(const Date& date, std::int64_t seconds_into_day = 0);

}  // namespace quorvex::paper
