#include "wire.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "quorvex/core/codec.hpp"

namespace quorvex::paper::wire {

void refuse(int status_code, std::string detail, int sts_code) {
  throw ServiceRefused(status_code, std::move(detail), sts_code);
}

int status_of(RefusalCode code) {
  switch (code) {
    case RefusalCode::UnknownContract:
    case RefusalCode::UnknownOrder:
    case RefusalCode::UnknownPosition: return kNotFound;
    default: return kBadRequest;
  }
}

void refuse(const Refusal& refusal) { refuse(status_of(refusal.code), refusal.text, refusal.sts_code()); }

Value ok_reply(Value response) {
  Value reply;
  reply.set("status", Value::map({{"status_code", kOk}}));
  reply.set("response", std::move(response));
  return reply;
}

Value refused_reply(const ServiceRefused& refusal) {
  Value response = Value::map({{"detail", refusal.what()}});
  if (refusal.sts_code() != 0) response.set("sts_code", refusal.sts_code());
  Value reply;
  reply.set("status", Value::map({{"status_code", refusal.status_code()}, {"detail", refusal.what()}}));
  reply.set("response", std::move(response));
  return reply;
}

Field Field::operator[](std::string_view key) const {
  return Field(value_.get(key), path_ + "." + std::string(key));
}

void Field::wrong(const char* expected) const {
  if (value_.is_nil()) refuse(kBadRequest, "field '" + path_ + "' is missing; expected " + expected);
  refuse(kBadRequest, "field '" + path_ + "' holds " + value_.kind_name() + "; expected " + expected);
}

const core::Map& Field::map() const {
  if (!value_.is_map()) wrong("a map");
  return value_.as_map();
}

const core::Array& Field::array() const {
  if (!value_.is_array()) wrong("a list");
  return value_.as_array();
}

void Field::check_length(std::size_t max_bytes) const {
  const std::size_t size = value_.as_string().size();
  if (size > max_bytes) {
    refuse(kPayloadTooLarge,
           "field '" + path_ + "' is " + std::to_string(size) + " bytes; expected at most " +
               std::to_string(max_bytes),
           kTooLarge);
  }
}

std::string Field::text(std::size_t max_bytes) const {
  if (!value_.is_string() || value_.as_string().empty()) wrong("a non-empty text");
  check_length(max_bytes);
  return value_.as_string();
}

std::string Field::text_or(std::string_view fallback, std::size_t max_bytes) const {
  if (value_.is_nil()) return std::string(fallback);
  if (!value_.is_string()) wrong("a text");
  check_length(max_bytes);
  return value_.as_string();
}

std::int64_t Field::integer() const {
  if (value_.kind() == Value::Kind::Int) return value_.as_int();
  if (value_.kind() == Value::Kind::Double) {
    const double d = value_.as_double();
    if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 9.0e15) return static_cast<std::int64_t>(d);
  }
  wrong("a whole number");
}

std::int64_t Field::integer_or(std::int64_t fallback) const { return value_.is_nil() ? fallback : integer(); }

bool Field::flag_or(bool fallback) const {
  if (value_.is_nil()) return fallback;
  if (!value_.is_bool()) wrong("true or false");
  return value_.as_bool();
}

double Field::number() const {
  if (!value_.is_number()) wrong("a number");
  const double d = value_.as_double();
  if (!std::isfinite(d)) wrong("a finite number");
  return d;
}

Price Field::price() const {
  const double d = number();
  const double hundredths = d * Price::kScale;
  if (std::fabs(hundredths) > 1e13 || std::fabs(hundredths - std::nearbyint(hundredths)) > 1e-6) {
    wrong("a price with at most two decimals");
  }
  return Price::from_double(d);
}

Date Field::date() const {
  const std::string value = text();
  const std::optional<Date> parsed = Date::parse(value);
  if (!parsed) refuse(kBadRequest, "field '" + path_ + "' is '" + value + "'; expected a date as YYYY-MM-DD");
  return *parsed;
}

double amount(Money cents) { return to_dollars(cents); }
double price_number(Price price) { return price.to_double(); }
double epoch_seconds(Timestamp ts) { return static_cast<double>(ts) / kNanosPerSecond; }

std::string time_text(Timestamp ts) {
  const Date day = taipei_date(ts);
  const std::int64_t seconds = (ts - taipei_instant(day)) / kNanosPerSecond;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s %02d:%02d:%02d", day.to_string().c_str(),
                static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60));
  return buf;
}

