// The book of money and holdings of one stock account: positions by stock and condition
// with their lots, realised profit and loss, settlement-based cash, order holds and
// earmarked funds. Every fill changes positions and cash together, so that at any time the
// settled and pending cash, the money tied in open lots and the realised profit and loss
// agree with the trades.
//
// Threading: not thread-safe; the owner serialises every call (one lock per account).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/fees.hpp"
#include "quorvex/paper/holdings.hpp"
#include "quorvex/paper/order.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

enum class StockOrderCond : std::uint8_t { Cash, MarginTrading, ShortSelling };
std::string_view to_text(StockOrderCond cond);  // "Cash", "MarginTrading", "ShortSelling"
std::optional<StockOrderCond> stock_order_cond_from_text(std::string_view text);

struct StockFill {
  OrderId order_id = 0;
  std::string seqno;
  DealId deal_id = 0;
  std::string code;
  bool etf = false;
  Board board = Board::Common;
  Side side = Side::Buy;
  StockOrderCond cond = StockOrderCond::Cash;
  Price price;
  Quantity shares = 0;
  Timestamp ts = 0;
};

struct StockFillOutcome {
  Money settlement = 0;  // + the account receives, - it pays, on settlement_date
  Date settlement_date;
  Money fee = 0;
  Money tax = 0;
  std::optional<std::uint64_t> profit_loss_id;  // when the fill closed a position
  Money pnl = 0;
};

struct StockPosition {
  std::uint64_t id = 0;
  std::string code;
  Side direction = Side::Buy;  // Sell for short positions
  Quantity quantity = 0;       // in the unit asked for
  double price = 0;            // average entry price
  Price last_price;
  Money pnl = 0;             // unrealised, net of the estimated fee and tax to close
  Quantity yd_quantity = 0;  // held at the start of the trading day, same unit
  StockOrderCond cond = StockOrderCond::Cash;
  Money margin_purchase_amount = 0;  // still lent on margin purchases
  Money collateral = 0;              // short-sale proceeds held by the broker
  Money short_sale_margin = 0;       // deposits on short sales
  Money interest = 0;
};

// One open lot behind a position.
struct StockPositionDetail {
  Date date;
  std::string code;
  Quantity quantity = 0;  // shares
  Price price;
  Price last_price;
  std::string dseq;  // the opening deal
  Side direction = Side::Buy;
  Money pnl = 0;
  Money fee = 0;
  StockOrderCond cond = StockOrderCond::Cash;
  Money ex_dividend_amt = 0;
  Money interest = 0;
  Money margintrading_amt = 0;
  Money collateral = 0;
};

// One closing fill and the profit or loss it realised.
struct StockProfitLoss {
  std::uint64_t id = 0;
  std::string code;
  std::string seqno;      // of the closing order
  std::string dseq;       // the closing deal
  Quantity quantity = 0;  // shares
  Price price;            // closing price
  Money pnl = 0;
  double pr_ratio = 0;
  StockOrderCond cond = StockOrderCond::Cash;
  Date date;
  Money cost = 0;      // what the closed lots cost (long) or what covering cost (short)
  Money proceeds = 0;  // what selling brought (long) or what the short sale brought (short)
};

// One opening lot (or part of it) that a closing fill consumed.
struct StockProfitDetail {
  Date date;  // when the lot was opened
  std::string code;
  Quantity quantity = 0;  // shares
  std::string dseq;       // the opening deal
  Money fee = 0;
  Money tax = 0;
  Price price;  // opening price
  Money cost = 0;
  Money rep_margintrading_amt = 0;  // margin loan repaid
  Money rep_collateral = 0;         // short-sale proceeds returned
  Money rep_margin = 0;             // short-sale deposit returned
  Money shortselling_fee = 0;
  Money ex_dividend_amt = 0;
  Money interest = 0;
  std::string trade_type;  // "Common", or "DayTrade" when opened and closed the same day
  StockOrderCond cond = StockOrderCond::Cash;
};

struct StockProfitLossSummary {
  std::string code;
  StockOrderCond cond = StockOrderCond::Cash;
  Quantity quantity = 0;
  double entry_price = 0;
  double cover_price = 0;
  Money entry_cost = 0;
  Money cover_cost = 0;
  Money buy_cost = 0;
  Money sell_cost = 0;
  Money pnl = 0;
  double pr_ratio = 0;
};

struct StockProfitLossSummaryTotal {
  std::vector<StockProfitLossSummary> profitloss_summary;
  ProfitLossTotal total;
};

