// Fixed-point prices, quantities and money amounts of the paper broker.
// Value types: safe to copy between threads; no shared state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvex::paper {

// Shares (stocks) or contracts (futures and options).
using Quantity = std::int64_t;

// TWD in cents. Trade values of odd lots carry cents; fees and taxes are whole dollars.
using Money = std::int64_t;

inline constexpr Money kCentsPerDollar = 100;

inline double to_dollars(Money cents) { return static_cast<double>(cents) / kCentsPerDollar; }
Money money_from_dollars(double dollars);
// "1234.5", "-20", "0.05": dollars with the cents only when there are any.
std::string money_text(Money cents);

// A price with two decimals. Every step of every Taiwan ladder is a multiple of 0.01,
// so prices compare and step as integers and are never compared as doubles.
class Price {
 public:
  static constexpr std::int64_t kScale = 100;

  constexpr Price() = default;
  static constexpr Price from_units(std::int64_t units) { return Price(units); }
  static constexpr Price from_whole(std::int64_t whole) { return Price(whole * kScale); }
  // Rounds to the nearest 0.01; use parse() for texts to avoid binary fractions.
  static Price from_double(double value);
  // Accepts "1085", "1085.5", "1085.50"; refuses more than two decimals or any other text.
  static std::optional<Price> parse(std::string_view text);

  constexpr std::int64_t units() const { return units_; }
  double to_double() const { return static_cast<double>(units_) / kScale; }
  // Shortest text that round-trips: "1085", "1085.5", "9.99".
  std::string to_string() const;

  constexpr bool is_zero() const { return units_ == 0; }
  constexpr bool is_positive() const { return units_ > 0; }

  friend constexpr bool operator==(Price a, Price b) { return a.units_ == b.units_; }
  friend constexpr bool operator!=(Price a, Price b) { return a.units_ != b.units_; }
  friend constexpr bool operator<(Price a, Price b) { return a.units_ < b.units_; }
  friend constexpr bool operator<=(Price a, Price b) { return a.units_ <= b.units_; }
  friend constexpr bool operator>(Price a, Price b) { return a.units_ > b.units_; }
  friend constexpr bool operator>=(Price a, Price b) { return a.units_ >= b.units_; }
  friend constexpr Price operator+(Price a, Price b) { return Price(a.units_ + b.units_); }
  friend constexpr Price operator-(Price a, Price b) { return Price(a.units_ - b.units_); }

 private:
  constexpr explicit Price(std::int64_t units) : units_(units) {}
  std::int64_t units_ = 0;
};

// Value in cents of `quantity` units at `price` with `multiplier` units per quantity
// (shares per share = 1, TWD per index point per contract for derivatives).
constexpr Money trade_value(Price price, Quantity quantity, std::int64_t multiplier = 1) {
  return price.units() * quantity * multiplier * kCentsPerDollar / Price::kScale;
}

}  // namespace quorvex::paper
