#include "quorvex/paper/futures_account.hpp"

#include <algorithm>
#include <array>

#include "enum_text.hpp"
#include "lots.hpp"

namespace quorvex::paper {
namespace {

constexpr EnumNames<FuturesOCType, 4> kOCTypes{{{FuturesOCType::Auto, "Auto"},
                                                {FuturesOCType::New, "New"},
                                                {FuturesOCType::Cover, "Cover"},
                                                {FuturesOCType::DayTrade, "DayTrade"}}};

constexpr double kNothingOpenRiskIndicator = 999.0;

// Long positions gain when the price rises, short ones when it falls.
Money signed_move(Side direction, Price from, Price to, Quantity quantity, std::int64_t multiplier) {
  const Money move = trade_value(to - from, quantity, multiplier);
  return direction == Side::Buy ? move : -move;
}

bool is_option(const Contract& c) { return c.security_type == SecurityType::Option; }

}  // namespace

std::string_view to_text(FuturesOCType type) { return name_of(kOCTypes, type); }

std::optional<FuturesOCType> futures_octype_from_text(std::string_view text) {
  return from_text(kOCTypes, text);
}

FuturesAccountBook::Lot FuturesAccountBook::Lot::take(Quantity part) {
  Lot out = *this;
  out.quantity = part;
  out.fee = split_off(fee, part, quantity);
  out.tax = split_off(tax, part, quantity);
  quantity -= part;
  return out;
}

Quantity FuturesAccountBook::Position::quantity() const {
  Quantity total = 0;
  for (const Lot& lot : lots) total += lot.quantity;
  return total;
}

FuturesAccountBook::FuturesAccountBook(std::string account, Money opening_balance, Date opening_day,
                                       FeeSchedule fees)
    : account_(std::move(account)),
      fees_(fees),
      opening_balance_(opening_balance),
      today_(opening_day),
      yesterday_balance_(opening_balance) {}

void FuturesAccountBook::roll_to(Date day) {
  if (day <= today_) return;
  yesterday_balance_ += deposit_withdrawal_ + future_settle_ + royalty_ - fee_ - tax_;
  deposit_withdrawal_ = fee_ = tax_ = royalty_ = future_settle_ = option_settle_ = 0;
  today_ = day;
}

Quantity FuturesAccountBook::open_quantity(const std::string& code, Side direction) const {
  const auto it = positions_.find({code, direction});
  return it == positions_.end() ? 0 : it->second.quantity();
}

Money FuturesAccountBook::short_option_margin(const Contract& c, Price premium, Money a_value,
                                              const MarkPrice& marks) const {
  // Premium plus the larger of A less the out-of-the-money amount and half of A.
  const Price underlying = mark_of(marks, c.underlying_code).value_or(c.strike_price);
  const Price out_of_money =
      c.option_right == OptionRight::Call ? c.strike_price - underlying : underlying - c.strike_price;
  const Money otm = out_of_money.is_positive() ? trade_value(out_of_money, 1, c.multiplier) : 0;
  return trade_value(premium, 1, c.multiplier) + std::max(a_value - otm, a_value / 2);
}

Money FuturesAccountBook::margin_needed(const Contract& c, Side side, Price price, Quantity opening,
                                        const MarkPrice& mark) const {
  if (opening <= 0) return 0;
  if (!is_option(c)) return c.initial_margin * opening;
  if (side == Side::Buy) return trade_value(price, opening, c.multiplier) + derivative_fee(fees_, c, opening);
  return short_option_margin(c, price, c.initial_margin, mark) * opening;
}

Outcome FuturesAccountBook::reserve_for_order(OrderId order, const Contract& contract, Side side,
                                              FuturesOCType octype, Price price, Quantity quantity,
                                              const MarkPrice& mark, Date today) {
  if (quantity <= 0) {
    return refuse(RefusalCode::InvalidQuantity, "an order of " + std::to_string(quantity) +
                                                    " contracts holds nothing; expected at least 1 contract");
  }
  const auto offsets = held_offsets_.find({contract.code, side});
  const Quantity reserved = offsets == held_offsets_.end() ? 0 : offsets->second;
  const Quantity free = open_quantity(contract.code, opposite(side)) - reserved;
  if (octype == FuturesOCType::Cover && quantity > free) {
    return refuse(RefusalCode::InsufficientHoldings,
                  "covering " + std::to_string(quantity) + " contracts of " + contract.code +
                      " needs an opposite " + "position that large; expected at most " +
                      std::to_string(std::max<Quantity>(free, 0)));
  }
  Hold hold{contract.code, side, quantity, std::min(quantity, std::max<Quantity>(free, 0)), 0};
  hold.funds = margin_needed(contract, side, price, quantity - hold.offset, mark);
  if (hold.funds > 0) {
    const Money available = margin(mark, today).available_margin;
    if (hold.funds > available) {
      return insufficient_funds("the order\'s margin", hold.funds, available);
    }
  }
  release_order(order);  // an order holds once
  count_hold(hold, +1);
  holds_.emplace(order, std::move(hold));
  return std::nullopt;
}

// The running totals change with every hold by what the hold adds (sign +1) or gives back (-1).
void FuturesAccountBook::count_hold(const Hold& hold, int sign) {
  held_funds_ += sign * hold.funds;
  const std::pair<std::string, Side> key{hold.code, hold.side};
  Quantity& offsets = held_offsets_[key];
  offsets += sign * hold.offset;
  if (offsets == 0) held_offsets_.erase(key);
}

void FuturesAccountBook::release_order(OrderId order) {
  const auto it = holds_.find(order);
  if (it == holds_.end()) return;
  count_hold(it->second, -1);
  holds_.erase(it);
}

void FuturesAccountBook::use_hold(OrderId order, Quantity quantity) {
  const auto it = holds_.find(order);
  if (it == holds_.end()) return;
  Hold& hold = it->second;
  count_hold(hold, -1);
  const Quantity used = std::min(quantity, hold.quantity);
  split_off(hold.funds, used, hold.quantity);
  hold.offset -= std::min(used, hold.offset);
  hold.quantity -= used;
  if (hold.quantity == 0) {
    holds_.erase(it);
  } else {
    count_hold(hold, +1);
  }
}

Result<FuturesFillOutcome> FuturesAccountBook::apply_fill(const Contract& contract, const FuturesFill& fill) {
  if (fill.quantity <= 0 || !fill.price.is_positive()) {
    return refuse(RefusalCode::InvalidQuantity,
                  "a fill of " + std::to_string(fill.quantity) + " contracts at " + fill.price.to_string() +
                      " cannot be booked; expected positive quantity and price");
  }
  const Side closing_side = opposite(fill.side);
  const Quantity held = open_quantity(contract.code, closing_side);
  if (fill.octype == FuturesOCType::Cover && fill.quantity > held) {
    return refuse(RefusalCode::InsufficientHoldings,
                  "a Cover fill of " + std::to_string(fill.quantity) + " contracts of " + contract.code +
                      " finds only " + std::to_string(held) + " to offset; expected at most that many");
  }
  const Date day = taipei_date(fill.ts);
  roll_to(day);
  FuturesFillOutcome out;
  Money fee = out.fee = derivative_fee(fees_, contract, fill.quantity);
  Money tax = out.tax = derivative_tax(fees_, contract, fill.price, fill.quantity);
  fee_ += fee;
  tax_ += tax;
  if (is_option(contract)) {
    const Money value = trade_value(fill.price, fill.quantity, contract.multiplier);
    out.premium = fill.side == Side::Buy ? -value : value;
    royalty_ += out.premium;
  }
  Quantity remaining = fill.quantity;
  const Quantity closing = std::min(fill.quantity, held);
  if (closing > 0) {
    const auto it = positions_.find({contract.code, closing_side});
    Position& p = it->second;
    Realised r;
    r.row.id = realised_.size() + 1;
    r.row.code = contract.code;
    r.row.seqno = fill.seqno;
    r.row.dseq = std::to_string(fill.deal_id);
    r.row.direction = closing_side;
    r.row.quantity = closing;
    r.row.cover_price = fill.price;
    r.row.date = day;
    Money cover_fee = split_off(fee, closing, remaining);
    Money cover_tax = split_off(tax, closing, remaining);
    remaining -= closing;
    Money entry_prices = 0;
    for (Quantity left = closing; left > 0;) {
      Lot& oldest = p.lots.front();
      const Lot part = oldest.take(std::min(left, oldest.quantity));
      if (oldest.quantity == 0) p.lots.erase(p.lots.begin());
      const Money gross =
          signed_move(closing_side, part.price, fill.price, part.quantity, contract.multiplier);
      out.realised += gross;
      FutureProfitDetail d;
      d.date = part.date;
      d.code = contract.code;
      d.dseq = std::to_string(part.deal_id);
      d.direction = closing_side;
      d.quantity = part.quantity;
      d.entry_price = part.price;
      d.cover_price = fill.price;
      d.fee = part.fee + split_off(cover_fee, part.quantity, left);
      d.tax = part.tax + split_off(cover_tax, part.quantity, left);
      d.pnl = gross - d.fee - d.tax;
      d.trade_type = part.date == day ? "DayTrade" : "Common";
      left -= part.quantity;
      entry_prices += part.price.units() * part.quantity;
      r.entry_value += trade_value(part.price, part.quantity, contract.multiplier);
      r.row.fee += d.fee;
      r.row.tax += d.tax;
      r.row.pnl += d.pnl;
      r.details.push_back(std::move(d));
    }
    r.row.entry_price = static_cast<double>(entry_prices) / static_cast<double>(closing) / Price::kScale;
    r.cover_value = trade_value(fill.price, closing, contract.multiplier);
    (is_option(contract) ? option_settle_ : future_settle_) += out.realised;
    out.profit_loss_id = r.row.id;
    realised_.push_back(std::move(r));
    if (p.lots.empty()) positions_.erase(it);
  }
  if (remaining > 0) {
    Position& p = positions_[{contract.code, fill.side}];
    if (p.id == 0) {
      p.id = ++last_position_id_;
      p.contract = contract;
      p.direction = fill.side;
    }
    p.lots.push_back(Lot{day, fill.deal_id, remaining, fill.price, fee, tax});
  }
  use_hold(fill.order_id, fill.quantity);
  return out;
}

Outcome FuturesAccountBook::deposit(Money amount, Date today) {
  if (amount <= 0) {
    return refuse(RefusalCode::InvalidAmount,
                  "a deposit of " + money_text(amount) + " TWD is not possible; expected a positive amount");
  }
  roll_to(today);
  deposit_withdrawal_ += amount;
  return std::nullopt;
}

Outcome FuturesAccountBook::withdraw(Money amount, const MarkPrice& mark, Date today) {
  if (amount <= 0) {
    return refuse(RefusalCode::InvalidAmount, "a withdrawal of " + money_text(amount) +
                                                  " TWD is not possible; expected a positive amount");
  }
  const Money available = margin(mark, today).available_margin;
  if (amount > available) {
    return refuse(RefusalCode::InsufficientFunds, "a withdrawal of " + money_text(amount) +
                                                      " TWD exceeds the " + money_text(available) +
                                                      " TWD of available margin");
  }
  deposit_withdrawal_ -= amount;
  return std::nullopt;
}

MarginSheet FuturesAccountBook::margin(const MarkPrice& mark, Date today) {
  roll_to(today);
  MarginSheet m;
  m.yesterday_balance = yesterday_balance_;
  m.deposit_withdrawal = deposit_withdrawal_;
  m.fee = fee_;
  m.tax = tax_;
  m.royalty_revenue_expenditure = royalty_;
  m.future_settle_profitloss = future_settle_;
  m.option_settle_profitloss = option_settle_;
  m.today_balance = yesterday_balance_ + deposit_withdrawal_ + future_settle_ + royalty_ - fee_ - tax_;
  for (const auto& [key, p] : positions_) {
    const Contract& c = p.contract;
    const std::optional<Price> marked = mark_of(mark, c.code);
    for (const Lot& lot : p.lots) {
      const Price price = marked.value_or(lot.price);
      const Money floating = signed_move(p.direction, lot.price, price, lot.quantity, c.multiplier);
      if (!is_option(c)) {
        m.future_open_position += floating;
        if (lot.date == today_) m.today_future_open_position += floating;
        m.initial_margin += c.initial_margin * lot.quantity;
        m.maintenance_margin += c.maintenance_margin * lot.quantity;
        continue;
      }
      m.option_open_position += floating;
      const Money value = trade_value(price, lot.quantity, c.multiplier);
      if (p.direction == Side::Buy) {
        m.option_openbuy_market_value += value;
      } else {
        m.option_opensell_market_value += value;
        m.initial_margin += short_option_margin(c, price, c.initial_margin, mark) * lot.quantity;
        m.maintenance_margin += short_option_margin(c, price, c.maintenance_margin, mark) * lot.quantity;
      }
    }
  }
  m.equity = m.today_balance + m.future_open_position;
  m.equity_amount = m.equity + m.option_openbuy_market_value - m.option_opensell_market_value;
  m.order_margin_premium += held_funds_;
  m.available_margin = m.equity_amount - m.initial_margin - m.order_margin_premium;
  m.margin_call = m.equity_amount < m.maintenance_margin ? m.initial_margin - m.equity_amount : 0;
  m.risk_indicator = m.initial_margin > 0 ? static_cast<double>(m.equity_amount) * 100.0 /
                                                static_cast<double>(m.initial_margin)
                                          : kNothingOpenRiskIndicator;
  return m;
}

std::vector<FuturePosition> FuturesAccountBook::positions(const MarkPrice& mark) const {
  std::vector<FuturePosition> out;
  for (const auto& [key, p] : positions_) {
    FuturePosition row;
    row.id = p.id;
    row.code = p.contract.code;
    row.direction = p.direction;
    row.quantity = p.quantity();
    Money weighted = 0;
    for (const Lot& lot : p.lots) weighted += lot.price.units() * lot.quantity;
    row.price = static_cast<double>(weighted) / static_cast<double>(row.quantity) / Price::kScale;
    const std::optional<Price> marked = mark_of(mark, row.code);
    row.last_price = marked.value_or(Price::from_double(row.price));
    for (const Lot& lot : p.lots) {
      row.pnl += signed_move(p.direction, lot.price, marked.value_or(lot.price), lot.quantity,
                             p.contract.multiplier);
    }
    out.push_back(std::move(row));
  }
  return out;
}

Result<std::vector<FuturePositionDetail>> FuturesAccountBook::position_detail(std::uint64_t position_id,
                                                                              const MarkPrice& mark) const {
  for (const auto& [key, p] : positions_) {
    if (p.id != position_id) continue;
    std::vector<FuturePositionDetail> out;
    for (const Lot& lot : p.lots) {
      FuturePositionDetail d;
      d.date = lot.date;
      d.code = p.contract.code;
      d.quantity = lot.quantity;
      d.price = lot.price;
      d.last_price = mark_of(mark, d.code).value_or(lot.price);
      d.dseq = std::to_string(lot.deal_id);
      d.direction = p.direction;
      d.pnl = signed_move(p.direction, lot.price, d.last_price, lot.quantity, p.contract.multiplier);
      d.fee = lot.fee;
      out.push_back(std::move(d));
    }
    return out;
  }
  return unknown_position(position_id, account_);
}

std::vector<FutureProfitLoss> FuturesAccountBook::profit_loss(Date begin, Date end) const {
  return rows_between(realised_, begin, end);
}

Result<std::vector<FutureProfitDetail>> FuturesAccountBook::profit_loss_detail(
    std::uint64_t profit_loss_id) const {
  return details_of(realised_, profit_loss_id, account_);
}

FutureProfitLossSummaryTotal FuturesAccountBook::profit_loss_summary(Date begin, Date end) const {
  FutureProfitLossSummaryTotal out;
  std::map<PositionKey, std::size_t> rows;
  std::map<PositionKey, std::pair<double, double>> price_sums;  // entry, cover price x quantity
  Money entry_total = 0;
  for (const Realised& r : realised_) {
    if (r.row.date < begin || end < r.row.date) continue;
    const PositionKey key{r.row.code, r.row.direction};
    auto [it, added] = rows.emplace(key, out.profitloss_summary.size());
    if (added) {
      FutureProfitLossSummary s;
      s.code = r.row.code;
      s.direction = r.row.direction;
      out.profitloss_summary.push_back(std::move(s));
    }
    FutureProfitLossSummary& s = out.profitloss_summary[it->second];
    s.quantity += r.row.quantity;
    s.pnl += r.row.pnl;
    s.fee += r.row.fee;
    s.tax += r.row.tax;
    price_sums[key].first += r.row.entry_price * static_cast<double>(r.row.quantity);
    price_sums[key].second += r.row.cover_price.to_double() * static_cast<double>(r.row.quantity);
    const bool long_position = r.row.direction == Side::Buy;
    out.total.buy_cost += long_position ? r.entry_value : r.cover_value;
    out.total.sell_cost += long_position ? r.cover_value : r.entry_value;
    entry_total += r.entry_value;
  }
  for (auto& [key, index] : rows) {
    FutureProfitLossSummary& s = out.profitloss_summary[index];
    s.entry_price = price_sums[key].first / static_cast<double>(s.quantity);
    s.cover_price = price_sums[key].second / static_cast<double>(s.quantity);
    out.total.quantity += s.quantity;
    out.total.pnl += s.pnl;
  }
  out.total.pr_ratio = profit_ratio(out.total.pnl, entry_total);
  return out;
}

}  // namespace quorvex::paper