Value contract_value(const Contract& c) {
  const bool derivative = c.is_derivative();
  core::Map m;
  m.reserve(23);
  m.append_new("security_type", to_text(c.security_type));
  m.append_new("exchange", to_text(c.exchange));
  m.append_new("code", c.code);
  m.append_new("symbol", c.symbol);
  m.append_new("name", c.name);
  m.append_new("category", c.category);
  m.append_new("currency", c.currency);
  m.append_new("unit", c.unit);
  m.append_new("multiplier", c.multiplier);
  m.append_new("limit_up", price_number(c.limit_up));
  m.append_new("limit_down", price_number(c.limit_down));
  m.append_new("reference", price_number(c.reference));
  m.append_new("update_date", c.update_date.to_string());
  m.append_new("day_trade", to_text(c.day_trade));
  m.append_new("margin_trading_balance", c.margin_trading_balance);
  m.append_new("short_selling_balance", c.short_selling_balance);
  m.append_new("delivery_month", c.delivery_month);
  m.append_new("delivery_date", derivative ? c.delivery_date.to_string() : std::string());
  m.append_new("underlying_kind", c.underlying_kind);
  m.append_new("underlying_code", c.underlying_code);
  m.append_new("strike_price", price_number(c.strike_price));
  m.append_new("option_right", to_text(c.option_right));
  m.append_new("target_code", std::string());
  return Value(std::move(m));
}

namespace {

void put_be(std::string& out, std::uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}

void put_header(std::string& out, std::uint32_t n, std::uint8_t fix, std::uint32_t fix_max,
                std::uint8_t tag16, std::uint8_t tag32) {
  if (n <= fix_max) {
    out += static_cast<char>(fix | n);
  } else if (n <= 0xffff) {
    out += static_cast<char>(tag16);
    put_be(out, n, 2);
  } else {
    out += static_cast<char>(tag32);
    put_be(out, n, 4);
  }
}

}  // namespace

Writer& Writer::map(std::uint32_t entries) {
  put_header(out_, entries, 0x80, 15, 0xde, 0xdf);
  return *this;
}

Writer& Writer::array(std::uint32_t items) {
  put_header(out_, items, 0x90, 15, 0xdc, 0xdd);
  return *this;
}

Writer& Writer::text(std::string_view text) {
  const auto n = static_cast<std::uint32_t>(text.size());
  if (n <= 31) {
    out_ += static_cast<char>(0xa0 | n);
  } else if (n <= 0xff) {
    out_ += static_cast<char>(0xd9);
    put_be(out_, n, 1);
  } else {
    put_header(out_, n, 0xa0, 0, 0xda, 0xdb);
  }
  out_.append(text.data(), text.size());
  return *this;
}

// The smallest form, as the core codec writes integers, so both encodings of a value agree.
Writer& Writer::integer(std::int64_t v) {
  if (v >= 0) {
    if (v <= 0x7f) {
      out_ += static_cast<char>(v);
    } else if (v <= 0xff) {
      out_ += static_cast<char>(0xcc);
      put_be(out_, static_cast<std::uint64_t>(v), 1);
    } else if (v <= 0xffff) {
      out_ += static_cast<char>(0xcd);
      put_be(out_, static_cast<std::uint64_t>(v), 2);
    } else if (v <= 0xffffffffLL) {
      out_ += static_cast<char>(0xce);
      put_be(out_, static_cast<std::uint64_t>(v), 4);
    } else {
      out_ += static_cast<char>(0xcf);
      put_be(out_, static_cast<std::uint64_t>(v), 8);
    }
  } else if (v >= -32) {
    out_ += static_cast<char>(static_cast<std::int8_t>(v));
  } else if (v >= -128) {
    out_ += static_cast<char>(0xd0);
    put_be(out_, static_cast<std::uint64_t>(v), 1);
  } else if (v >= -32768) {
    out_ += static_cast<char>(0xd1);
    put_be(out_, static_cast<std::uint64_t>(v), 2);
  } else if (v >= -2147483648LL) {
    out_ += static_cast<char>(0xd2);
    put_be(out_, static_cast<std::uint64_t>(v), 4);
  } else {
    out_ += static_cast<char>(0xd3);
    put_be(out_, static_cast<std::uint64_t>(v), 8);
  }
  return *this;
}

Writer& Writer::number(double value) {
  core::append_float64(out_, value);
  return *this;
}

Writer& Writer::flag(bool value) {
  out_ += static_cast<char>(value ? 0xc3 : 0xc2);
  return *this;
}

Writer& Writer::raw(std::string_view encoded) {
  out_.append(encoded.data(), encoded.size());
  return *this;
}

std::string ok_reply_bytes(std::string_view response) {
  Writer w;
  w.bytes().reserve(response.size() + 32);
  w.map(2).key("status").map(1).key("status_code").integer(kOk).key("response").raw(response);
  return w.take();
}

}  // namespace quorvex::paper::wire
