#include "quorvex/paper/price.hpp"

#include <cmath>

namespace quorvex::paper {

Money money_from_dollars(double dollars) { return std::llround(dollars * kCentsPerDollar); }

std::string money_text(Money cents) { return Price::from_units(cents).to_string(); }

Price Price::from_double(double value) { return Price(std::llround(value * kScale)); }

std::optional<Price> Price::parse(std::string_view text) {
  if (text.empty()) return std::nullopt;
  bool negative = false;
  std::size_t i = 0;
  if (text[0] == '-') {
    negative = true;
    i = 1;
  }
  std::int64_t whole = 0;
  std::size_t digits = 0;
  for (; i < text.size() && text[i] != '.'; ++i, ++digits) {
    if (text[i] < '0' || text[i] > '9' || digits >= 12) return std::nullopt;
    whole = whole * 10 + (text[i] - '0');
  }
  if (digits == 0) return std::nullopt;
  std::int64_t fraction = 0;
  if (i < text.size()) {
    const std::size_t decimals = text.size() - i - 1;
    if (decimals == 0 || decimals > 2) return std::nullopt;
    for (std::size_t k = i + 1; k < text.size(); ++k) {
      if (text[k] < '0' || text[k] > '9') return std::nullopt;
      fraction = fraction * 10 + (text[k] - '0');
    }
    if (decimals == 1) fraction *= 10;
  }
  const std::int64_t units = whole * kScale + fraction;
  return Price(negative ? -units : units);
}

std::string Price::to_string() const {
  const std::int64_t magnitude = units_ < 0 ? -units_ : units_;
  std::string text = (units_ < 0 ? "-" : "") + std::to_string(magnitude / kScale);
  const std::int64_t cents = magnitude % kScale;
  if (cents != 0) {
    text += '.';
    text += static_cast<char>('0' + cents / 10);
    if (cents % 10 != 0) text += static_cast<char>('0' + cents % 10);
  }
  return text;
}

}  // namespace quorvex::paper
