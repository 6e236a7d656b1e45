// The book of money and holdings of one futures and options account: positions per contract
// and direction with their lots, realised profit and loss, the day's balance and the margin
// sheet. Opposite fills offset open lots first-in first-out; the rest opens new lots.
//
// Money moves as a futures clearing house moves it: futures gains and losses when a position
// is closed, option premiums when they are paid or received, fees and taxes on every fill.
// So equity = today's balance + floating futures profit and loss, and the equity amount adds
// the market value of long options less that of short ones.
//
// Threading: not thread-safe; the owner serialises every call (one lock per account).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/fees.hpp"
#include "quorvex/paper/holdings.hpp"
#include "quorvex/paper/order.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

// Auto offsets first and opens the rest; Cover must only offset; New and DayTrade open (and
// still offset an opposite position first, as the clearing house nets them).
enum class FuturesOCType : std::uint8_t { Auto, New, Cover, DayTrade };
std::string_view to_text(FuturesOCType type);  // "Auto", "New", "Cover", "DayTrade"
std::optional<FuturesOCType> futures_octype_from_text(std::string_view text);

struct FuturesFill {
  OrderId order_id = 0;
  std::string seqno;
  DealId deal_id = 0;
  Side side = Side::Buy;
  FuturesOCType octype = FuturesOCType::Auto;
  Price price;
  Quantity quantity = 0;
  Timestamp ts = 0;
};

struct FuturesFillOutcome {
  Money fee = 0;
  Money tax = 0;
  Money premium = 0;   // options: + received, - paid
  Money realised = 0;  // profit or loss of the offset part
  std::optional<std::uint64_t> profit_loss_id;
};

struct FuturePosition {
  std::uint64_t id = 0;
  std::string code;
  Side direction = Side::Buy;
  Quantity quantity = 0;
  double price = 0;  // average entry price
  Price last_price;
  Money pnl = 0;  // floating
};

struct FuturePositionDetail {
  Date date;
  std::string code;
  Quantity quantity = 0;
  Price price;
  Price last_price;
  std::string dseq;
  Side direction = Side::Buy;
  Money pnl = 0;
  Money fee = 0;
};

struct FutureProfitLoss {
  std::uint64_t id = 0;
  std::string code;
  std::string seqno;           // of the offsetting order
  std::string dseq;            // the offsetting deal
  Side direction = Side::Buy;  // of the position that was closed
  Quantity quantity = 0;
  double entry_price = 0;
  Price cover_price;
  Money pnl = 0;
  Money fee = 0;  // entry and cover fees of the closed contracts
  Money tax = 0;
  Date date;
};

struct FutureProfitDetail {
  Date date;  // when the lot was opened
  std::string code;
  std::string dseq;  // the opening deal
  Side direction = Side::Buy;
  Quantity quantity = 0;
  Price entry_price;
  Price cover_price;
  Money pnl = 0;
  Money fee = 0;
  Money tax = 0;
  std::string trade_type;  // "Common" or "DayTrade"
};

struct FutureProfitLossSummary {
  std::string code;
  Side direction = Side::Buy;
  Quantity quantity = 0;
  double entry_price = 0;
  double cover_price = 0;
  Money pnl = 0;
  Money fee = 0;
  Money tax = 0;
};

struct FutureProfitLossSummaryTotal {
  std::vector<FutureProfitLossSummary> profitloss_summary;
  ProfitLossTotal total;
};

// The margin sheet, in TWD cents except the two indicators.
struct MarginSheet {
  Money yesterday_balance = 0;
  Money today_balance = 0;
  Money deposit_withdrawal = 0;
  Money fee = 0;
  Money tax = 0;
  Money initial_margin = 0;
  Money maintenance_margin = 0;
  Money margin_call = 0;
  double risk_indicator = 0;  // equity amount as a percentage of the initial margin; 999 with nothing open
  Money royalty_revenue_expenditure = 0;
  Money equity = 0;
  Money equity_amount = 0;
  Money option_openbuy_market_value = 0;
  Money option_opensell_market_value = 0;
  Money option_open_position = 0;
  Money option_settle_profitloss = 0;
  Money future_open_position = 0;
  Money today_future_open_position = 0;
  Money future_settle_profitloss = 0;
  Money available_margin = 0;
  Money plus_margin = 0;
  double plus_margin_indicator = 0;
  Money security_collateral_amount = 0;
  Money order_margin_premium = 0;
  Money collateral_amount = 0;
};

