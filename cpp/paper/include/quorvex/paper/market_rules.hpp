// Taiwan tick-size ladders and daily price limits. Pure functions, safe from any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "quorvex/paper/price.hpp"

namespace quorvex::paper {

enum class TickLadder : std::uint8_t {
  Stock,        // 0.01 < 10, 0.05 < 50, 0.1 < 100, 0.5 < 500, 1 < 1000, 5 above; also stock futures
  Etf,          // 0.01 < 50, 0.05 above
  IndexFuture,  // 1 point
  Option,       // 0.1 < 10, 0.5 < 50, 1 < 500, 5 < 1000, 10 above
};

std::string_view to_text(TickLadder ladder);

// The step that applies to prices at `price` and above, up to the next band.
Price tick_size(TickLadder ladder, Price price);
// The step that leads down from `price` to the next lower ladder price.
Price tick_size_below(TickLadder ladder, Price price);

bool on_ladder(TickLadder ladder, Price price);
Price round_down_to_ladder(TickLadder ladder, Price price);
Price round_up_to_ladder(TickLadder ladder, Price price);
Price step_up(TickLadder ladder, Price price, std::int64_t steps = 1);
Price step_down(TickLadder ladder, Price price, std::int64_t steps = 1);

// Number of ladder steps from zero up to `price` (rounded down onto the ladder):
// a monotone index of ladder prices, so two ladder prices are `a - b` steps apart.
std::int64_t ladder_position(TickLadder ladder, Price price);
// The ladder price at a given position; inverse of ladder_position on ladder prices.
Price price_at_position(TickLadder ladder, std::int64_t position);

struct PriceLimits {
  Price limit_down;
  Price limit_up;
  bool contains(Price p) const { return limit_down <= p && p <= limit_up; }
};

// Limits at +-`percent` of the reference, rounded inward onto the ladder.
PriceLimits price_limits(TickLadder ladder, Price reference, int percent = 10);
// Index options move at most `percent` of the underlying index's reference, in points,
// and never below the smallest premium.
PriceLimits option_price_limits(Price reference, Price underlying_reference, int percent = 10);

}  // namespace quorvex::paper
