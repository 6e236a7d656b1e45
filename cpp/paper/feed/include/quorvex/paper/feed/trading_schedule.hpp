// When the paper market trades: the sessions of each market on a trading day, and which
// trading day an instant belongs to. Pure functions of the calendar, safe from any thread.
//
// Taipei times. Stocks: opening auction 09:00, continuous trading to 13:25, closing auction
// 13:30. Intraday odd lots: an auction every minute from 09:01 to 13:30. Futures and options:
// the after-hours session from 15:00 on the previous business day to 05:00 the next morning,
// then the regular session with its opening auction at 08:45, continuous trading to 13:40 and
// the closing auction at 13:45; the after-hours session belongs to the trading day that follows.
// Indices: a value every 5 seconds from 09:00 to 13:30. Weekends are closed; the paper market
// keeps no holiday calendar.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/contract.hpp"

namespace quorvex::paper {

// The paper market's quote streams: board lots of stocks, intraday odd lots, futures and
// options, index values.
enum class Market : std::uint8_t { Stock, IntradayOdd, FuturesOptions, Index };

std::string_view to_text(Market market);  // "STK", "ODD", "FOP", "IND"
// Board-lot market of a contract: Stock, FuturesOptions or Index.
Market board_market(const Contract& contract);

inline constexpr Timestamp kNanosPerMinute = 60 * kNanosPerSecond;

struct TradingSession {
  Timestamp open = 0;           // the opening auction, or the first periodic auction
  Timestamp last_trade = 0;     // continuous trading stops before this
  Timestamp close = 0;          // the closing auction when there is one; else equal to last_trade
  Timestamp call_interval = 0;  // above zero: the session trades only in auctions this far apart
  bool closing_auction = false;
  bool night = false;     // the after-hours session of futures and options
  double activity = 1.0;  // trade rate relative to the regular session
};

// The sessions of `day` in time order; empty on weekends.
std::vector<TradingSession> trading_sessions(Market market, const Date& day);

// The trading day whose sessions run at `t`, or else the latest one begun before it.
Date trading_day_at(Market market, Timestamp t);

// First opening and last close of a trading day (zero on weekends).
Timestamp day_open(Market market, const Date& day);
Timestamp day_close(Market market, const Date& day);

// A Taipei wall-clock time in nanoseconds counted as if it were UTC: what history replies
// carry, so that a client reading them as UTC sees exchange time.
inline constexpr Timestamp kTaipeiOffsetNanos = 8 * 3600 * kNanosPerSecond;
inline Timestamp taipei_wall_nanos(Timestamp ts) { return ts + kTaipeiOffsetNanos; }
// Nanoseconds since Taipei midnight of an instant.
Timestamp taipei_time_of_day(Timestamp ts);

}  // namespace quorvex::paper
