#include "quorvex/paper/stock_account.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "enum_text.hpp"
#include "lots.hpp"

namespace quorvex::paper {
namespace {

constexpr EnumNames<StockOrderCond, 3> kConds{{{StockOrderCond::Cash, "Cash"},
                                               {StockOrderCond::MarginTrading, "MarginTrading"},
                                               {StockOrderCond::ShortSelling, "ShortSelling"}}};

bool closes(StockOrderCond cond, Side side) {
  return cond == StockOrderCond::ShortSelling ? side == Side::Buy : side == Side::Sell;
}

}  // namespace

std::string_view to_text(Unit unit) { return unit == Unit::Common ? "Common" : "Share"; }

std::string_view to_text(StockOrderCond cond) { return name_of(kConds, cond); }

std::optional<StockOrderCond> stock_order_cond_from_text(std::string_view text) {
  return from_text(kConds, text);
}

StockAccountBook::Lot StockAccountBook::Lot::take(Quantity part) {
  Lot out = *this;
  out.shares = part;
  out.cost = split_off(cost, part, shares);
  out.fee = split_off(fee, part, shares);
  out.tax = split_off(tax, part, shares);
  out.borrow_fee = split_off(borrow_fee, part, shares);
  out.loan = split_off(loan, part, shares);
  out.deposit = split_off(deposit, part, shares);
  shares -= part;
  return out;
}

Quantity StockAccountBook::Holding::shares() const {
  Quantity total = 0;
  for (const Lot& lot : lots) total += lot.shares;
  return total;
}

StockAccountBook::StockAccountBook(std::string account, Money opening_cash, Date opening_day,
                                   FeeSchedule fees)
    : account_(std::move(account)), fees_(fees), opening_cash_(opening_cash), today_(opening_day) {}

void StockAccountBook::roll_to(Date day) {
  if (day <= today_) return;
  for (auto& [key, h] : holdings_) h.yd_shares = h.shares();
  today_ = day;
}

StockAccountBook::Holding& StockAccountBook::holding(const std::string& code, StockOrderCond cond, bool etf) {
  Holding& h = holdings_[{code, cond}];
  if (h.id == 0) {
    h.id = ++last_position_id_;
    h.code = code;
    h.cond = cond;
    h.etf = etf;
  }
  return h;
}

Quantity StockAccountBook::held_for_sale(const std::string& code, StockOrderCond cond) const {
  const auto it = held_for_sale_.find({code, cond});
  return it == held_for_sale_.end() ? 0 : it->second;
}

// The running totals change with every hold by what the hold adds (sign +1) or gives back (-1).
void StockAccountBook::count_hold(const Hold& hold, int sign) {
  held_funds_ += sign * hold.funds;
  if (!closes(hold.cond, hold.side)) return;
  const HoldingKey key{hold.code, hold.cond};
  Quantity& held = held_for_sale_[key];
  held += sign * hold.shares;
  if (held == 0) held_for_sale_.erase(key);
}

Money StockAccountBook::funds_needed(Side side, StockOrderCond cond, Money value, bool odd_lot) const {
  if (closes(cond, side)) return 0;
  if (cond == StockOrderCond::ShortSelling) return short_sale_deposit(fees_, value);
  const Money loan = cond == StockOrderCond::MarginTrading ? margin_loan(fees_, value) : 0;
  return value - loan + stock_fee(fees_, value, odd_lot);
}

Outcome StockAccountBook::reserve_for_order(OrderId order, const Contract& contract, Side side,
                                            StockOrderCond cond, Price price, Quantity shares) {
  if (shares <= 0) {
    return refuse(RefusalCode::InvalidQuantity, "an order of " + std::to_string(shares) +
                                                    " shares holds nothing; expected at least 1 share");
  }
  if (cond == StockOrderCond::MarginTrading && !contract.margin_trading) {
    return refuse(RefusalCode::MarginTradingNotAllowed,
                  contract.code + " cannot be bought or sold on margin; expected the Cash condition");
  }
  if (cond == StockOrderCond::ShortSelling && side == Side::Sell && !contract.short_selling) {
    return refuse(RefusalCode::ShortSellingNotAllowed,
                  contract.code + " cannot be sold short; expected the Cash or MarginTrading condition");
  }
  const Money value = trade_value(price, shares);
  Hold hold{contract.code, cond, side, shares, 0};
  if (closes(cond, side)) {
    const auto it = holdings_.find({contract.code, cond});
    const Quantity owned = it == holdings_.end() ? 0 : it->second.shares();
    const Quantity free = owned - held_for_sale(contract.code, cond);
    if (shares > free) {
      return refuse(RefusalCode::InsufficientHoldings,
                    std::string(side == Side::Sell ? "selling " : "covering ") + std::to_string(shares) +
                        " shares of " + contract.code + " (" + std::string(to_text(cond)) +
                        ") needs that many free in the position; " + "expected at most " +
                        std::to_string(std::max<Quantity>(free, 0)));
    }
  } else {
    hold.funds = funds_needed(side, cond, value, shares < contract.unit);
    const Money available = available_funds();
    if (hold.funds > available) {
      return insufficient_funds("the order", hold.funds, available);
    }
  }
  release_order(order);  // an order holds once
  count_hold(hold, +1);
  holds_.emplace(order, std::move(hold));
  return std::nullopt;
}

void StockAccountBook::release_order(OrderId order) {
  const auto it = holds_.find(order);
  if (it == holds_.end()) return;
  count_hold(it->second, -1);
  holds_.erase(it);
}

void StockAccountBook::use_hold(OrderId order, Quantity shares) {
  const auto it = holds_.find(order);
  if (it == holds_.end()) return;
  Hold& hold = it->second;
  count_hold(hold, -1);
  const Quantity used = std::min(shares, hold.shares);
  split_off(hold.funds, used, hold.shares);
  hold.shares -= used;
  if (hold.shares == 0) {
    holds_.erase(it);
  } else {
    count_hold(hold, +1);
  }
}

Result<StockFillOutcome> StockAccountBook::apply_fill(const StockFill& fill) {
  if (fill.shares <= 0 || !fill.price.is_positive()) {
    return refuse(RefusalCode::InvalidQuantity, "a fill of " + std::to_string(fill.shares) + " shares at " +
                                                    fill.price.to_string() +
                                                    " cannot be booked; expected positive shares and price");
  }
  const Date day = taipei_date(fill.ts);
  roll_to(day);
  const bool odd_lot = fill.board == Board::Odd || fill.board == Board::IntradayOdd;
  const Money value = trade_value(fill.price, fill.shares);
  StockFillOutcome out;
  out.settlement_date = day.plus_business_days(2);
  out.fee = stock_fee(fees_, value, odd_lot);

  if (!closes(fill.cond, fill.side)) {
    Holding& h = holding(fill.code, fill.cond, fill.etf);
    h.odd_lot = h.odd_lot || odd_lot;
    Lot lot;
    lot.date = day;
    lot.deal_id = fill.deal_id;
    lot.shares = fill.shares;
    lot.price = fill.price;
    lot.fee = out.fee;
    if (fill.cond == StockOrderCond::ShortSelling) {
      lot.tax = out.tax = stock_sell_tax(fees_, value, fill.etf);
      lot.borrow_fee = short_sale_fee(fees_, value);
      lot.cost = value - lot.fee - lot.tax - lot.borrow_fee;
      lot.deposit = short_sale_deposit(fees_, value);
      out.settlement = -lot.deposit;
    } else {
      lot.cost = value + lot.fee;
      lot.loan = fill.cond == StockOrderCond::MarginTrading ? margin_loan(fees_, value) : 0;
      out.settlement = -(lot.cost - lot.loan);
    }
    h.lots.push_back(lot);
  } else {
    const auto it = holdings_.find({fill.code, fill.cond});
    const Quantity owned = it == holdings_.end() ? 0 : it->second.shares();
    if (fill.shares > owned) {
      return refuse(RefusalCode::InsufficientHoldings,
                    "a fill closing " + std::to_string(fill.shares) + " shares of " + fill.code + " (" +
                        std::string(to_text(fill.cond)) + ") finds only " + std::to_string(owned) +
                        " held; expected at most that many");
    }
    Holding& h = it->second;
    const bool is_short = fill.cond == StockOrderCond::ShortSelling;
    Realised r;
    r.row.id = realised_.size() + 1;
    r.row.code = fill.code;
    r.row.seqno = fill.seqno;
    r.row.dseq = std::to_string(fill.deal_id);
    r.row.quantity = fill.shares;
    r.row.price = fill.price;
    r.row.cond = fill.cond;
    r.row.date = day;
    Money lots_value = 0, loan = 0, deposit = 0;
    for (Quantity left = fill.shares; left > 0;) {
      Lot& oldest = h.lots.front();
      const Lot part = oldest.take(std::min(left, oldest.shares));
      left -= part.shares;
      if (oldest.shares == 0) h.lots.erase(h.lots.begin());
      lots_value += part.cost;
      loan += part.loan;
      deposit += part.deposit;
      StockProfitDetail d;
      d.date = part.date;
      d.code = fill.code;
      d.quantity = part.shares;
      d.dseq = std::to_string(part.deal_id);
      d.fee = part.fee;
      d.tax = part.tax;
      d.price = part.price;
      d.cost = part.cost;
      d.rep_margintrading_amt = part.loan;
      d.rep_collateral = is_short ? part.cost : 0;
      d.rep_margin = part.deposit;
      d.shortselling_fee = part.borrow_fee;
      d.trade_type = part.date == day ? "DayTrade" : "Common";
      d.cond = fill.cond;
      r.details.push_back(std::move(d));
    }
    if (is_short) {
      const Money cover_cost = value + out.fee;
      out.pnl = lots_value - cover_cost;
      out.settlement = deposit + lots_value - cover_cost;
      r.row.cost = cover_cost;
      r.row.proceeds = lots_value;
      r.buy_cost = cover_cost;
      r.sell_cost = lots_value;
    } else {
      out.tax = stock_sell_tax(fees_, value, h.etf);
      const Money proceeds = value - out.fee - out.tax;
      out.pnl = proceeds - lots_value;
      out.settlement = proceeds - loan;
      r.row.cost = lots_value;
      r.row.proceeds = proceeds;
      r.buy_cost = lots_value;
      r.sell_cost = proceeds;
    }
    r.row.pnl = out.pnl;
    r.row.pr_ratio = profit_ratio(out.pnl, r.row.cost);
    out.profit_loss_id = r.row.id;
    realised_.push_back(std::move(r));
    if (h.lots.empty()) holdings_.erase(it);
  }
  settlements_[out.settlement_date.serial()] += out.settlement;
  use_hold(fill.order_id, fill.shares);
  return out;
}

Money StockAccountBook::balance(Date today) const {
  Money cash = opening_cash_;
  for (const auto& [serial, amount] : settlements_) {
    if (serial > today.serial()) break;
    cash += amount;
  }
  return cash;
}

Money StockAccountBook::available_funds() const {
  Money funds = opening_cash_;
  for (const auto& [serial, amount] : settlements_) funds += amount;
  funds -= held_funds_;
  for (const Earmark& e : earmarks_) funds -= e.amount;
  return funds;
}

std::array<SettlementDay, 3> StockAccountBook::settlements(Date today) const {
  std::array<SettlementDay, 3> days;
  for (int t = 0; t < 3; ++t) {
    days[static_cast<std::size_t>(t)].t = t;
    days[static_cast<std::size_t>(t)].date = today.plus_business_days(t);
    const auto it = settlements_.find(days[static_cast<std::size_t>(t)].date.serial());
    days[static_cast<std::size_t>(t)].amount = it == settlements_.end() ? 0 : it->second;
  }
  return days;
}

Money StockAccountBook::value_at(const Holding& h, const Lot& lot, Price mark) const {
  const Money value = trade_value(mark, lot.shares);
  const Money fee = stock_fee(fees_, value, h.odd_lot);
  if (h.cond == StockOrderCond::ShortSelling) return lot.cost - (value + fee);
  return value - fee - stock_sell_tax(fees_, value, h.etf) - lot.cost;
}

std::vector<StockPosition> StockAccountBook::positions(Unit unit, const MarkPrice& mark, Date today) const {
  std::vector<StockPosition> out;
  for (const auto& [key, h] : holdings_) {
    const Quantity shares = h.shares();
    if (shares == 0) continue;
    StockPosition p;
    p.id = h.id;
    p.code = h.code;
    p.cond = h.cond;
    p.direction = h.cond == StockOrderCond::ShortSelling ? Side::Sell : Side::Buy;
    const Quantity per_unit = unit == Unit::Common ? 1000 : 1;
    p.quantity = shares / per_unit;
    p.yd_quantity = (today > today_ ? shares : std::min(h.yd_shares, shares)) / per_unit;
    Money weighted = 0;
    for (const Lot& lot : h.lots) weighted += lot.price.units() * lot.shares;
    p.price = static_cast<double>(weighted) / static_cast<double>(shares) / Price::kScale;
    const std::optional<Price> marked = mark_of(mark, h.code);
    p.last_price = marked.value_or(Price::from_double(p.price));
    for (const Lot& lot : h.lots) {
      p.pnl += value_at(h, lot, marked.value_or(lot.price));
      p.margin_purchase_amount += lot.loan;
      p.short_sale_margin += lot.deposit;
      if (h.cond == StockOrderCond::ShortSelling) p.collateral += lot.cost;
    }
    out.push_back(std::move(p));
  }
  return out;
}

Result<std::vector<StockPositionDetail>> StockAccountBook::position_detail(std::uint64_t position_id,
                                                                           const MarkPrice& mark) const {
  for (const auto& [key, h] : holdings_) {
    if (h.id != position_id) continue;
    std::vector<StockPositionDetail> out;
    for (const Lot& lot : h.lots) {
      StockPositionDetail d;
      d.date = lot.date;
      d.code = h.code;
      d.quantity = lot.shares;
      d.price = lot.price;
      d.last_price = mark_of(mark, h.code).value_or(lot.price);
      d.dseq = std::to_string(lot.deal_id);
      d.direction = h.cond == StockOrderCond::ShortSelling ? Side::Sell : Side::Buy;
      d.pnl = value_at(h, lot, d.last_price);
      d.fee = lot.fee;
      d.cond = h.cond;
      d.margintrading_amt = lot.loan;
      d.collateral = h.cond == StockOrderCond::ShortSelling ? lot.cost : 0;
      out.push_back(std::move(d));
    }
    return out;
  }
  return unknown_position(position_id, account_);
}

std::vector<StockProfitLoss> StockAccountBook::profit_loss(Date begin, Date end) const {
  return rows_between(realised_, begin, end);
}

Result<std::vector<StockProfitDetail>> StockAccountBook::profit_loss_detail(
    std::uint64_t profit_loss_id) const {
  return details_of(realised_, profit_loss_id, account_);
}

const StockProfitLoss* StockAccountBook::profit_loss_of_deal(const std::string& dseq) const {
  for (const Realised& r : realised_) {
    if (r.row.dseq == dseq) return &r.row;
  }
  return nullptr;
}

StockProfitLossSummaryTotal StockAccountBook::profit_loss_summary(Date begin, Date end) const {
  StockProfitLossSummaryTotal out;
  std::map<HoldingKey, std::size_t> rows;
  std::map<HoldingKey, std::pair<Money, Money>> price_sums;  // entry, cover price x shares
  for (const Realised& r : realised_) {
    if (r.row.date < begin || end < r.row.date) continue;
    const HoldingKey key{r.row.code, r.row.cond};
    auto [it, added] = rows.emplace(key, out.profitloss_summary.size());
    if (added) {
      StockProfitLossSummary s;
      s.code = r.row.code;
      s.cond = r.row.cond;
      out.profitloss_summary.push_back(std::move(s));
    }
    StockProfitLossSummary& s = out.profitloss_summary[it->second];
    s.quantity += r.row.quantity;
    s.pnl += r.row.pnl;
    s.buy_cost += r.buy_cost;
    s.sell_cost += r.sell_cost;
    s.entry_cost += r.row.cond == StockOrderCond::ShortSelling ? r.sell_cost : r.buy_cost;
    s.cover_cost += r.row.cond == StockOrderCond::ShortSelling ? r.buy_cost : r.sell_cost;
    auto& sums = price_sums[key];
    for (const StockProfitDetail& d : r.details) sums.first += d.price.units() * d.quantity;
    sums.second += r.row.price.units() * r.row.quantity;
  }
  for (auto& [key, index] : rows) {
    StockProfitLossSummary& s = out.profitloss_summary[index];
    s.entry_price =
        static_cast<double>(price_sums[key].first) / static_cast<double>(s.quantity) / Price::kScale;
    s.cover_price =
        static_cast<double>(price_sums[key].second) / static_cast<double>(s.quantity) / Price::kScale;
    s.pr_ratio = profit_ratio(s.pnl, s.entry_cost);
    out.total.quantity += s.quantity;
    out.total.buy_cost += s.buy_cost;
    out.total.sell_cost += s.sell_cost;
    out.total.pnl += s.pnl;
  }
  Money entry_total = 0;
  for (const auto& s : out.profitloss_summary) entry_total += s.entry_cost;
  out.total.pr_ratio = profit_ratio(out.total.pnl, entry_total);
  return out;
}

Result<Earmark> StockAccountBook::earmark(const Contract& contract, Quantity shares, Price price,
                                          Timestamp now) {
  if (shares <= 0) {
    return refuse(RefusalCode::InvalidQuantity, "earmarking " + std::to_string(shares) +
                                                    " shares is not possible; expected at least 1 share");
  }
  if (!on_ladder(contract.ladder, price) || !contract.limits().contains(price)) {
    return refuse(RefusalCode::PriceOutsideLimits,
                  "earmarking price " + price.to_string() + " for " + contract.code +
                      " is not a ladder price within the day's limits; expected " +
                      contract.limit_down.to_string() + " to " + contract.limit_up.to_string());
  }
  const Money value = trade_value(price, shares);
  Earmark e;
  e.id = earmarks_.size() + 1;
  e.code = contract.code;
  e.share = shares;
  e.price = price;
  e.amount = value + stock_fee(fees_, value, shares < contract.unit);
  e.ts = now;
  const Money available = available_funds();
  if (e.amount > available) {
    return insufficient_funds("earmarking", e.amount, available);
  }
  e.info = "earmarked";
  earmarks_.push_back(e);
  return e;
}

Money StockAccountBook::committed_in_positions() const {
  Money total = 0;
  for (const auto& [key, h] : holdings_) {
    for (const Lot& lot : h.lots)
      total += h.cond == StockOrderCond::ShortSelling ? lot.deposit : lot.cost - lot.loan;
  }
  return total;
}

Money StockAccountBook::realised_pnl() const {
  Money total = 0;
  for (const Realised& r : realised_) total += r.row.pnl;
  return total;
}

}  // namespace quorvex::paper
