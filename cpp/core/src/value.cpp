#include "quorvex/core/value.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace quorvex::core {
namespace {

const Value& nil_value() {
  static const Value nil;
  return nil;
}

const Array& empty_array() {
  static const Array empty;
  return empty;
}

[[noreturn]] void wrong_kind(const char* expected, const Value& found) {
  throw ValueError(std::string("expected ") + expected + ", found " + found.kind_name());
}

[[noreturn]] void wrong_entry(std::string_view key, const char* expected, const Value& found) {
  throw ValueError("entry '" + std::string(key) + "': expected " + expected + ", found " + found.kind_name());
}

void append_escaped(std::string& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
          out += buf;
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

void append_hex(std::string& out, const Bytes& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::uint8_t b : data) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
}

void append_display(std::string& out, const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Nil: out += "null"; break;
    case Value::Kind::Bool: out += v.as_bool() ? "true" : "false"; break;
    case Value::Kind::Int: out += std::to_string(v.as_int()); break;
    case Value::Kind::UInt: out += std::to_string(v.as_uint()); break;
    case Value::Kind::Double: {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.17g", v.as_double());
      out += buf;
      break;
    }
    case Value::Kind::String: append_escaped(out, v.as_string()); break;
    case Value::Kind::Binary:
      out += "b'";
      append_hex(out, v.as_binary());
      out += "'";
      break;
    case Value::Kind::Array: {
      out.push_back('[');
      bool first = true;
      for (const auto& item : v.as_array()) {
        if (!first) out += ", ";
        first = false;
        append_display(out, item);
      }
      out.push_back(']');
      break;
    }
    case Value::Kind::Map: {
      out.push_back('{');
      bool first = true;
      for (const auto& entry : v.as_map()) {
        if (!first) out += ", ";
        first = false;
        append_escaped(out, entry.key);
        out += ": ";
        append_display(out, entry.value);
      }
      out.push_back('}');
      break;
    }
    case Value::Kind::Extension:
      out += "ext(" + std::to_string(v.as_extension().type) + ", '";
      append_hex(out, v.as_extension().data);
      out += "')";
      break;
  }
}

}  // namespace

// ---- Map ----

Map::Map(std::initializer_list<MapEntry> entries) {
  entries_.reserve(entries.size());
  for (const auto& entry : entries) set(entry.key, entry.value);
}

