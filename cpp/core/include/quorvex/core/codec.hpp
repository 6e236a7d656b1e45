// msgpack encoding and decoding of Value trees: the wire format of every payload on the bus.
//
// Encoding is canonical-compact: integers take their smallest msgpack form, doubles are float64,
// maps keep their insertion order. Decoding is safe on hostile input: truncated bytes, reserved
// bytes, declared lengths that exceed the input, nesting deeper than the limit, non-text map keys,
// duplicate keys and trailing bytes all raise CodecError, and memory reserved while decoding is
// bounded by the input size.
//
// Threading: free functions with no shared state; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "quorvex/core/value.hpp"

namespace quorvex::core {

// Raised for bytes that are not one complete, well-formed msgpack message of supported shape.
class CodecError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct DecodeLimits {
  // Arrays and maps nested deeper than this are refused.
  std::size_t max_depth = 100;
};

std::string encode(const Value& value);
// Appends the encoding of `value` to `out` (lets callers reuse one buffer).
void encode_append(const Value& value, std::string& out);

// Decodes exactly one message occupying all of `bytes`.
Value decode(std::string_view bytes, const DecodeLimits& limits = {});

// The safety checks every msgpack decoder here shares (the Value decoder and the binding's
// direct-to-Python one): nesting depth, and the elements still owed by open containers, which
// must fit in the input (each needs at least one byte) before a container may be reserved.
class DecodeGuard {
 public:
  DecodeGuard(std::size_t input_size, std::size_t max_depth)
      : input_size_(input_size), max_depth_(max_depth) {}

  // Before opening a container of `n` entries below `depth` open ones: empty when allowed,
  // otherwise the error text.
  std::string admit(std::size_t depth, std::uint32_t n, bool is_map);
  // One element (a key or a value) arrived inside an open container.
  void spend() { --owed_; }

  std::string truncated() const;
  static std::string malformed_at(std::size_t offset);
  static std::string trailing(std::size_t used, std::size_t size);
  static std::string non_string_key(const char* found_kind);
  static std::string duplicate_key(std::string_view key);
  static std::string empty_input();

 private:
  std::size_t input_size_;
  std::size_t max_depth_;
  std::size_t owed_ = 0;
};

// Appends a msgpack float64. Doubles always travel as float64, whole-valued ones included, so a
// float stays a float on the other side (msgpack-cxx's own pack_double turns 2.0 into the int 2).
inline void append_float64(std::string& out, double d) {
  std::uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  char buf[9];
  buf[0] = static_cast<char>(0xcb);
  for (int i = 0; i < 8; ++i) buf[1 + i] = static_cast<char>(bits >> (56 - 8 * i));
  out.append(buf, sizeof buf);
}

}  // namespace quorvex::core