class FuturesAccountBook {
 public:
  FuturesAccountBook(std::string account, Money opening_balance, Date opening_day, FeeSchedule fees = {});

  const std::string& account() const { return account_; }

  // Checks the margin (or, for Cover, the position) an order needs and holds it until
  // release_order or the order's fills use it up.
  Outcome reserve_for_order(OrderId order, const Contract& contract, Side side, FuturesOCType octype,
                            Price price, Quantity quantity, const MarkPrice& mark, Date today);
  void release_order(OrderId order);

  // Refused, and nothing changes, when a Cover fill finds less to offset than it closes.
  Result<FuturesFillOutcome> apply_fill(const Contract& contract, const FuturesFill& fill);

  Outcome deposit(Money amount, Date today);
  Outcome withdraw(Money amount, const MarkPrice& mark, Date today);

  MarginSheet margin(const MarkPrice& mark, Date today);

  std::vector<FuturePosition> positions(const MarkPrice& mark) const;
  Result<std::vector<FuturePositionDetail>> position_detail(std::uint64_t position_id,
                                                            const MarkPrice& mark) const;
  std::vector<FutureProfitLoss> profit_loss(Date begin, Date end) const;
  Result<std::vector<FutureProfitDetail>> profit_loss_detail(std::uint64_t profit_loss_id) const;
  FutureProfitLossSummaryTotal profit_loss_summary(Date begin, Date end) const;

  Money opening_balance() const { return opening_balance_; }

 private:
  struct Lot {
    Date date;
    DealId deal_id = 0;
    Quantity quantity = 0;
    Price price;
    Money fee = 0;
    Money tax = 0;
    Lot take(Quantity part);
  };
  struct Position {
    std::uint64_t id = 0;
    Contract contract;
    Side direction = Side::Buy;
    std::vector<Lot> lots;  // oldest first
    Quantity quantity() const;
  };
  struct Hold {
    std::string code;
    Side side = Side::Buy;
    Quantity quantity = 0;
    Quantity offset = 0;  // reserved against the opposite position
    Money funds = 0;      // margin for the part that opens
  };
  struct Realised {
    FutureProfitLoss row;
    std::vector<FutureProfitDetail> details;
    Money entry_value = 0;
    Money cover_value = 0;
  };
  using PositionKey = std::pair<std::string, Side>;

  void roll_to(Date day);
  Quantity open_quantity(const std::string& code, Side direction) const;
  Money margin_needed(const Contract& contract, Side side, Price price, Quantity opening,
                      const MarkPrice& mark) const;
  Money short_option_margin(const Contract& c, Price premium, Money a_value, const MarkPrice& marks) const;
  void use_hold(OrderId order, Quantity quantity);
  void count_hold(const Hold& hold, int sign);

  std::string account_;
  FeeSchedule fees_;
  Money opening_balance_;
  Date today_;
  Money yesterday_balance_;
  Money deposit_withdrawal_ = 0;
  Money fee_ = 0;
  Money tax_ = 0;
  Money royalty_ = 0;
  Money future_settle_ = 0;
  Money option_settle_ = 0;
  std::map<PositionKey, Position> positions_;
  std::unordered_map<OrderId, Hold> holds_;
  Money held_funds_ = 0;                                           // the margin of every hold in holds_
  std::map<std::pair<std::string, Side>, Quantity> held_offsets_;  // offsets held, by code and side
  std::vector<Realised> realised_;
  std::uint64_t last_position_id_ = 0;
};

}  // namespace quorvex::paper
