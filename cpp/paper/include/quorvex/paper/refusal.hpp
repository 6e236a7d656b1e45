// Refusals: what the paper broker answers when it will not do what it was asked.
// Every refusal carries a stable numeric code (sent to clients as `sts_code`) and a text
// that says what was wrong and what was expected. Value types, free of shared state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace quorvex::paper {

enum class RefusalCode : std::int32_t {
  // Orders.
  UnknownContract = 74001,
  PriceOffLadder = 74002,
  PriceOutsideLimits = 74003,
  InvalidQuantity = 74004,
  OrderTypeNotAllowed = 74005,
  NothingToCancel = 74006,  // the order is already filled or cancelled
  UnknownOrder = 74007,
  ReductionExceedsRemaining = 74008,
  PriceChangeNotAllowed = 74009,
  DuplicateOrder = 74010,
  // Reference data.
  PageOutOfRange = 75001,
  InvalidPageSize = 75002,
  // Money and holdings.
  InsufficientFunds = 76001,
  InsufficientHoldings = 76002,
  MarginTradingNotAllowed = 76003,
  ShortSellingNotAllowed = 76004,
  ReservationUnavailable = 76005,
  InvalidAmount = 76006,
  UnknownPosition = 76007,
};

struct Refusal {
  RefusalCode code;
  std::string text;

  std::int32_t sts_code() const { return static_cast<std::int32_t>(code); }
};

// The outcome of an operation that either produces a value or is refused.
template <typename T>
class Result {
 public:
  Result(T value) : state_(std::move(value)) {}            // NOLINT(google-explicit-constructor)
  Result(Refusal refusal) : state_(std::move(refusal)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }
  const T& value() const& { return std::get<0>(state_); }
  T& value() & { return std::get<0>(state_); }
  // By value, so `for (auto& x : f().value())` does not outlive the temporary it reads.
  T value() && { return std::get<0>(std::move(state_)); }
  const T* operator->() const { return &std::get<0>(state_); }
  const Refusal& refusal() const { return std::get<1>(state_); }

 private:
  std::variant<T, Refusal> state_;
};

// An operation with nothing to return: empty means done.
using Outcome = std::optional<Refusal>;

inline Refusal refuse(RefusalCode code, std::string text) { return Refusal{code, std::move(text)}; }

}  // namespace quorvex::paper
