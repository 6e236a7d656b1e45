// Pieces shared by the stock and the futures account books. Value types.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

// The price to value an open position at (last trade, else reference); empty when unknown,
// and the position is then valued at its own average price.
using MarkPrice = std::function<std::optional<Price>(std::string_view code)>;

inline std::optional<Price> mark_of(const MarkPrice& mark, std::string_view code) {
  return mark ? mark(code) : std::nullopt;
}

// How stock positions are counted: board lots (shares / 1000, odd shares left out) or shares.
enum class Unit : std::uint8_t { Common, Share };
std::string_view to_text(Unit unit);  // "Common", "Share"

// Totals of realised profit and loss over a date range.
struct ProfitLossTotal {
  Quantity quantity = 0;
  Money buy_cost = 0;
  Money sell_cost = 0;
  Money pnl = 0;
  double pr_ratio = 0;  // pnl as a percentage of the cost of what was closed
};

// pnl as a percentage of cost; 0 when nothing was paid.
inline double profit_ratio(Money pnl, Money cost) {
  return cost == 0 ? 0.0 : static_cast<double>(pnl) * 100.0 / static_cast<double>(cost < 0 ? -cost : cost);
}

}  // namespace quorvex::paper
