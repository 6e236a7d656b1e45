#include "quorvex/paper/market_rules.hpp"

#include <array>
#include <limits>

namespace quorvex::paper {
namespace {

struct Band {
  std::int64_t upper;  // exclusive, in price units
  std::int64_t tick;
};

constexpr std::int64_t kOpen = std::numeric_limits<std::int64_t>::max();
// A price given in hundredths of a dollar (every band edge and tick is a whole number of them),
// in price units.
constexpr std::int64_t U(std::int64_t hundredths) { return hundredths * Price::kScale / 100; }

constexpr std::array<Band, 6> kStock{{{U(1000), U(1)},
                                      {U(5000), U(5)},
                                      {U(10000), U(10)},
                                      {U(50000), U(50)},
                                      {U(100000), U(100)},
                                      {kOpen, U(500)}}};
constexpr std::array<Band, 2> kEtf{{{U(5000), U(1)}, {kOpen, U(5)}}};
constexpr std::array<Band, 1> kIndexFuture{{{kOpen, U(100)}}};
constexpr std::array<Band, 5> kOption{
    {{U(1000), U(10)}, {U(5000), U(50)}, {U(50000), U(100)}, {U(100000), U(500)}, {kOpen, U(1000)}}};
static_assert(Price::kScale % 100 == 0, "band edges and ticks are whole hundredths");

struct Bands {
  const Band* begin;
  const Band* end;
};

Bands bands(TickLadder ladder) {
  switch (ladder) {
    case TickLadder::Stock: return {kStock.data(), kStock.data() + kStock.size()};
    case TickLadder::Etf: return {kEtf.data(), kEtf.data() + kEtf.size()};
    case TickLadder::IndexFuture: return {kIndexFuture.data(), kIndexFuture.data() + kIndexFuture.size()};
    case TickLadder::Option: break;
  }
  return {kOption.data(), kOption.data() + kOption.size()};
}

std::int64_t tick_units(TickLadder ladder, std::int64_t units) {
  const Bands b = bands(ladder);
  for (const Band* band = b.begin; band != b.end; ++band) {
    if (units < band->upper) return band->tick;
  }
  return (b.end - 1)->tick;
}

}  // namespace

std::string_view to_text(TickLadder ladder) {
  switch (ladder) {
    case TickLadder::Stock: return "Stock";
    case TickLadder::Etf: return "Etf";
    case TickLadder::IndexFuture: return "IndexFuture";
    case TickLadder::Option: return "Option";
  }
  return "Unknown";
}

Price tick_size(TickLadder ladder, Price price) {
  return Price::from_units(tick_units(ladder, price.units()));
}

Price tick_size_below(TickLadder ladder, Price price) {
  return Price::from_units(tick_units(ladder, price.units() - 1));
}

bool on_ladder(TickLadder ladder, Price price) {
  return price.is_positive() && price.units() % tick_units(ladder, price.units()) == 0;
}

// Band edges are multiples of every finer tick, so rounding inside the band is exact.
Price round_down_to_ladder(TickLadder ladder, Price price) {
  const std::int64_t t = tick_units(ladder, price.units());
  return Price::from_units(price.units() - price.units() % t);
}

Price round_up_to_ladder(TickLadder ladder, Price price) {
  const Price down = round_down_to_ladder(ladder, price);
  return down == price ? price : down + tick_size(ladder, down);
}

Price step_up(TickLadder ladder, Price price, std::int64_t steps) {
  return price_at_position(ladder, ladder_position(ladder, price) + steps);
}

Price step_down(TickLadder ladder, Price price, std::int64_t steps) {
  return price_at_position(ladder, ladder_position(ladder, price) - steps);
}

std::int64_t ladder_position(TickLadder ladder, Price price) {
  const std::int64_t units = price.units();
  const Bands b = bands(ladder);
  std::int64_t position = 0, lower = 0;
  for (const Band* band = b.begin; band != b.end; ++band) {
    if (units < band->upper) return position + (units - lower) / band->tick;
    position += (band->upper - lower) / band->tick;
    lower = band->upper;
  }
  return position;
}

Price price_at_position(TickLadder ladder, std::int64_t position) {
  const Bands b = bands(ladder);
  std::int64_t lower = 0;
  for (const Band* band = b.begin; band != b.end; ++band) {
    const std::int64_t steps = band->upper == kOpen ? kOpen : (band->upper - lower) / band->tick;
    if (position < steps) return Price::from_units(lower + position * band->tick);
    position -= steps;
    lower = band->upper;
  }
  return Price::from_units(lower);
}

PriceLimits price_limits(TickLadder ladder, Price reference, int percent) {
  const std::int64_t r = reference.units();
  const std::int64_t up = r * (100 + percent) / 100;
  const std::int64_t down = (r * (100 - percent) + 99) / 100;
  return {round_up_to_ladder(ladder, Price::from_units(down)),
          round_down_to_ladder(ladder, Price::from_units(up))};
}

PriceLimits option_price_limits(Price reference, Price underlying_reference, int percent) {
  const std::int64_t move = underlying_reference.units() * percent / 100;
  const Price smallest = tick_size(TickLadder::Option, Price::from_units(1));
  Price down = round_up_to_ladder(TickLadder::Option, Price::from_units(reference.units() - move));
  if (down < smallest) down = smallest;
  return {down, round_down_to_ladder(TickLadder::Option, Price::from_units(reference.units() + move))};
}

}  // namespace quorvex::paper
