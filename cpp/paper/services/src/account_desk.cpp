// Money and holdings from the books the fills keep: balance, margin, settlements, positions
// and their lots, realised profit and loss with details and summaries. Every reply carries
// the account dict beside its data.
#include "account_desk.hpp"

#include "contract_desk.hpp"

namespace quorvex::paper {

using core::Value;
using wire::Field;
using wire::field;

namespace {

Value side_text(Side side) { return Value(to_text(side)); }
Value cond_text(StockOrderCond cond) { return Value(to_text(cond)); }

// The fields every position row has; stock rows add their condition and financing.
template <typename Position>
Value position_row(const Position& p) {
  return Value::map({{"id", static_cast<std::int64_t>(p.id)},
                     {"code", p.code},
                     {"direction", side_text(p.direction)},
                     {"quantity", p.quantity},
                     {"price", p.price},
                     {"last_price", wire::price_number(p.last_price)},
                     {"pnl", wire::amount(p.pnl)}});
}

Value stock_position(const StockPosition& p) {
  Value row = position_row(p);
  core::Map& m = row.as_map();
  m.append_new("yd_quantity", p.yd_quantity);
  m.append_new("cond", cond_text(p.cond));
  m.append_new("margin_purchase_amount", wire::amount(p.margin_purchase_amount));
  m.append_new("collateral", wire::amount(p.collateral));
  m.append_new("short_sale_margin", wire::amount(p.short_sale_margin));
  m.append_new("interest", wire::amount(p.interest));
  return row;
}

Value future_position(const FuturePosition& p) { return position_row(p); }

// The fields every open lot has.
template <typename Lot>
Value lot_row(const Lot& d) {
  return Value::map({{"date", d.date.to_string()},
                     {"code", d.code},
                     {"quantity", d.quantity},
                     {"price", wire::price_number(d.price)},
                     {"last_price", wire::price_number(d.last_price)},
                     {"dseq", d.dseq},
                     {"direction", side_text(d.direction)},
                     {"pnl", wire::amount(d.pnl)},
                     {"currency", "TWD"},
                     {"fee", wire::amount(d.fee)}});
}

Value stock_lot(const StockPositionDetail& d) {
  Value row = lot_row(d);
  core::Map& m = row.as_map();
  m.append_new("cond", cond_text(d.cond));
  m.append_new("ex_dividends", wire::amount(d.ex_dividend_amt));
  m.append_new("interest", wire::amount(d.interest));
  m.append_new("margintrading_amt", wire::amount(d.margintrading_amt));
  m.append_new("collateral", wire::amount(d.collateral));
  return row;
}

Value future_lot(const FuturePositionDetail& d) {
  Value row = lot_row(d);
  row.as_map().append_new("entry_quantity", d.quantity);
  return row;
}

Value stock_realised(const StockProfitLoss& r) {
  return Value::map({{"id", static_cast<std::int64_t>(r.id)},
                     {"code", r.code},
                     {"seqno", r.seqno},
                     {"dseq", r.dseq},
                     {"quantity", r.quantity},
                     {"price", wire::price_number(r.price)},
                     {"pnl", wire::amount(r.pnl)},
                     {"pr_ratio", r.pr_ratio},
                     {"cond", cond_text(r.cond)},
                     {"date", r.date.to_string()}});
}

Value future_realised(const FutureProfitLoss& r) {
  return Value::map({{"id", static_cast<std::int64_t>(r.id)},
                     {"code", r.code},
                     {"quantity", r.quantity},
                     {"pnl", wire::amount(r.pnl)},
                     {"date", r.date.to_string()},
                     {"direction", side_text(r.direction)},
                     {"entry_price", r.entry_price},
                     {"cover_price", wire::price_number(r.cover_price)},
                     {"tax", wire::amount(r.tax)},
                     {"fee", wire::amount(r.fee)}});
}

// The fields every lot a closing consumed has.
template <typename Detail>
Value closed_lot_row(const Detail& d) {
  return Value::map({{"date", d.date.to_string()},
                     {"code", d.code},
                     {"quantity", d.quantity},
                     {"dseq", d.dseq},
                     {"fee", wire::amount(d.fee)},
                     {"tax", wire::amount(d.tax)},
                     {"currency", "TWD"}});
}

Value stock_realised_lot(const StockProfitDetail& d) {
  Value row = closed_lot_row(d);
  core::Map& m = row.as_map();
  m.append_new("price", wire::price_number(d.price));
  m.append_new("cost", wire::amount(d.cost));
  m.append_new("rep_margintrading_amt", wire::amount(d.rep_margintrading_amt));
  m.append_new("rep_collateral", wire::amount(d.rep_collateral));
  m.append_new("rep_margin", wire::amount(d.rep_margin));
  m.append_new("shortselling_fee", wire::amount(d.shortselling_fee));
  m.append_new("ex_dividend_amt", wire::amount(d.ex_dividend_amt));
  m.append_new("interest", wire::amount(d.interest));
  m.append_new("trade_type", d.trade_type);
  m.append_new("cond", cond_text(d.cond));
  return row;
}

Value future_realised_lot(const FutureProfitDetail& d) {
  Value row = closed_lot_row(d);
  core::Map& m = row.as_map();
  m.append_new("direction", side_text(d.direction));
  m.append_new("entry_price", wire::price_number(d.entry_price));
  m.append_new("cover_price", wire::price_number(d.cover_price));
  m.append_new("pnl", wire::amount(d.pnl));
  return row;
}

Value total_of(const ProfitLossTotal& t) {
  return Value::map({{"quantity", t.quantity},
                     {"buy_cost", wire::amount(t.buy_cost)},
                     {"sell_cost", wire::amount(t.sell_cost)},
                     {"pnl", wire::amount(t.pnl)},
                     {"pr_ratio", t.pr_ratio}});
}

template <typename Row, typename Convert>
Value rows_of(const std::vector<Row>& rows, Convert convert) {
  Value list = Value::array({});
  list.as_array().reserve(rows.size());
  for (const Row& row : rows) list.push_back(convert(row));
  return list;
}

Value margin_sheet(const MarginSheet& m) {
  return Value::map({{"yesterday_balance", wire::amount(m.yesterday_balance)},
                     {"today_balance", wire::amount(m.today_balance)},
                     {"deposit_withdrawal", wire::amount(m.deposit_withdrawal)},
                     {"fee", wire::amount(m.fee)},
                     {"tax", wire::amount(m.tax)},
                     {"initial_margin", wire::amount(m.initial_margin)},
                     {"maintenance_margin", wire::amount(m.maintenance_margin)},
                     {"margin_call", wire::amount(m.margin_call)},
                     {"risk_indicator", m.risk_indicator},
                     {"royalty_revenue_expenditure", wire::amount(m.royalty_revenue_expenditure)},
                     {"equity", wire::amount(m.equity)},
                     {"equity_amount", wire::amount(m.equity_amount)},
                     {"option_openbuy_market_value", wire::amount(m.option_openbuy_market_value)},
                     {"option_opensell_market_value", wire::amount(m.option_opensell_market_value)},
                     {"option_open_position", wire::amount(m.option_open_position)},
                     {"option_settle_profitloss", wire::amount(m.option_settle_profitloss)},
                     {"future_open_position", wire::amount(m.future_open_position)},
                     {"today_future_open_position", wire::amount(m.today_future_open_position)},
                     {"future_settle_profitloss", wire::amount(m.future_settle_profitloss)},
                     {"available_margin", wire::amount(m.available_margin)},
                     {"plus_margin", wire::amount(m.plus_margin)},
                     {"plus_margin_indicator", m.plus_margin_indicator},
                     {"security_collateral_amount", wire::amount(m.security_collateral_amount)},
                     {"order_margin_premium", wire::amount(m.order_margin_premium)},
                     {"collateral_amount", wire::amount(m.collateral_amount)}});
}

// The date range of a profit and loss query, refused when it runs backwards.
std::pair<Date, Date> date_range(const Value& payload) {
  const Date begin = field(payload, "begin_date").date();
  const Date end = field(payload, "end_date").date();
  if (end < begin) {
    wire::refuse(wire::kBadRequest, "end_date " + end.to_string() + " is before begin_date " +
                                        begin.to_string() + "; expected a range that runs forward");
  }
  return {begin, end};
}

Unit unit_of(const Field& f) {
  const std::string text = f.text_or("Common");
  if (text == "Common") return Unit::Common;
  if (text == "Share") return Unit::Share;
  wire::refuse(wire::kBadRequest, "field '" + f.path() + "' is '" + text + "'; expected Common or Share");
}

}  // namespace

AccountDesk::AccountDesk(const ContractMaster& master, const AuthDesk& auth, const core::Clock& market_clock,
                         const core::Clock& broker_clock, MarkPrice marks)
    : master_(master),
      auth_(auth),
      market_clock_(market_clock),
      broker_clock_(broker_clock),
      marks_(std::move(marks)),
      reservations_(master) {}

StockAccountBook& AccountDesk::stock_book(const Account& account) {
  auto it = stock_books_.find(&account);
  if (it == stock_books_.end()) {
    it = stock_books_.emplace(&account, StockAccountBook(account.key, account.config.opening_cash, today()))
             .first;
  }
  return it->second;
}

FuturesAccountBook& AccountDesk::futures_book(const Account& account) {
  auto it = futures_books_.find(&account);
  if (it == futures_books_.end()) {
    it = futures_books_
             .emplace(&account, FuturesAccountBook(account.key, account.config.opening_cash, today()))
             .first;
  }
  return it->second;
}

// ---- what orders need of the books ----

namespace {

// Shares of a stock quantity: board lots on the Common and Fixing boards, shares on the odd-lot ones.
Quantity shares_of(Board board, Quantity quantity, const Contract& contract) {
  return board == Board::Common || board == Board::Fixing ? quantity * contract.unit : quantity;
}

}  // namespace

Outcome AccountDesk::hold(OrderId id, const Account& account, const Contract& contract,
                          const OrderTerms& terms, Price at, Quantity quantity) {
  if (account.is_stock()) {
    return stock_book(account).reserve_for_order(id, contract, terms.side, terms.cond, at,
                                                 shares_of(terms.board, quantity, contract));
  }
  return futures_book(account).reserve_for_order(id, contract, terms.side, terms.octype, at, quantity, marks_,
                                                 today());
}

void AccountDesk::release(OrderId id, const Account& account) {
  if (account.is_stock()) {
    stock_book(account).release_order(id);
  } else {
    futures_book(account).release_order(id);
  }
}

std::string AccountDesk::book_fill(OrderId id, const Account& account, const Contract& contract,
                                   const OrderTerms& terms, const OrderEvent& fill) {
  if (!account.is_stock()) {
    const FuturesFill booking{id,           order_seqno(id), fill.deal_id,  terms.side,
                              terms.octype, fill.deal_price, fill.quantity, fill.ts};
    const auto booked = futures_book(account).apply_fill(contract, booking);
    return booked ? std::string() : booked.refusal().text;
  }
  const Quantity shares = shares_of(terms.board, fill.quantity, contract);
  const StockFill booking{id,          order_seqno(id), fill.deal_id, contract.code,   contract.is_etf(),
                          terms.board, terms.side,      terms.cond,   fill.deal_price, shares,
                          fill.ts};
  const auto booked = stock_book(account).apply_fill(booking);
  if (terms.cond == StockOrderCond::ShortSelling && terms.side == Side::Sell) {
    reservations_.use(account.key, contract.code, shares);
  }
  return booked ? std::string() : booked.refusal().text;
}

// ---- services ----

// Balance, margin and settlements send the account dict itself; the other services send it
// under "account".
const Account& AccountDesk::account_for(const Request& request, std::optional<AccountKind> kind) const {
  const bool whole = !request.payload.contains("account") && request.payload.contains("broker_id");
  const Account& account = auth_.owned_account(
      request, whole ? Field(request.payload, "account") : field(request.payload, "account"));
  if (kind && account.config.kind != *kind) {
    wire::refuse(wire::kBadRequest, request.topic + " serves " +
                                        (*kind == AccountKind::Stock ? "stock" : "futures") + " accounts; " +
                                        account.config.broker_id + "-" + account.config.account_id +
                                        " is a " + (account.is_stock() ? "stock" : "futures") + " account");
  }
  return account;
}

Value AccountDesk::with_account(const Account& account, const char* key, Value value) {
  return Value::map({{"account", account.wire()}, {key, std::move(value)}});
}

void AccountDesk::serve(ServiceTable& table) {
  using D = AccountDesk;
  table.serve("api/v1/portfolio/account_balance", Access::LiveOnly, bound(this, &D::account_balance));
  table.serve("api/v1/portfolio/margin", Access::LiveOnly, bound(this, &D::margin));
  table.serve("api/v1/portfolio/settlements", Access::LiveOnly, bound(this, &D::settlements));
  table.serve("api/v1/portfolio/settlement", Access::Session, bound(this, &D::settlement));
  table.serve_with_paper_twin("portfolio", "position_unit", bound(this, &D::positions));
  table.serve("api/v1/portfolio/position_detail", Access::LiveOnly, bound(this, &D::position_detail));
  table.serve_with_paper_twin("portfolio", "profit_loss", bound(this, &D::profit_loss));
  table.serve("api/v1/portfolio/profit_loss_detail", Access::LiveOnly, bound(this, &D::profit_loss_detail));
  table.serve("api/v1/portfolio/profitloss_sum", Access::LiveOnly, bound(this, &D::profit_loss_summary));
  table.serve("api/v1/order/reserve_stock", Access::LiveOnly, bound(this, &D::reserve_stock));
  table.serve("api/v1/order/reserve_earmarking", Access::LiveOnly, bound(this, &D::reserve_earmarking));
  table.serve("api/v1/order/stock_reserve_summary", Access::LiveOnly, bound(this, &D::stock_reserve_summary));
  table.serve("api/v1/order/stock_reserve_detail", Access::LiveOnly, bound(this, &D::stock_reserve_detail));
  table.serve("api/v1/order/earmarking_detail", Access::LiveOnly, bound(this, &D::earmarking_detail));
}

Value AccountDesk::account_balance(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value response = with_account(account, "acc_balance", wire::amount(stock_book(account).balance(today())));
  response.set("date", wire::time_text(now()));
  response.set("errmsg", "");
  return response;
}

Value AccountDesk::margin(Request& request) {
  const Account& account = account_for(request, AccountKind::Futures);
  return with_account(account, "margins", margin_sheet(futures_book(account).margin(marks_, today())));
}

Value AccountDesk::settlements(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value days = Value::array({});
  for (const SettlementDay& day : stock_book(account).settlements(today())) {
    days.push_back(
        Value::map({{"date", day.date.to_string()}, {"amount", wire::amount(day.amount)}, {"T", day.t}}));
  }
  return with_account(account, "settlements", std::move(days));
}

Value AccountDesk::settlement(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  const auto days = stock_book(account).settlements(today());
  return with_account(account, "settlements",
                      Value::map({{"t_money", wire::amount(days[0].amount)},
                                  {"t1_money", wire::amount(days[1].amount)},
                                  {"t2_money", wire::amount(days[2].amount)},
                                  {"t_day", days[0].date.to_string()},
                                  {"t1_day", days[1].date.to_string()},
                                  {"t2_day", days[2].date.to_string()}}));
}

Value AccountDesk::positions(Request& request) {
  const Account& account = account_for(request, std::nullopt);
  if (account.is_stock()) {
    const Unit unit = unit_of(field(request.payload, "unit"));
    return with_account(account, "positions",
                        rows_of(stock_book(account).positions(unit, marks_, today()), stock_position));
  }
  return with_account(account, "positions",
                      rows_of(futures_book(account).positions(marks_), future_position));
}

// The client names a position by its code, direction and (stocks) condition, as listed.
Value AccountDesk::position_detail(Request& request) {
  const Account& account = account_for(request, std::nullopt);
  const std::string code = field(request.payload, "code").text();
  const std::string action = field(request.payload, "action").text();
  const std::string where = " position " + code + " " + action;
  if (account.is_stock()) {
    const std::string cond = field(request.payload, "ttype").text_or("Cash");
    for (const StockPosition& p : stock_book(account).positions(Unit::Share, marks_, today())) {
      if (p.code == code && to_text(p.direction) == action && to_text(p.cond) == cond) {
        const auto lots = stock_book(account).position_detail(p.id, marks_);
        if (!lots) wire::refuse(lots.refusal());
        return with_account(account, "position_detail", rows_of(lots.value(), stock_lot));
      }
    }
    wire::refuse(wire::kNotFound,
                 "no" + where + " " + cond + " in the account; expected one list_positions gave",
                 static_cast<int>(RefusalCode::UnknownPosition));
  }
  for (const FuturePosition& p : futures_book(account).positions(marks_)) {
    if (p.code == code && to_text(p.direction) == action) {
      const auto lots = futures_book(account).position_detail(p.id, marks_);
      if (!lots) wire::refuse(lots.refusal());
      return with_account(account, "position_detail", rows_of(lots.value(), future_lot));
    }
  }
  wire::refuse(wire::kNotFound, "no" + where + " in the account; expected one list_positions gave",
               static_cast<int>(RefusalCode::UnknownPosition));
}

Value AccountDesk::profit_loss(Request& request) {
  const Account& account = account_for(request, std::nullopt);
  const auto [begin, end] = date_range(request.payload);
  if (account.is_stock()) {
    return with_account(account, "profitloss",
                        rows_of(stock_book(account).profit_loss(begin, end), stock_realised));
  }
  return with_account(account, "profitloss",
                      rows_of(futures_book(account).profit_loss(begin, end), future_realised));
}

// Stock items are named by their closing deal (dseq); futures items by code and date, which
// may cover several closings.
Value AccountDesk::profit_loss_detail(Request& request) {
  const Account& account = account_for(request, std::nullopt);
  const std::string code = field(request.payload, "stock").text();
  if (account.is_stock()) {
    const std::string dseq = field(request.payload, "dseq").text();
    const StockProfitLoss* item = stock_book(account).profit_loss_of_deal(dseq);
    if (item == nullptr || item->code != code) {
      wire::refuse(wire::kNotFound,
                   "no realised profit or loss of " + code + " closed by deal " + dseq +
                       "; expected an item list_profit_loss gave",
                   static_cast<int>(RefusalCode::UnknownPosition));
    }
    const auto lots = stock_book(account).profit_loss_detail(item->id);
    if (!lots) wire::refuse(lots.refusal());
    return with_account(account, "profitdetail", rows_of(lots.value(), stock_realised_lot));
  }
  const Date day = field(request.payload, "tdate").date();
  Value rows = Value::array({});
  for (const FutureProfitLoss& item : futures_book(account).profit_loss(day, day)) {
    if (item.code != code) continue;
    const auto lots = futures_book(account).profit_loss_detail(item.id);
    if (!lots) wire::refuse(lots.refusal());
    for (const FutureProfitDetail& lot : lots.value()) rows.push_back(future_realised_lot(lot));
  }
  if (rows.size() == 0) {
    wire::refuse(wire::kNotFound,
                 "no realised profit or loss of " + code + " on " + day.to_string() +
                     "; expected an item list_profit_loss gave",
                 static_cast<int>(RefusalCode::UnknownPosition));
  }
  return with_account(account, "profitdetail", std::move(rows));
}

Value AccountDesk::profit_loss_summary(Request& request) {
  const Account& account = account_for(request, std::nullopt);
  const auto [begin, end] = date_range(request.payload);
  if (account.is_stock()) {
    const StockProfitLossSummaryTotal summary = stock_book(account).profit_loss_summary(begin, end);
    Value response = with_account(account, "profitloss_sum",
                                  rows_of(summary.profitloss_summary, [](const StockProfitLossSummary& s) {
                                    return Value::map({{"code", s.code},
                                                       {"quantity", s.quantity},
                                                       {"entry_cost", wire::amount(s.entry_cost)},
                                                       {"cover_cost", wire::amount(s.cover_cost)},
                                                       {"buy_cost", wire::amount(s.buy_cost)},
                                                       {"sell_cost", wire::amount(s.sell_cost)},
                                                       {"pnl", wire::amount(s.pnl)},
                                                       {"pr_ratio", s.pr_ratio},
                                                       {"cond", cond_text(s.cond)},
                                                       {"currency", "TWD"}});
                                  }));
    response.set("total", total_of(summary.total));
    return response;
  }
  const FutureProfitLossSummaryTotal summary = futures_book(account).profit_loss_summary(begin, end);
  Value response = with_account(account, "profitloss_sum",
                                rows_of(summary.profitloss_summary, [](const FutureProfitLossSummary& s) {
                                  return Value::map({{"code", s.code},
                                                     {"direction", side_text(s.direction)},
                                                     {"quantity", s.quantity},
                                                     {"entry_price", s.entry_price},
                                                     {"cover_price", s.cover_price},
                                                     {"pnl", wire::amount(s.pnl)},
                                                     {"tax", wire::amount(s.tax)},
                                                     {"fee", wire::amount(s.fee)},
                                                     {"currency", "TWD"}});
                                }));
  response.set("total", total_of(summary.total));
  return response;
}

}  // namespace quorvex::paper
