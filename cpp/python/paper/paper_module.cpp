// quorvex._paper: the paper broker for Python. A configuration dict in, a broker that can be
// attached to an in-process bus out; importing the module also registers paper://.
//
// GIL: building a broker (its reference data), attaching and closing run without the GIL;
// the broker's services never call into Python.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/unique_ptr.h>
#include <nanobind/stl/vector.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "glue.hpp"
#include "quorvex/bus/message.hpp"
#include "quorvex/core/base58.hpp"
#include "quorvex/paper/feed/market_clock.hpp"
#include "quorvex/paper/paper_broker.hpp"

namespace nb = nanobind;
using namespace quorvex::paper;

namespace {

// Reading the configuration dict: every failure names the key and what was expected.
class ConfigReader {
 public:
  ConfigReader(nb::handle mapping, std::string where) : where_(std::move(where)) {
    if (!PyDict_Check(mapping.ptr())) fail("", "a dict", mapping);
    dict_ = nb::borrow<nb::dict>(mapping);
  }

  bool has(const char* key) const { return dict_.contains(key) && !dict_[key].is_none(); }

  std::string text(const char* key, const std::string& fallback = {}) const {
    if (!has(key)) return fallback;
    nb::handle value = dict_[key];
    if (!PyUnicode_Check(value.ptr())) fail(key, "a str", value);
    return nb::cast<std::string>(value);
  }
  std::int64_t integer(const char* key, std::int64_t fallback) const {
    if (!has(key)) return fallback;
    nb::handle value = dict_[key];
    if (!PyLong_Check(value.ptr()) || PyBool_Check(value.ptr())) fail(key, "an int", value);
    return nb::cast<std::int64_t>(value);
  }
  double number(const char* key, double fallback) const {
    if (!has(key)) return fallback;
    nb::handle value = dict_[key];
    if (!(PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr())) || PyBool_Check(value.ptr())) {
      fail(key, "a number", value);
    }
    return nb::cast<double>(value);
  }
  bool flag(const char* key, bool fallback) const {
    if (!has(key)) return fallback;
    nb::handle value = dict_[key];
    if (!PyBool_Check(value.ptr())) fail(key, "a bool", value);
    return nb::cast<bool>(value);
  }
  nb::list list(const char* key) const {
    if (!has(key)) return nb::list();
    nb::handle value = dict_[key];
    if (!PyList_Check(value.ptr())) fail(key, "a list", value);
    return nb::borrow<nb::list>(value);
  }
  std::string path(const std::string& key) const { return where_.empty() ? key : where_ + "." + key; }

 private:
  [[noreturn]] void fail(const std::string& key, const char* expected, nb::handle got) const {
    throw nb::type_error(("paper broker config: '" + path(key) + "' must be " + expected + ", got " +
                          nb::type_name(got.type()).c_str())
                             .c_str());
  }
  nb::dict dict_;
  std::string where_;
};

AccountConfig account_from(nb::handle item, const std::string& where) {
  const ConfigReader r(item, where);
  AccountConfig account;
  const std::string type = r.text("account_type", "S");
  if (type != "S" && type != "F") {
    throw nb::value_error(("paper broker config: '" + r.path("account_type") + "' is '" + type +
                           "'; expected \"S\" (stock) or \"F\" (futures)")
                              .c_str());
  }
  account.kind = type == "S" ? AccountKind::Stock : AccountKind::Futures;
  account.broker_id = r.text("broker_id");
  account.account_id = r.text("account_id");
  account.signed_orders = r.flag("signed", true);
  account.opening_cash = money_from_dollars(r.number("opening_cash", 0.0));
  return account;
}

ApiKeyConfig api_key_from(nb::handle item, const std::string& where) {
  const ConfigReader r(item, where);
  const std::string key = r.text("key");
  if (!r.text("secret").empty()) return api_key_from_secret(key, r.text("secret"));
  const std::string hex = r.text("public_key");
  ApiKeyConfig api_key;
  api_key.key = key;
  if (hex.size() != 64) {
    throw nb::value_error(("paper broker config: '" + r.path("public_key") +
                           "' must be 64 hex digits (a 32-byte Ed25519 public key), or give 'secret'")
                              .c_str());
  }
  auto nibble = [&](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw nb::value_error(
        ("paper broker config: '" + r.path("public_key") + "' holds a character that is not a hex digit")
            .c_str());
  };
  for (std::size_t i = 0; i < 32; ++i) {
    api_key.public_key[i] = static_cast<std::uint8_t>(nibble(hex[2 * i]) * 16 + nibble(hex[2 * i + 1]));
  }
  return api_key;
}

