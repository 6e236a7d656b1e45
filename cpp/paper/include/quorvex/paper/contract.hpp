// Reference data of one tradable (or quoted) instrument. Value type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/market_rules.hpp"
#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

// Wire values: "IND", "STK", "FUT", "OPT"; declared in the order clients iterate them.
enum class SecurityType : std::uint8_t { Index, Stock, Future, Option };
inline constexpr SecurityType kSecurityTypes[] = {SecurityType::Index, SecurityType::Stock,
                                                  SecurityType::Future, SecurityType::Option};

enum class Exchange : std::uint8_t { TSE, OTC, OES, TAIFEX };
enum class OptionRight : std::uint8_t { None, Call, Put };
// Which way a stock may be day-traded.
enum class DayTrade : std::uint8_t { Yes, OnlyBuy, No };

std::string_view to_text(SecurityType type);   // "IND", "STK", "FUT", "OPT"
std::string_view to_text(Exchange exchange);   // "TSE", "OTC", "OES", "TAIFEX"
std::string_view to_text(OptionRight right);   // "", "C", "P"
std::string_view to_text(DayTrade day_trade);  // "Yes", "OnlyBuy", "No"
std::optional<SecurityType> security_type_from_text(std::string_view text);

struct Contract {
  SecurityType security_type = SecurityType::Stock;
  Exchange exchange = Exchange::TSE;
  std::string code;    // "2330", "TXFL6", "TXO20000L6", "001"
  std::string symbol;  // "TSE2330", "TXF202612", "TXO20261220000C", "TSE001"
  std::string name;
  std::string category;  // industry code for stocks ("24"), product code for derivatives ("TXF")
  std::string currency = "TWD";
  TickLadder ladder = TickLadder::Stock;
  Price reference;
  Price limit_up;
  Price limit_down;
  Date update_date;

  // Stocks: shares per board lot. Derivatives: TWD per point per contract.
  Quantity unit = 1000;
  std::int64_t multiplier = 1;

  // Stocks.
  DayTrade day_trade = DayTrade::No;
  bool margin_trading = false;  // margin purchase allowed
  bool short_selling = false;
  Quantity margin_trading_balance = 0;  // lots the broker can still lend money for
  Quantity short_selling_balance = 0;   // lots the broker can still lend

  // Futures and options.
  std::string delivery_month;  // "YYYYMM"
  Date delivery_date;
  std::string underlying_kind;  // "I" index, "S" stock
  std::string underlying_code;  // "001" or a stock code
  Price strike_price;
  OptionRight option_right = OptionRight::None;
  Money initial_margin = 0;      // per contract for futures; the "A" value of short options
  Money maintenance_margin = 0;  // likewise

  bool is_etf() const { return ladder == TickLadder::Etf; }
  bool is_derivative() const {
    return security_type == SecurityType::Future || security_type == SecurityType::Option;
  }
  bool tradable() const { return security_type != SecurityType::Index; }
  PriceLimits limits() const { return {limit_down, limit_up}; }
};

}  // namespace quorvex::paper
