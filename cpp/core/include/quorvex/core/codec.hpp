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