// Net settlement of one day: trades of T settle on T+2 business days.
struct SettlementDay {
  Date date;
  Money amount = 0;
  int t = 0;  // 0 today, 1 next business day, 2 the one after
};

struct Earmark {
  std::uint64_t id = 0;
  std::string code;
  Quantity share = 0;
  Price price;
  Money amount = 0;  // funds set aside: value plus fee
  bool status = true;
  std::string info;
  Timestamp ts = 0;
};

class StockAccountBook {
 public:
  StockAccountBook(std::string account, Money opening_cash, Date opening_day, FeeSchedule fees = {});

  const std::string& account() const { return account_; }

  // Checks buying power or holdings for an order and holds them until release_order or
  // the order's fills use them up. For market orders pass the limit price that bounds it.
  Outcome reserve_for_order(OrderId order, const Contract& contract, Side side, StockOrderCond cond,
                            Price price, Quantity shares);
  void release_order(OrderId order);

  // Applies one fill. Refused, and nothing changes, when it would close more than is held.
  Result<StockFillOutcome> apply_fill(const StockFill& fill);

  // Settled cash: the opening cash and every settlement due on or before `today`.
  Money balance(Date today) const;
  // Cash the account can still commit: settled plus pending, less holds and earmarks.
  Money available_funds() const;
  std::array<SettlementDay, 3> settlements(Date today) const;

  std::vector<StockPosition> positions(Unit unit, const MarkPrice& mark, Date today) const;
  // The lots of the position with this id; UnknownPosition when there is none.
  Result<std::vector<StockPositionDetail>> position_detail(std::uint64_t position_id,
                                                           const MarkPrice& mark) const;
  // Closing fills with begin <= date <= end, oldest first.
  std::vector<StockProfitLoss> profit_loss(Date begin, Date end) const;
  Result<std::vector<StockProfitDetail>> profit_loss_detail(std::uint64_t profit_loss_id) const;
  const StockProfitLoss* profit_loss_of_deal(const std::string& dseq) const;
  StockProfitLossSummaryTotal profit_loss_summary(Date begin, Date end) const;

  Result<Earmark> earmark(const Contract& contract, Quantity shares, Price price, Timestamp now);
  const std::vector<Earmark>& earmarks() const { return earmarks_; }

  // Money that open lots tie up: their cost net of margin loans (long) and short-sale deposits.
  Money committed_in_positions() const;
  Money realised_pnl() const;

 private:
  struct Lot {
    Date date;
    DealId deal_id = 0;
    Quantity shares = 0;
    Price price;
    Money cost = 0;  // long: value + fee; short: proceeds net of fee, tax and borrowing fee
    Money fee = 0;
    Money tax = 0;
    Money borrow_fee = 0;
    Money loan = 0;     // margin purchases
    Money deposit = 0;  // short sales
    Lot take(Quantity part);
  };
  struct Holding {
    std::uint64_t id = 0;
    std::string code;
    StockOrderCond cond = StockOrderCond::Cash;
    bool etf = false;
    bool odd_lot = false;
    Quantity yd_shares = 0;
    std::vector<Lot> lots;  // oldest first
    Quantity shares() const;
  };
  struct Hold {
    std::string code;
    StockOrderCond cond = StockOrderCond::Cash;
    Side side = Side::Buy;
    Quantity shares = 0;
    Money funds = 0;
  };
  struct Realised {
    StockProfitLoss row;
    std::vector<StockProfitDetail> details;
    Money buy_cost = 0;
    Money sell_cost = 0;
  };
  using HoldingKey = std::pair<std::string, StockOrderCond>;

  void roll_to(Date day);
  Holding& holding(const std::string& code, StockOrderCond cond, bool etf);
  Quantity held_for_sale(const std::string& code, StockOrderCond cond) const;
  Money funds_needed(Side side, StockOrderCond cond, Money value, bool odd_lot) const;
  Money value_at(const Holding& h, const Lot& lot, Price mark) const;
  void use_hold(OrderId order, Quantity shares);
  void count_hold(const Hold& hold, int sign);

  std::string account_;
  FeeSchedule fees_;
  Money opening_cash_;
  Date today_;
  std::map<HoldingKey, Holding> holdings_;
  std::map<std::int64_t, Money> settlements_;  // by settlement date serial
  std::unordered_map<OrderId, Hold> holds_;
  Money held_funds_ = 0;                          // the funds of every hold in holds_
  std::map<HoldingKey, Quantity> held_for_sale_;  // shares of closing orders' holds
  std::vector<Realised> realised_;
  std::vector<Earmark> earmarks_;
  std::uint64_t last_position_id_ = 0;
};

}  // namespace quorvex::paper
