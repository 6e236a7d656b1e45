// How the services read payloads and write replies: status codes, refusals, typed field
// readers whose refusals name the field, and the wire forms of contracts and money.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_core.hpp"
#include "quorvex/paper/calendar.hpp"
#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/price.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper::wire {

using core::Value;

// Status codes of replies; the texts that go with them are in the protocol description.
inline constexpr int kOk = 200;
inline constexpr int kBadRequest = 400;
inline constexpr int kUnauthorized = 401;
inline constexpr int kForbidden = 403;
inline constexpr int kNotFound = 404;

inline constexpr int kPayloadTooLarge = 413;

// The sts_code of order and reservation signatures that are missing, invalid or stale.
inline constexpr int kSignatureRefused = 74090;
// The sts_code of a request, or a field of one, larger than the broker reads.
inline constexpr int kTooLarge = 77001;

// What the broker reads at most, checked before anything costly is done with the bytes (msgpack
// decoding, Base58, signature checks), so an oversized request is refused at once and cannot
// hold up anyone else's. A text field takes kMaxTextBytes unless it says otherwise.
inline constexpr std::size_t kMaxRequestBytes = std::size_t{256} * 1024;
inline constexpr std::size_t kMaxTextBytes = 1024;
inline constexpr std::size_t kMaxSignatureBytes =
    std::size_t{64} * 1024;  // CMS with its certificate chain, Base64

[[noreturn]] void refuse(int status_code, std::string detail, int sts_code = 0);
// A refusal of the domain core: unknown things are 404, everything else 400, with its sts_code.
[[noreturn]] void refuse(const Refusal& refusal);
int status_of(RefusalCode code);

// {"status": {"status_code": 200}, "response": response}
Value ok_reply(Value response);
// {"status": {"status_code": ..., "detail": ...}, "response": {"detail": ..., "sts_code": ...}}
Value refused_reply(const ServiceRefused& refusal);

// A named part of a payload, so refusals can say where a bad value sits ("order.price").
class Field {
 public:
  Field(const Value& value, std::string path) : value_(value), path_(std::move(path)) {}
  Field operator[](std::string_view key) const;
  const Value& value() const { return value_; }
  const std::string& path() const { return path_; }
  bool present() const { return !value_.is_nil(); }

  // Readers refuse with 400 naming the field and what was expected.
  const core::Map& map() const;
  const core::Array& array() const;
  // Texts longer than `max_bytes` are refused with 413 (sts_code kTooLarge).
  std::string text(std::size_t max_bytes = kMaxTextBytes) const;  // required, non-empty
  std::string text_or(std::string_view fallback, std::size_t max_bytes = kMaxTextBytes) const;
  std::int64_t integer() const;  // required; whole-valued doubles accepted
  std::int64_t integer_or(std::int64_t fallback) const;
  bool flag_or(bool fallback) const;
  double number() const;
  // A price with at most two decimals; refuses NaN, infinities and finer fractions.
  Price price() const;
  Date date() const;  // "YYYY-MM-DD"

 private:
  [[noreturn]] void wrong(const char* expected) const;
  void check_length(std::size_t max_bytes) const;
  const Value& value_;
  std::string path_;
};

inline Field field(const Value& payload, std::string_view key) {
  return Field(payload.get(key), std::string(key));
}

double amount(Money cents);  // TWD, as a number
double price_number(Price price);
std::string time_text(Timestamp ts);  // "%Y-%m-%d %H:%M:%S", Taipei time
double epoch_seconds(Timestamp ts);

// The raw contract dict the client's contract records are built from.
Value contract_value(const Contract& contract);

// Writes msgpack straight into bytes, for the replies and reports on the order path, where
// building a Value tree first would cost more than the rest of the work. Maps and arrays are
// announced with their entry counts; `raw` splices in a value encoded before (a cached
// contract or account dict).
class Writer {
 public:
  // Room for a typical reply or report up front, so that writing one grows the buffer at most
  // once or twice instead of copying it at every doubling.
  Writer() { out_.reserve(kTypicalMessage); }
  Writer& map(std::uint32_t entries);
  Writer& array(std::uint32_t items);
  Writer& key(std::string_view key) { return text(key); }
  Writer& text(std::string_view text);
  Writer& integer(std::int64_t value);
  Writer& number(double value);
  Writer& flag(bool value);
  Writer& raw(std::string_view encoded);

  std::string& bytes() { return out_; }
  std::string take() { return std::move(out_); }

 private:
  static constexpr std::size_t kTypicalMessage = 960;
  std::string out_;
};

// The encoded reply {"status": {"status_code": 200}, "response": <encoded response>}.
std::string ok_reply_bytes(std::string_view response);

}  // namespace quorvex::paper::wire