PaperBrokerConfig config_from(nb::handle mapping) {
  const ConfigReader r(mapping, "");
  PaperBrokerConfig config;
  std::size_t i = 0;
  for (nb::handle person_item : r.list("persons")) {
    const std::string where = "persons[" + std::to_string(i++) + "]";
    const ConfigReader p(person_item, where);
    PersonConfig person;
    person.person_id = p.text("person_id");
    person.name = p.text("name");
    person.password = p.text("password");
    std::size_t k = 0;
    for (nb::handle key : p.list("api_keys"))
      person.api_keys.push_back(api_key_from(key, where + ".api_keys[" + std::to_string(k++) + "]"));
    for (nb::handle token : p.list("simulation_tokens")) {
      if (!PyUnicode_Check(token.ptr()))
        throw nb::type_error(
            ("paper broker config: '" + where + ".simulation_tokens' must hold str").c_str());
      person.simulation_tokens.push_back(nb::cast<std::string>(token));
    }
    std::size_t a = 0;
    for (nb::handle account : p.list("accounts"))
      person.accounts.push_back(account_from(account, where + ".accounts[" + std::to_string(a++) + "]"));
    config.persons.push_back(std::move(person));
  }
  config.contracts.size =
      static_cast<std::size_t>(r.integer("contracts_size", static_cast<std::int64_t>(config.contracts.size)));
  config.contracts.seed = static_cast<std::uint64_t>(
      r.integer("contracts_seed", static_cast<std::int64_t>(config.contracts.seed)));
  if (r.has("trading_day")) {
    const std::string day = r.text("trading_day");
    const std::optional<Date> parsed = Date::parse(day);
    if (!parsed)
      throw nb::value_error(
          ("paper broker config: 'trading_day' is '" + day + "'; expected YYYY-MM-DD").c_str());
    config.contracts.trading_day = *parsed;
    config.use_config_trading_day = true;
  }
  config.seed = static_cast<std::uint64_t>(r.integer("seed", static_cast<std::int64_t>(config.seed)));
  config.synthetic_liquidity = r.flag("synthetic_liquidity", config.synthetic_liquidity);
  config.clock_speed = r.number("clock_speed", config.clock_speed);
  if (r.has("market_start")) {
    const std::string start = r.text("market_start");
    const std::optional<Timestamp> parsed = parse_taipei_instant(start);
    if (!parsed) {
      throw nb::value_error(("paper broker config: 'market_start' is '" + start +
                             "'; expected YYYY-MM-DDTHH:MM[:SS], Taipei time")
                                .c_str());
    }
    config.market_start = *parsed;
  }
  config.max_receive_window_ms = r.integer("max_receive_window_ms", config.max_receive_window_ms);
  config.ip_address = r.text("ip_address", config.ip_address);
  return config;
}

std::string hex_of(const std::array<std::uint8_t, 32>& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : bytes) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

nb::dict dict_of(std::initializer_list<std::pair<const char*, nb::object>> items) {
  nb::dict d;
  for (const auto& [key, value] : items) d[key] = value;
  return d;
}

nb::dict demo_config_dict() {
  const PaperBrokerConfig config = demo_config();
  nb::list persons;
  for (const PersonConfig& person : config.persons) {
    nb::list keys;
    for (const ApiKeyConfig& key : person.api_keys) {
      keys.append(dict_of({{"key", nb::cast(key.key)}, {"public_key", nb::cast(hex_of(key.public_key))}}));
    }
    nb::list accounts;
    for (const AccountConfig& a : person.accounts) {
      accounts.append(dict_of({{"account_type", nb::cast(std::string(to_text(a.kind)))},
                               {"broker_id", nb::cast(a.broker_id)},
                               {"account_id", nb::cast(a.account_id)},
                               {"signed", nb::cast(a.signed_orders)},
                               {"opening_cash", nb::cast(to_dollars(a.opening_cash))}}));
    }
    persons.append(dict_of({{"person_id", nb::cast(person.person_id)},
                            {"name", nb::cast(person.name)},
                            {"password", nb::cast(person.password)},
                            {"api_keys", keys},
                            {"simulation_tokens", nb::cast(person.simulation_tokens)},
                            {"accounts", accounts}}));
  }
  return dict_of({{"persons", persons},
                  {"contracts_size", nb::cast(config.contracts.size)},
                  {"contracts_seed", nb::cast(config.contracts.seed)},
                  {"seed", nb::cast(config.seed)},
                  {"synthetic_liquidity", nb::cast(config.synthetic_liquidity)},
                  {"clock_speed", nb::cast(config.clock_speed)},
                  {"max_receive_window_ms", nb::cast(config.max_receive_window_ms)},
                  {"ip_address", nb::cast(config.ip_address)}});
}

