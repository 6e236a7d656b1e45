// Helpers for splitting lots when a position is closed in part.
#pragma once

#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

// Moves the share `part / whole` of `amount` out and returns it; moving the last part moves
// exactly what is left, so amounts split over many closes still add up.
inline Money split_off(Money& amount, Quantity part, Quantity whole) {
  const Money moved = whole == 0 ? 0 : amount * part / whole;
  amount -= moved;
  return moved;
}

}  // namespace quorvex::paper
