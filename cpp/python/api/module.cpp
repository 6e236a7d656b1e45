// quorvex.backend.solace.api: the module frame. It binds, as module attributes (most on first
// look-up), every name the class uses from other modules, builds SolaceAPI as a plain Python class, and
// lets each service area add its methods.
#include <initializer_list>
#include <map>
#include <string>

#include "api.hpp"

namespace quorvex::api {
namespace {

// The client library's modules, searched in this order for a record, enumeration or helper.
constexpr const char* kLibraryModules[] = {
    "quorvex.constant", "quorvex.account", "quorvex.contracts", "quorvex.order", "quorvex.position",
    "quorvex.data",     "quorvex.reserve", "quorvex.error",     "quorvex.utils",
};

// Names bound on first look-up (the module's __getattr__), each with the module to take it
// from: the records and their validation library are imported when a call first needs them,
// not by `import quorvex.backend.solace.api`. Once bound, a name is a plain module attribute
// that tests may replace. A null source means the client library's modules, searched in
// order; an empty one, the module of that name itself.
std::map<std::string, const char*>& deferred_names() {
  static auto* names = new std::map<std::string, const char*>();  // lives to the end
  return *names;
}

void defer_library_names(std::initializer_list<const char*> names) {
  for (const char* name : names) deferred_names()[name] = nullptr;
}

void defer_from(const char* source, std::initializer_list<const char*> names) {
  for (const char* name : names) deferred_names()[name] = source;
}

nb::object bind_name(nb::handle module, const std::string& name, nb::object value) {
  nb::setattr(module, name.c_str(), value);
  return value;
}

// The module's __getattr__: binds a deferred name from its module.
nb::object resolve_deferred(nb::handle module, const std::string& name) {
  const auto found = deferred_names().find(name);
  if (found == deferred_names().end()) {
    PyErr_Format(PyExc_AttributeError, "module 'quorvex.backend.solace.api' has no attribute '%s'",
                 name.c_str());
    throw nb::python_error();
  }
  const char* source = found->second;
  if (source != nullptr && *source == '\0')
    return bind_name(module, name, nb::module_::import_(name.c_str()));
  if (source != nullptr)
    return bind_name(module, name, nb::getattr(nb::module_::import_(source), name.c_str()));
  for (const char* library : kLibraryModules) {
    nb::object mod = nb::module_::import_(library);
    if (nb::hasattr(mod, name.c_str())) return bind_name(module, name, nb::getattr(mod, name.c_str()));
  }
  PyErr_Format(PyExc_ImportError, "cannot import name '%s' from the client library (quorvex)", name.c_str());
  throw nb::python_error();
}

void import_from(nb::module_& m, const char* source, std::initializer_list<const char*> names) {
  nb::object mod = nb::module_::import_(source);
  for (const char* name : names) nb::setattr(m, name, nb::getattr(mod, name));
}

void import_modules(nb::module_& m) {
  defer_library_names({"Account",
                       "AccountType",
                       "FutureAccount",
                       "StockAccount",
                       "TraceLog",
                       "Exchange",
                       "OrderState",
                       "QuoteType",
                       "QuoteVersion",
                       "SecurityType",
                       "Unit",
                       "ScannerType",
                       "TicksQueryType",
                       "BaseContract",
                       "ComboContract",
                       "Contract",
                       "Contracts",
                       "FetchStatus",
                       "Future",
                       "Index",
                       "Option",
                       "Stock",
                       "get_product_contracts",
                       "Status",
                       "TokenError",
                       "TimeoutError",
                       "log",
                       "raise_resp_error"});
  import_from(m, "quorvex._version", {"__version__"});
  defer_from("quorvex.backend.solace.utils",
             {"convert_ts", "intraday_odd_quo_convert", "intraday_odd_tic_convert", "login_check",
              "Base58Encoder", "base58", "ScannerCountLimit", "dump_contracts_file", "new_contracts"});
  defer_from("loguru", {"logger"});
  defer_from("nacl.signing", {"SigningKey"});
  defer_from("", {"msgpack"});  // the module itself
  m.attr("__getattr__") = nb::cpp_function(
      [module = nb::handle(m)](nb::str name) {
        // An import may run while the interpreter shuts down; a thread ended inside it is parked.
        return quorvex::pyglue::parking_on_exit([&] { return resolve_deferred(module, name.c_str()); });
      },
      nb::name("__getattr__"), nb::arg("name"));
  for (const char* name : {"atexit", "datetime", "hashlib", "ipaddress", "typing", "time"}) {
    m.attr(name) = nb::module_::import_(name);
  }
  import_from(m, "functools", {"partial"});
  import_from(m, "pathlib", {"Path"});

  // The session class. A build without the messaging binding still imports; constructing
  // SolaceAPI then says why no session can be made.
  try {
    import_from(m, "pymqlink", {"SolClient"});
  } catch (nb::python_error& e) {
    if (!e.matches(PyExc_ImportError) && !e.matches(PyExc_AttributeError)) throw;
    nb::object reason = nb::str(e.value());
    m.attr("SolClient") = nb::cpp_function(
        [reason]() -> nb::object {
          throw nb::import_error(("the messaging binding pymqlink.SolClient is not available: " +
                                  std::string(nb::str(reason).c_str()))
                                     .c_str());
        },
        nb::name("SolClient"));
  }
}

}  // namespace

void import_names(ApiClass& /*api*/, std::initializer_list<const char*> names) { defer_library_names(names); }

void ApiClass::install(const char* name, nb::handle impl, const std::vector<Parameter>& params,
                       bool as_property) {
  // def <name>(self, a, b=__d1, ...): return __impl(self, a, b, ...)
  std::string signature = "self";
  std::string call = "self";
  nb::dict scope;
  scope["__name__"] = nb::getattr(module_, "__name__");
  scope["__builtins__"] = nb::module_::import_("builtins");
  scope["__impl"] = impl;
  for (std::size_t i = 0; i < params.size(); ++i) {
    const Parameter& p = params[i];
    signature += ", " + p.name;
    call += ", " + p.name;
    if (p.dflt.is_valid()) {
      const std::string slot = "__d" + std::to_string(i);
      scope[slot.c_str()] = p.dflt;
      signature += "=" + slot;
    }
  }
  const std::string source =
      "def " + std::string(name) + "(" + signature + "):\n    return __impl(" + call + ")\n";
  nb::object builtins = nb::module_::import_("builtins");
  nb::object code = builtins.attr("compile")(nb::str(source.c_str()), "<quorvex.backend.solace.api>", "exec");
  builtins.attr("exec")(code, scope);
  nb::object fn = scope[name];
  nb::setattr(fn, "__qualname__", nb::str(("SolaceAPI." + std::string(name)).c_str()));
  if (as_property) fn = builtins.attr("property")(fn);
  nb::setattr(cls_, name, fn);
}

}  // namespace quorvex::api

NB_MODULE(api, m) {
  using namespace quorvex::api;
  nb::set_leak_warnings(false);
  m.doc() = "The message-bus backend of the client library: SolaceAPI and its service methods.";
  set_module(m);
  import_modules(m);

  nb::object builtins = nb::module_::import_("builtins");
  nb::dict ns;
  ns["__module__"] = nb::str("quorvex.backend.solace.api");
  ns["__qualname__"] = nb::str("SolaceAPI");
  ns["__doc__"] = nb::str(
      "One session to the broker's service bus and one method per service: logins, contract "
      "download, orders, account queries, reservations, market data and quote subscriptions.");
  nb::object cls = builtins.attr("type")("SolaceAPI", nb::make_tuple(), ns);
  m.attr("SolaceAPI") = cls;

  ApiClass api(m, cls);
  define_frame(api);
  define_events(api);
  define_session(api);
  define_signing(api);
  define_market_data(api);
  define_contracts(api);
  define_orders(api);
  define_accounts(api);
  define_reserve(api);
  // The methods' docstrings are one table of texts, so that help(SolaceAPI) shows them.
  nb::module_::import_("quorvex.backend.solace._docs").attr("attach")(cls);
}