nb::dict demo_credentials() {
  auto person = [](std::string_view id, std::string_view password, std::string_view key,
                   std::string_view secret, std::string_view token) {
    return dict_of({{"person_id", nb::cast(std::string(id))},
                    {"password", nb::cast(std::string(password))},
                    {"api_key", nb::cast(std::string(key))},
                    {"api_secret", nb::cast(std::string(secret))},
                    {"simulation_token", nb::cast(std::string(token))}});
  };
  return dict_of({{"demo", person(demo::kPersonId, demo::kPassword, demo::kApiKey, demo::kApiSecret,
                                  demo::kSimulationToken)},
                  {"second", person(demo::kSecondPersonId, demo::kSecondPassword, demo::kSecondApiKey,
                                    demo::kSecondApiSecret, demo::kSecondSimulationToken)}});
}

// Bus and configuration failures become the interpreter's errors with the core's texts.
template <typename F>
auto translating(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (const quorvex::bus::BusError& e) {
    throw nb::builtin_exception(nb::exception_type::runtime_error, e.what());
  } catch (const std::invalid_argument& e) {
    throw nb::value_error(e.what());
  } catch (const std::logic_error& e) {
    throw nb::builtin_exception(nb::exception_type::runtime_error, e.what());
  }
}

}  // namespace

NB_MODULE(_paper, m) {
  m.doc() = "The paper broker: BrokerCore serving an in-process bus, and the paper:// scheme.";
  quorvex::pyglue::init_interpreter();
  nb::set_leak_warnings(false);
  register_paper_scheme();

  nb::class_<PaperBroker>(m, "PaperBroker")
      .def(nb::new_([](nb::handle config) {
             PaperBrokerConfig cfg = config.is_none() ? demo_config() : config_from(config);
             quorvex::pyglue::GilRelease release;
             return translating([&] { return std::make_unique<PaperBroker>(std::move(cfg)); });
           }),
           nb::arg("config").none() = nb::none(),
           "A broker of the given configuration dict (the demo one when None).")
      .def(
          "attach",
          [](PaperBroker& self, const std::string& bus_name, const std::string& vpn, const std::string& user,
             const std::string& password) {
            quorvex::pyglue::GilRelease release;
            translating([&] { self.attach(bus_name, BusLogin{vpn, user, password}); });
          },
          nb::arg("bus_name"), nb::kw_only(), nb::arg("vpn") = "", nb::arg("user") = "",
          nb::arg("password") = "",
          "Serve the in-process bus of that name (clients reach it with inproc://NAME), or the bus at a "
          "host with a scheme (mqtt://HOST:PORT) with that login.")
      .def(
          "close",
          [](PaperBroker& self) {
            quorvex::pyglue::GilRelease release;
            self.close();
          },
          "Stop serving; requests being decided finish first. Idempotent.")
      .def_prop_ro("attached", &PaperBroker::attached)
      .def_prop_ro("bus_name", &PaperBroker::bus_name)
      .def(
          "topics", [](PaperBroker& self) { return self.core().topics(); }, "Every topic the broker serves.");

  m.def("demo_config", &demo_config_dict, "The demo configuration as a dict (API keys as public keys).");
  m.def("demo_credentials", &demo_credentials, "The demo persons' credentials as dicts.");
  m.def("register_paper_scheme", &register_paper_scheme, "Make paper://NAME reachable (done on import).");
  m.attr("DEFAULT_BUS") = std::string(kDefaultPaperBus);
}
