// The content layouts of the real-time quote messages, one per record type. The feed
// publishes exactly these element orders (docs/protocol.md, real-time quotes); a change
// here is a change of the wire contract.
#pragma once

#include "record.hpp"

namespace quorvex::quote {

// The trade fields of a stock, shared by the tick and the joined quote.
constexpr std::array<Field, 21> kStockTradeFields = {{
    {"code", Kind::Code},
    {"datetime", Kind::Time},
    {"open", Kind::Number},
    {"close", Kind::Number},
    {"high", Kind::Number},
    {"low", Kind::Number},
    {"avg_price", Kind::Number},
    {"amount", Kind::Number},
    {"total_amount", Kind::Number},
    {"volume", Kind::Count},
    {"total_volume", Kind::Count},
    {"tick_type", Kind::Count},
    {"chg_type", Kind::Count},
    {"price_chg", Kind::Number},
    {"pct_chg", Kind::Number},
    {"bid_side_total_vol", Kind::Count},
    {"ask_side_total_vol", Kind::Count},
    {"bid_side_total_cnt", Kind::Count},
    {"ask_side_total_cnt", Kind::Count},
    {"closing_oddlot_shares", Kind::Count},
    {"fixed_trade_vol", Kind::Count},
}};

constexpr std::array<Field, 2> kIdentityFields = {{{"code", Kind::Code}, {"datetime", Kind::Time}}};

// The best five bids and asks, shared by the stock and futures bid/ask and the joined quote.
constexpr std::array<Field, 6> kBookFields = {{
    {"bid_price", Kind::PriceLevels},
    {"bid_volume", Kind::VolumeLevels},
    {"diff_bid_vol", Kind::VolumeLevels},
    {"ask_price", Kind::PriceLevels},
    {"ask_volume", Kind::VolumeLevels},
    {"diff_ask_vol", Kind::VolumeLevels},
}};

constexpr std::array<Field, 2> kStockStatusFields = {{{"suspend", Kind::Flag}, {"simtrade", Kind::Flag}}};

// Stock trade tick (board lots; the odd-lot form has the same layout, volumes in shares).
struct TickStkSpec {
  static constexpr const char* kName = "TickSTKv1";
  static constexpr bool kOddLot = true;
  static constexpr const char* kDoc =
      "A stock trade tick. Prices and amounts are floats (NTD); volumes count board lots, or "
      "shares when intraday_odd is True; datetime is Taipei time.";
  static constexpr auto kFields = with_slots(join(kStockTradeFields, kStockStatusFields));
};

// Futures or options trade tick.
struct TickFopSpec {
  static constexpr const char* kName = "TickFOPv1";
  static constexpr bool kOddLot = false;
  static constexpr const char* kDoc =
      "A futures or options trade tick. Prices are floats (index points or NTD); volumes count "
      "contracts; datetime is Taipei time.";
  static constexpr auto kFields = with_slots<19>({{
      {"code", Kind::Code},
      {"datetime", Kind::Time},
      {"open", Kind::Number},
      {"underlying_price", Kind::Number},
      {"bid_side_total_vol", Kind::Count},
      {"ask_side_total_vol", Kind::Count},
      {"avg_price", Kind::Number},
      {"close", Kind::Number},
      {"high", Kind::Number},
      {"low", Kind::Number},
      {"amount", Kind::Number},
      {"total_amount", Kind::Number},
      {"volume", Kind::Count},
      {"total_volume", Kind::Count},
      {"tick_type", Kind::Count},
      {"chg_type", Kind::Count},
      {"price_chg", Kind::Number},
      {"pct_chg", Kind::Number},
      {"simtrade", Kind::Flag},
  }});
};

// Stock best five bids and asks (board lots; the odd-lot form has the same layout, volumes in shares).
struct BidAskStkSpec {
  static constexpr const char* kName = "BidAskSTKv1";
  static constexpr bool kOddLot = true;
  static constexpr const char* kDoc =
      "The best five bids and asks of a stock, best level first. Volumes count board lots, or "
      "shares when intraday_odd is True; datetime is Taipei time.";
  static constexpr auto kFields = with_slots(join(join(kIdentityFields, kBookFields), kStockStatusFields));
};

// Futures or options best five bids and asks, with the first derived (spread-implied) level.
struct BidAskFopSpec {
  static constexpr const char* kName = "BidAskFOPv1";
  static constexpr bool kOddLot = false;
  static constexpr const char* kDoc =
      "The best five bids and asks of a future or option, best level first, with the first "
      "derived bid and ask; volumes count contracts; datetime is Taipei time.";
  static constexpr std::array<Field, 2> kTotals = {
      {{"bid_total_vol", Kind::Count}, {"ask_total_vol", Kind::Count}}};
  static constexpr std::array<Field, 6> kDerivedAndUnderlying = {{
      {"first_derived_bid_price", Kind::Number},
      {"first_derived_ask_price", Kind::Number},
      {"first_derived_bid_vol", Kind::Count},
      {"first_derived_ask_vol", Kind::Count},
      {"underlying_price", Kind::Number},
      {"simtrade", Kind::Flag},
  }};
  static constexpr auto kFields =
      with_slots(join(join(join(kIdentityFields, kTotals), kBookFields), kDerivedAndUnderlying));
};

// A stock's last trade and best five bids and asks in one message (board lots).
struct QuoteStkSpec {
  static constexpr const char* kName = "QuoteSTKv1";
  static constexpr bool kOddLot = false;
  static constexpr const char* kDoc =
      "A stock's trade tick and best five bids and asks joined: the tick's fields, then the "
      "book, best level first; volumes count board lots; datetime is Taipei time.";
  static constexpr auto kFields = with_slots(join(join(kStockTradeFields, kBookFields), kStockStatusFields));
};

// The element counts published in docs/protocol.md.
static_assert(TickStkSpec::kFields.size() == 23 && TickFopSpec::kFields.size() == 19, "tick layouts");
static_assert(BidAskStkSpec::kFields.size() == 10 && BidAskFopSpec::kFields.size() == 16, "bid/ask layouts");
static_assert(QuoteStkSpec::kFields.size() == 29, "joined quote layout");

}  // namespace quorvex::quote