const Value* Map::find(std::string_view key) const {
  for (const auto& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

Value* Map::find(std::string_view key) {
  for (auto& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

Value& Map::set(std::string key, Value value) {
  if (Value* existing = find(key)) {
    *existing = std::move(value);
    return *existing;
  }
  return append_new(std::move(key), std::move(value));
}

Value& Map::operator[](std::string_view key) {
  if (Value* existing = find(key)) return *existing;
  return append_new(std::string(key), Value());
}

bool Map::erase(std::string_view key) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->key == key) {
      entries_.erase(it);
      return true;
    }
  }
  return false;
}

Value& Map::append_new(std::string key, Value value) {
  entries_.push_back(MapEntry{std::move(key), std::move(value)});
  return entries_.back().value;
}

bool Map::operator==(const Map& other) const { return entries_ == other.entries_; }

// ---- Value ----

Value Value::map(std::initializer_list<MapEntry> entries) { return Value(Map(entries)); }

Value Value::array(std::initializer_list<Value> items) { return Value(Array(items)); }

Value Value::binary(std::string_view bytes) {
  return Value(Bytes(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                     reinterpret_cast<const std::uint8_t*>(bytes.data()) + bytes.size()));
}

const char* Value::kind_name(Kind kind) noexcept {
  switch (kind) {
    case Kind::Nil: return "nil";
    case Kind::Bool: return "bool";
    case Kind::Int: return "int";
    case Kind::UInt: return "uint";
    case Kind::Double: return "double";
    case Kind::String: return "string";
    case Kind::Binary: return "binary";
    case Kind::Array: return "array";
    case Kind::Map: return "map";
    case Kind::Extension: return "extension";
  }
  return "unknown";
}

bool Value::as_bool() const {
  if (auto p = std::get_if<bool>(&data_)) return *p;
  wrong_kind("bool", *this);
}

std::int64_t Value::as_int() const {
  if (auto p = std::get_if<std::int64_t>(&data_)) return *p;
  if (std::holds_alternative<std::uint64_t>(data_)) {
    throw ValueError("integer " + std::to_string(std::get<std::uint64_t>(data_)) +
                     " does not fit a signed 64-bit integer");
  }
  wrong_kind("int", *this);
}

std::uint64_t Value::as_uint() const {
  if (auto p = std::get_if<std::uint64_t>(&data_)) return *p;
  if (auto p = std::get_if<std::int64_t>(&data_)) {
    if (*p < 0)
      throw ValueError("integer " + std::to_string(*p) + " is negative, expected an unsigned integer");
    return static_cast<std::uint64_t>(*p);
  }
  wrong_kind("unsigned int", *this);
}

double Value::as_double() const {
  if (auto p = std::get_if<double>(&data_)) return *p;
  if (auto p = std::get_if<std::int64_t>(&data_)) return static_cast<double>(*p);
  if (auto p = std::get_if<std::uint64_t>(&data_)) return static_cast<double>(*p);
  wrong_kind("number", *this);
}

const std::string& Value::as_string() const {
  if (auto p = std::get_if<std::string>(&data_)) return *p;
  wrong_kind("string", *this);
}

const Bytes& Value::as_binary() const {
  if (auto p = std::get_if<Bytes>(&data_)) return *p;
  wrong_kind("binary", *this);
}

const Array& Value::as_array() const {
  if (auto p = std::get_if<Array>(&data_)) return *p;
  wrong_kind("array", *this);
}

Array& Value::as_array() {
  if (auto p = std::get_if<Array>(&data_)) return *p;
  wrong_kind("array", *this);
}

const Map& Value::as_map() const {
  if (auto p = std::get_if<Map>(&data_)) return *p;
  wrong_kind("map", *this);
}

Map& Value::as_map() {
  if (auto p = std::get_if<Map>(&data_)) return *p;
  wrong_kind("map", *this);
}

const Extension& Value::as_extension() const {
  if (auto p = std::get_if<Extension>(&data_)) return *p;
  wrong_kind("extension", *this);
}

const Value& Value::get(std::string_view key) const noexcept {
  if (auto p = std::get_if<Map>(&data_)) {
    if (const Value* found = p->find(key)) return *found;
  }
  return nil_value();
}

const Value& Value::at(std::size_t index) const noexcept {
  if (auto p = std::get_if<Array>(&data_)) {
    if (index < p->size()) return (*p)[index];
  }
  return nil_value();
}

bool Value::contains(std::string_view key) const noexcept {
  auto p = std::get_if<Map>(&data_);
  return p && p->contains(key);
}

std::size_t Value::size() const noexcept {
  if (auto p = std::get_if<Array>(&data_)) return p->size();
  if (auto p = std::get_if<Map>(&data_)) return p->size();
  return 0;
}

bool Value::get_bool(std::string_view key, bool fallback) const {
  const Value& v = get(key);
  if (v.is_nil()) return fallback;
  if (!v.is_bool()) wrong_entry(key, "bool", v);
  return v.as_bool();
}

std::int64_t Value::get_int(std::string_view key, std::int64_t fallback) const {
  const Value& v = get(key);
  if (v.is_nil()) return fallback;
  if (v.kind() != Kind::Int) {
    if (v.kind() == Kind::UInt)
      throw ValueError("entry '" + std::string(key) + "': integer out of signed 64-bit range");
    wrong_entry(key, "int", v);
  }
  return v.as_int();
}

std::uint64_t Value::get_uint(std::string_view key, std::uint64_t fallback) const {
  const Value& v = get(key);
  if (v.is_nil()) return fallback;
  if (!v.is_int()) wrong_entry(key, "unsigned int", v);
  if (v.kind() == Kind::Int && v.as_int() < 0) wrong_entry(key, "unsigned int", v);
  return v.as_uint();
}

double Value::get_double(std::string_view key, double fallback) const {
  const Value& v = get(key);
  if (v.is_nil()) return fallback;
  if (!v.is_number()) wrong_entry(key, "number", v);
  return v.as_double();
}

std::string Value::get_string(std::string_view key, std::string_view fallback) const {
  const Value& v = get(key);
  if (v.is_nil()) return std::string(fallback);
  if (!v.is_string()) wrong_entry(key, "string", v);
  return v.as_string();
}

const Array& Value::get_array(std::string_view key) const {
  const Value& v = get(key);
  if (v.is_nil()) return empty_array();
  if (!v.is_array()) wrong_entry(key, "array", v);
  return v.as_array();
}

Value& Value::set(std::string key, Value value) {
  if (is_nil()) data_ = Map();
  return as_map().set(std::move(key), std::move(value));
}

Value& Value::operator[](std::string_view key) {
  if (is_nil()) data_ = Map();
  return as_map()[key];
}

Value& Value::push_back(Value value) {
  if (is_nil()) data_ = Array();
  Array& items = as_array();
  items.push_back(std::move(value));
  return items.back();
}

bool Value::operator==(const Value& other) const {
  if (data_.index() != other.data_.index()) return false;
  if (auto a = std::get_if<double>(&data_)) {
    const double b = std::get<double>(other.data_);
    return *a == b || (std::isnan(*a) && std::isnan(b));
  }
  return data_ == other.data_;
}

std::string to_display_string(const Value& value) {
  std::string out;
  append_display(out, value);
  return out;
}

std::ostream& operator<<(std::ostream& os, const Value& value) { return os << to_display_string(value); }

}  // namespace quorvex::core
