#include "quorvex/paper/feed/trading_schedule.hpp"

namespace quorvex::paper {
namespace {

constexpr std::int64_t hm(int hour, int minute) { return hour * 3600 + minute * 60; }

Timestamp at(const Date& day, std::int64_t seconds) { return taipei_instant(day, seconds); }

}  // namespace

std::string_view to_text(Market market) {
  switch (market) {
    case Market::Stock: return "STK";
    case Market::IntradayOdd: return "ODD";
    case Market::FuturesOptions: return "FOP";
    case Market::Index: return "IND";
  }
  return "?";
}

Market board_market(const Contract& contract) {
  switch (contract.security_type) {
    case SecurityType::Index: return Market::Index;
    case SecurityType::Stock: return Market::Stock;
    case SecurityType::Future:
    case SecurityType::Option: break;
  }
  return Market::FuturesOptions;
}

std::vector<TradingSession> trading_sessions(Market market, const Date& day) {
  if (!day.is_business_day()) return {};
  TradingSession s;
  switch (market) {
    case Market::Stock:
      s.open = at(day, hm(9, 0));
      s.last_trade = at(day, hm(13, 25));
      s.close = at(day, hm(13, 30));
      s.closing_auction = true;
      return {s};
    case Market::IntradayOdd:
      s.open = at(day, hm(9, 1));
      s.last_trade = s.close = at(day, hm(13, 30));
      s.call_interval = kNanosPerMinute;
      return {s};
    case Market::Index:
      s.open = at(day, hm(9, 0));
      s.last_trade = s.close = at(day, hm(13, 30));
      s.call_interval = 5 * kNanosPerSecond;
      return {s};
    case Market::FuturesOptions: break;
  }
  const Date evening = day.plus_business_days(-1);
  TradingSession night;
  night.open = at(evening, hm(15, 0));
  night.last_trade = night.close = at(evening.plus_days(1), hm(5, 0));
  night.night = true;
  night.activity = 0.25;
  s.open = at(day, hm(8, 45));
  s.last_trade = at(day, hm(13, 40));
  s.close = at(day, hm(13, 45));
  s.closing_auction = true;
  return {night, s};
}

Timestamp day_open(Market market, const Date& day) {
  const auto sessions = trading_sessions(market, day);
  return sessions.empty() ? 0 : sessions.front().open;
}

Timestamp day_close(Market market, const Date& day) {
  const auto sessions = trading_sessions(market, day);
  return sessions.empty() ? 0 : sessions.back().close;
}

Date trading_day_at(Market market, Timestamp t) {
  const Date date = taipei_date(t);
  // The first business day on or after the date; an evening belongs to the next one for
  // futures and options, whose after-hours session opens then.
  Date day = date;
  if (market == Market::FuturesOptions && taipei_time_of_day(t) >= hm(15, 0) * kNanosPerSecond) {
    day = day.plus_days(1);
  }
  while (!day.is_business_day()) day = day.plus_days(1);
  while (day_open(market, day) > t) day = day.plus_business_days(-1);
  return day;
}

Timestamp taipei_time_of_day(Timestamp ts) {
  const Timestamp day_start = taipei_instant(taipei_date(ts));
  return ts - day_start;
}

}  // namespace quorvex::paper
