#include "quorvex/core/codec.hpp"

#include <msgpack.hpp>

#include <unordered_set>

namespace quorvex::core {
namespace {

struct StringSink {
  std::string& out;
  void write(const char* data, std::size_t size) { out.append(data, size); }
};

constexpr std::size_t kMaxEncodeDepth = DecodeLimits{}.max_depth;

std::uint32_t checked_length(std::size_t size, const char* what) {
  if (size > 0xffffffffu) {
    throw CodecError(std::string(what) + " of " + std::to_string(size) +
                     " exceeds the msgpack limit of 2^32-1");
  }
  return static_cast<std::uint32_t>(size);
}

void pack_value(msgpack::packer<StringSink>& pk, std::string& out, const Value& v, std::size_t depth) {
  switch (v.kind()) {
    case Value::Kind::Nil: pk.pack_nil(); break;
    case Value::Kind::Bool: v.as_bool() ? pk.pack_true() : pk.pack_false(); break;
    case Value::Kind::Int: pk.pack_int64(v.as_int()); break;
    case Value::Kind::UInt: pk.pack_uint64(v.as_uint()); break;
    case Value::Kind::Double: append_float64(out, v.as_double()); break;
    case Value::Kind::String: {
      const std::string& s = v.as_string();
      pk.pack_str(checked_length(s.size(), "string length"));
      pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
      break;
    }
    case Value::Kind::Binary: {
      const Bytes& b = v.as_binary();
      pk.pack_bin(checked_length(b.size(), "binary length"));
      pk.pack_bin_body(reinterpret_cast<const char*>(b.data()), static_cast<std::uint32_t>(b.size()));
      break;
    }
    case Value::Kind::Array: {
      if (depth >= kMaxEncodeDepth)
        throw CodecError("value nests deeper than " + std::to_string(kMaxEncodeDepth) + " levels");
      const Array& items = v.as_array();
      pk.pack_array(checked_length(items.size(), "array length"));
      for (const auto& item : items) pack_value(pk, out, item, depth + 1);
      break;
    }
    case Value::Kind::Map: {
      if (depth >= kMaxEncodeDepth)
        throw CodecError("value nests deeper than " + std::to_string(kMaxEncodeDepth) + " levels");
      const Map& entries = v.as_map();
      pk.pack_map(checked_length(entries.size(), "map size"));
      for (const auto& entry : entries) {
        pk.pack_str(checked_length(entry.key.size(), "key length"));
        pk.pack_str_body(entry.key.data(), static_cast<std::uint32_t>(entry.key.size()));
        pack_value(pk, out, entry.value, depth + 1);
      }
      break;
    }
    case Value::Kind::Extension: {
      const Extension& ext = v.as_extension();
      pk.pack_ext(checked_length(ext.data.size(), "extension length"), ext.type);
      pk.pack_ext_body(reinterpret_cast<const char*>(ext.data.data()),
                       static_cast<std::uint32_t>(ext.data.size()));
      break;
    }
  }
}

// Builds a Value tree from msgpack parse events; the guard keeps hostile headers from forcing
// allocations beyond a small multiple of the input size.
class TreeBuilder {
 public:
  TreeBuilder(std::size_t input_size, std::size_t max_depth) : guard_(input_size, max_depth) {}

  Value take_root() { return std::move(root_); }
  const std::string& error() const { return error_; }

  bool visit_nil() { return place(nullptr); }
  bool visit_boolean(bool v) { return place(v); }
  bool visit_positive_integer(std::uint64_t v) { return place(v); }
  bool visit_negative_integer(std::int64_t v) { return place(v); }
  bool visit_float32(float v) { return place(v); }
  bool visit_float64(double v) { return place(v); }
  bool visit_str(const char* data, std::uint32_t size) {
    if (in_key()) return take_key(data, size);
    return place(std::string(data, size));
  }
  bool visit_bin(const char* data, std::uint32_t size) {
    return place(Value::binary(std::string_view(data, size)));
  }
  bool visit_ext(const char* data, std::uint32_t size) {
    // The first byte is the type code, the rest the body.
    Extension ext;
    ext.type = static_cast<std::int8_t>(data[0]);
    ext.data.assign(reinterpret_cast<const std::uint8_t*>(data) + 1,
                    reinterpret_cast<const std::uint8_t*>(data) + size);
    return place(Value(std::move(ext)));
  }
  bool start_array(std::uint32_t n) { return open(Value(Array()), n, false); }
  bool start_array_item() { return true; }
  bool end_array_item() { return true; }
  bool end_array() { return close(); }
  bool start_map(std::uint32_t n) { return open(Value(Map()), n, true); }
  bool start_map_key() {
    frames_.back().key_position = true;
    return true;
  }
  bool end_map_key() { return true; }
  bool start_map_value() {
    frames_.back().key_position = false;
    return true;
  }
  bool end_map_value() { return true; }
  bool end_map() { return close(); }
  void parse_error(std::size_t /*parsed_offset*/, std::size_t error_offset) {
    fail(DecodeGuard::malformed_at(error_offset));
  }
  void insufficient_bytes(std::size_t /*parsed_offset*/, std::size_t /*error_offset*/) {
    fail(guard_.truncated());
  }
  bool referenced() const { return false; }
  void set_referenced(bool) {}

