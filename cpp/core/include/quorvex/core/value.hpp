// A tree of wire values: what one msgpack message holds, in a form C++ services can read and build.
//
// Kinds: nil, bool, signed and unsigned integers, double, text, binary, array, map (text keys, kept
// in insertion order) and msgpack extension values. Integers are kept as `Int` whenever they fit in
// a signed 64-bit integer; `UInt` holds only the values above that range, so a value compares equal
// to itself after a round trip through the wire.
//
// Reading payloads: `get(key)` and `at(index)` never throw and give nil for anything absent, so
// lookups chain (`payload.get("status").get_int("status_code", 0)`). The typed `get_*` readers give
// their default for an absent or nil entry and throw `ValueError` naming the key when the entry holds
// another kind. The strict `as_*` accessors throw `ValueError` naming the expected and found kinds.
//
// Threading: a Value is a plain value type. Concurrent reads are safe; writes need the caller's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace quorvex::core {

using Bytes = std::vector<std::uint8_t>;

class Value;
struct MapEntry;

// Raised when a value is read as a kind it does not hold.
class ValueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A msgpack extension value: an application-defined type code and its raw bytes.
struct Extension {
  std::int8_t type = 0;
  Bytes data;
  bool operator==(const Extension& other) const { return type == other.type && data == other.data; }
};

using Array = std::vector<Value>;

// Text-keyed entries in insertion order. Lookups are linear: wire maps are small records.
class Map {
 public:
  using iterator = std::vector<MapEntry>::iterator;
  using const_iterator = std::vector<MapEntry>::const_iterator;

  Map() = default;
  Map(std::initializer_list<MapEntry> entries);

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  void reserve(std::size_t n) { entries_.reserve(n); }
  iterator begin();
  iterator end();
  const_iterator begin() const;
  const_iterator end() const;

  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // Replaces the value of an existing key in place, or appends a new entry.
  Value& set(std::string key, Value value);
  // The value under `key`, appended as nil when missing.
  Value& operator[](std::string_view key);
  bool erase(std::string_view key);
  // Appends without looking for an existing key; the caller guarantees the key is new.
  Value& append_new(std::string key, Value value);

  bool operator==(const Map& other) const;
  bool operator!=(const Map& other) const { return !(*this == other); }

 private:
  std::vector<MapEntry> entries_;
};

class Value {
 public:
  enum class Kind : std::uint8_t { Nil, Bool, Int, UInt, Double, String, Binary, Array, Map, Extension };

  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  Value(bool b) noexcept : data_(b) {}
  template <class T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>,
                             int> = 0>
  Value(T n) noexcept {
    if constexpr (std::is_signed_v<T>) {
      data_ = static_cast<std::int64_t>(n);
    } else if (static_cast<std::uint64_t>(n) <=
               static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      data_ = static_cast<std::int64_t>(n);
    } else {
      data_ = static_cast<std::uint64_t>(n);
    }
  }
  Value(double d) noexcept : data_(d) {}
  Value(float f) noexcept : data_(static_cast<double>(f)) {}
  Value(const char* s) : data_(std::string(s)) {}
  Value(std::string s) noexcept : data_(std::move(s)) {}
  Value(std::string_view s) : data_(std::string(s)) {}
  Value(Bytes b) noexcept : data_(std::move(b)) {}
  Value(Array a) noexcept : data_(std::move(a)) {}
  Value(Map m) noexcept : data_(std::move(m)) {}
  Value(Extension e) noexcept : data_(std::move(e)) {}

  // Builders: Value::map({{"status", Value::map({{"status_code", 200}})}, {"response", Value::array({})}}).
  static Value map(std::initializer_list<MapEntry> entries);
  static Value array(std::initializer_list<Value> items);
  static Value binary(std::string_view bytes);

  Kind kind() const noexcept { return static_cast<Kind>(data_.index()); }
  // "nil", "bool", "int", "uint", "double", "string", "binary", "array", "map", "extension".
  const char* kind_name() const noexcept { return kind_name(kind()); }
  static const char* kind_name(Kind kind) noexcept;

  bool is_nil() const noexcept { return kind() == Kind::Nil; }
  bool is_bool() const noexcept { return kind() == Kind::Bool; }
  bool is_int() const noexcept { return kind() == Kind::Int || kind() == Kind::UInt; }
  bool is_number() const noexcept { return is_int() || kind() == Kind::Double; }
  bool is_string() const noexcept { return kind() == Kind::String; }
  bool is_binary() const noexcept { return kind() == Kind::Binary; }
  bool is_array() const noexcept { return kind() == Kind::Array; }
  bool is_map() const noexcept { return kind() == Kind::Map; }
  bool is_extension() const noexcept { return kind() == Kind::Extension; }

  // Strict accessors; ValueError when the kind differs (or an integer does not fit).
  bool as_bool() const;
  std::int64_t as_int() const;
  std::uint64_t as_uint() const;
  double as_double() const;  // any number
  const std::string& as_string() const;
  const Bytes& as_binary() const;
  const Array& as_array() const;
  Array& as_array();
  const Map& as_map() const;
  Map& as_map();
  const Extension& as_extension() const;

  // Lenient lookups: nil when this is not a map/array or the entry is absent.
  const Value& get(std::string_view key) const noexcept;
  const Value& at(std::size_t index) const noexcept;
  bool contains(std::string_view key) const noexcept;
  // Elements of an array or entries of a map; 0 for every other kind.
  std::size_t size() const noexcept;

  // Typed readers of map entries: the default for an absent or nil entry, ValueError for another kind.
  bool get_bool(std::string_view key, bool fallback = false) const;
  std::int64_t get_int(std::string_view key, std::int64_t fallback = 0) const;
  std::uint64_t get_uint(std::string_view key, std::uint64_t fallback = 0) const;
  double get_double(std::string_view key, double fallback = 0.0) const;
  std::string get_string(std::string_view key, std::string_view fallback = {}) const;
  // The array under `key`; an empty array when absent or nil.
  const Array& get_array(std::string_view key) const;

  // Writers. A nil value becomes a map (set, operator[]) or an array (push_back) on first use;
  // any other kind throws ValueError.
  Value& set(std::string key, Value value);
  Value& operator[](std::string_view key);
  Value& push_back(Value value);

  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Bytes, Array, Map,
               Extension>
      data_;
};

struct MapEntry {
  std::string key;
  Value value;
  bool operator==(const MapEntry& other) const { return key == other.key && value == other.value; }
};

inline Map::iterator Map::begin() { return entries_.begin(); }
inline Map::iterator Map::end() { return entries_.end(); }
inline Map::const_iterator Map::begin() const { return entries_.begin(); }
inline Map::const_iterator Map::end() const { return entries_.end(); }

// JSON-like text of a value, for logs and test failure messages (binary as hex, NaN as nan).
std::string to_display_string(const Value& value);
std::ostream& operator<<(std::ostream& os, const Value& value);

}  // namespace quorvex::core
