// Splitting lots when a position is closed in part, and the realised results they leave.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/price.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

// Moves the share `part / whole` of `amount` out and returns it; moving the last part moves
// exactly what is left, so amounts split over many closes still add up.
inline Money split_off(Money& amount, Quantity part, Quantity whole) {
  const Money moved = whole == 0 ? 0 : amount * part / whole;
  amount -= moved;
  return moved;
}

// Realised results are kept in closing order with ids 1, 2, ...; each has a `row` with a `date`
// and the `details` of the lots it closed.
template <typename Realised>
auto rows_between(const std::vector<Realised>& realised, Date begin, Date end) {
  std::vector<decltype(Realised::row)> out;
  for (const Realised& r : realised) {
    if (begin <= r.row.date && r.row.date <= end) out.push_back(r.row);
  }
  return out;
}

template <typename Realised>
Result<decltype(Realised::details)> details_of(const std::vector<Realised>& realised, std::uint64_t id,
                                               const std::string& account) {
  if (id == 0 || id > realised.size()) {
    return refuse(RefusalCode::UnknownPosition, "profit and loss " + std::to_string(id) +
                                                    " is not known in account " + account +
                                                    "; expected the id of a listed item");
  }
  return realised[id - 1].details;
}

// `what` ("the order", "earmarking") needs more than the account has free.
inline Refusal insufficient_funds(const std::string& what, Money needed, Money available) {
  return refuse(RefusalCode::InsufficientFunds, what + " needs " + money_text(needed) + " TWD and " +
                                                    money_text(available) +
                                                    " TWD is available; expected less");
}

inline Refusal unknown_position(std::uint64_t id, const std::string& account) {
  return refuse(RefusalCode::UnknownPosition, "position " + std::to_string(id) + " is not open in account " +
                                                  account + "; expected the id of a listed position");
}

}  // namespace quorvex::paper
