// Python objects <-> msgpack bytes, straight (no intermediate tree). The GIL must be held.
//
// Encoding: dict (str keys, or str-valued enumeration members), list, tuple, str, int (64-bit
// range, signed or unsigned), float (always float64), bool, None, bytes and bytearray;
// enumeration members travel as their value; datetime.datetime as "%Y-%m-%d %H:%M:%S", with
// ".%f" appended when it has microseconds (wall-clock fields; a time zone is not sent);
// datetime.date as "%Y-%m-%d"; datetime.time as "%H:%M:%S" (".%f" likewise); decimal.Decimal
// as its text, str(d). Subclasses of dict, list, tuple, str, int and float encode as their base.
// Refusals name the path of the offending value, e.g. "payload['order']['price']: cannot encode
// object of type Foo": TypeError for a type or key that cannot travel, OverflowError for an int
// outside 64 bits, ValueError for nesting deeper than 100 levels or text that is not UTF-8.
//
// Decoding gives dict (keys in wire order), list, str, int, float, bool, None and bytes; a
// malformed message raises ValueError (same checks and texts as the core's decoder).
#pragma once

#include <nanobind/nanobind.h>

#include <memory>
#include <string>
#include <string_view>

namespace pymqlink {

namespace nb = nanobind;

// Imports what the encoder needs (datetime C API, enum.Enum, decimal.Decimal); at module init.
void init_wire();

// `root` names the value in error texts ("payload", "reply", "msg").
std::string encode_payload(nb::handle obj, const char* root);
void encode_payload_into(nb::handle obj, const char* root, std::string& out);
nb::object decode_payload(std::string_view bytes);

// Decodes payloads for one consumer, reusing its scratch space. Every decoder shares one table
// of recently seen texts (map keys, interned, and short ASCII values): the payloads of a stream
// repeat them. Decode with the GIL held; the decoder itself may be destroyed on any thread.
class PayloadDecoder {
 public:
  PayloadDecoder();
  ~PayloadDecoder();
  PayloadDecoder(const PayloadDecoder&) = delete;
  PayloadDecoder& operator=(const PayloadDecoder&) = delete;
  nb::object decode(std::string_view bytes);

  struct Scratch;

 private:
  std::unique_ptr<Scratch> scratch_;
};

}  // namespace pymqlink