 private:
  struct Frame {
    Frame(Value* container_, bool is_map_) : container(container_), is_map(is_map_) {}
    Value* container;
    bool is_map;
    bool key_position = false;
    std::string key;
    std::unordered_set<std::string_view> seen_keys;  // only for large maps
  };

  // Up to this many keys a map is searched for a duplicate key entry by entry (records of up to
  // about thirty fields are the common case); larger maps keep a set of their keys.
  static constexpr std::size_t kLinearKeyCheck = 32;

  bool in_key() const { return !frames_.empty() && frames_.back().is_map && frames_.back().key_position; }

  bool fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
    return false;
  }

  bool take_key(const char* data, std::uint32_t size) {
    Frame& frame = frames_.back();
    const std::string_view key(data, size);
    const Map& map = frame.container->as_map();
    bool duplicate;
    if (map.size() < kLinearKeyCheck) {
      duplicate = map.contains(key);
      if (map.size() == kLinearKeyCheck - 1) {
        frame.seen_keys.reserve(2 * kLinearKeyCheck);
        for (const auto& entry : map) frame.seen_keys.insert(entry.key);
      }
    } else {
      duplicate = !frame.seen_keys.insert(key).second;
    }
    if (duplicate) return fail(DecodeGuard::duplicate_key(key));
    frame.key.assign(data, size);
    guard_.spend();
    return true;
  }

  // Places a finished value, built in place from `arg`, into the innermost open container (or as
  // the root); returns its address.
  template <class T>
  Value* put(T&& arg) {
    if (frames_.empty()) {
      root_ = Value(std::forward<T>(arg));
      return &root_;
    }
    guard_.spend();
    Frame& frame = frames_.back();
    if (frame.is_map) {
      if (frame.key_position) {
        fail(DecodeGuard::non_string_key(Value(std::forward<T>(arg)).kind_name()));
        return nullptr;
      }
      return &frame.container->as_map().append_new(std::move(frame.key), Value(std::forward<T>(arg)));
    }
    return &frame.container->as_array().emplace_back(std::forward<T>(arg));
  }

  template <class T>
  bool place(T&& arg) {
    return put(std::forward<T>(arg)) != nullptr;
  }

  bool open(Value container, std::uint32_t n, bool is_map) {
    Value* placed = put(std::move(container));
    if (!placed) return false;
    std::string refusal = guard_.admit(frames_.size(), n, is_map);
    if (!refusal.empty()) return fail(std::move(refusal));
    if (is_map) {
      placed->as_map().reserve(n);
    } else {
      placed->as_array().reserve(n);
    }
    frames_.emplace_back(placed, is_map);
    return true;
  }

  bool close() {
    frames_.pop_back();
    return true;
  }

  DecodeGuard guard_;
  Value root_;
  std::vector<Frame> frames_;
  std::string error_;
};

}  // namespace

std::string DecodeGuard::admit(std::size_t depth, std::uint32_t n, bool is_map) {
  if (depth >= max_depth_)
    return "malformed payload: nesting deeper than " + std::to_string(max_depth_) + " levels";
  owed_ += static_cast<std::size_t>(n) * (is_map ? 2 : 1);
  if (owed_ > input_size_) {
    return std::string("malformed msgpack: ") + (is_map ? "map of " : "array of ") + std::to_string(n) +
           " entries cannot fit in the " + std::to_string(input_size_) + "-byte input";
  }
  return {};
}

std::string DecodeGuard::truncated() const {
  return "truncated msgpack: the input of " + std::to_string(input_size_) + " bytes ends inside the message";
}

std::string DecodeGuard::malformed_at(std::size_t offset) {
  return "malformed msgpack at byte " + std::to_string(offset);
}

std::string DecodeGuard::trailing(std::size_t used, std::size_t size) {
  return "malformed msgpack: " + std::to_string(size - used) + " trailing bytes after a message of " +
         std::to_string(used) + " bytes";
}

std::string DecodeGuard::non_string_key(const char* found_kind) {
  return std::string("malformed payload: map key must be a string, found ") + found_kind;
}

std::string DecodeGuard::duplicate_key(std::string_view key) {
  return "malformed payload: duplicate map key '" + std::string(key) + "'";
}

std::string DecodeGuard::empty_input() { return "empty input, expected one msgpack message"; }

void encode_append(const Value& value, std::string& out) {
  StringSink sink{out};
  msgpack::packer<StringSink> pk(sink);
  pack_value(pk, out, value, 0);
}

std::string encode(const Value& value) {
  std::string out;
  encode_append(value, out);
  return out;
}

Value decode(std::string_view bytes, const DecodeLimits& limits) {
  if (bytes.empty()) throw CodecError(DecodeGuard::empty_input());
  TreeBuilder builder(bytes.size(), limits.max_depth);
  std::size_t offset = 0;
  const bool ok = msgpack::parse(bytes.data(), bytes.size(), offset, builder);
  if (!ok) {
    throw CodecError(builder.error().empty() ? "malformed msgpack" : builder.error());
  }
  if (offset != bytes.size()) {
    throw CodecError(DecodeGuard::trailing(offset, bytes.size()));
  }
  return builder.take_root();
}

}  // namespace quorvex::core
