#include "quorvex/paper/reservation.hpp"

#include <algorithm>
#include <iterator>
#include <map>

namespace quorvex::paper {

Quantity ReservationDesk::available_to_reserve(const std::string& code) const {
  const Contract* c = contracts_.find(code);
  if (c == nullptr || c->security_type != SecurityType::Stock || !c->short_selling) return 0;
  const auto it = reserved_by_code_.find(c->code);
  return c->short_selling_balance * c->unit - (it == reserved_by_code_.end() ? 0 : it->second);
}

Result<StockReservation> ReservationDesk::reserve_stock(const std::string& account, const std::string& code,
                                                        Quantity shares, Timestamp now) {
  const Contract* c = contracts_.find(code);
  if (c == nullptr || c->security_type != SecurityType::Stock) {
    return refuse(RefusalCode::UnknownContract,
                  "contract " + code + " is not a listed stock; expected a stock code");
  }
  if (shares <= 0 || shares % c->unit != 0) {
    return refuse(RefusalCode::InvalidQuantity, "reserving " + std::to_string(shares) + " shares of " +
                                                    c->code +
                                                    " is not possible; expected a positive multiple of " +
                                                    std::to_string(c->unit) + " shares");
  }
  if (!c->short_selling) {
    return refuse(
        RefusalCode::ShortSellingNotAllowed,
        c->code + " cannot be sold short, so it cannot be reserved; expected a stock open to short selling");
  }
  const Quantity available = available_to_reserve(c->code);
  if (shares > available) {
    return refuse(RefusalCode::ReservationUnavailable, "only " + std::to_string(available) + " shares of " +
                                                           c->code + " can still be reserved; asked for " +
                                                           std::to_string(shares));
  }
  StockReservation r;
  r.id = reservations_.size() + 1;
  r.account = account;
  r.code = c->code;
  r.share = shares;
  r.info = "reserved";
  r.ts = now;
  reserved_by_code_[c->code] += shares;
  by_account_[account][c->code].reserved += shares;
  reservations_.push_back(r);
  return r;
}

Outcome ReservationDesk::use(const std::string& account, const std::string& code, Quantity shares) {
  const auto acc = by_account_.find(account);
  Holding* h = nullptr;
  if (acc != by_account_.end()) {
    const auto it = acc->second.find(code);
    if (it != acc->second.end()) h = &it->second;
  }
  const Quantity free = h == nullptr ? 0 : h->reserved - h->used;
  if (shares <= 0 || shares > free) {
    return refuse(RefusalCode::ReservationUnavailable, "account " + account + " has " + std::to_string(free) +
                                                           " reserved shares of " + code +
                                                           " free; asked to use " + std::to_string(shares));
  }
  h->used += shares;
  return std::nullopt;
}

std::vector<ReservationSummary> ReservationDesk::summary(const std::string& account) const {
  std::vector<ReservationSummary> out;
  const auto acc = by_account_.find(account);
  if (acc == by_account_.end()) return out;
  const std::map<std::string, Holding> sorted(acc->second.begin(), acc->second.end());
  for (const auto& [code, h] : sorted) out.push_back({code, h.reserved, h.reserved - h.used});
  return out;
}

std::vector<StockReservation> ReservationDesk::detail(const std::string& account) const {
  std::vector<StockReservation> out;
  std::copy_if(reservations_.begin(), reservations_.end(), std::back_inserter(out),
               [&](const StockReservation& r) { return r.account == account; });
  return out;
}

}  // namespace quorvex::paper
