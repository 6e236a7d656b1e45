// Shared pieces of the SolaceAPI extension module.
//
// SolaceAPI is an ordinary Python class (built with type()) whose methods are C++
// functions. Every method works on `self` through Python attribute access, so
// instance attributes stay readable and replaceable from Python, and every name
// taken from another module is read from the api module at the moment of use
// (`module_attr`), so tests can substitute it.
#pragma once

#include <nanobind/nanobind.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "glue.hpp"

namespace quorvex::api {

namespace nb = nanobind;
using namespace nb::literals;

// An interned Python string made once per use site: attribute names and keys on hot paths.
#define QV_NAME(lit)                                              \
  ([]() -> ::nanobind::handle {                                   \
    static PyObject* interned_ = PyUnicode_InternFromString(lit); \
    return interned_;                                             \
  }())

// ---- the class under construction ------------------------------------------------

namespace detail {
template <typename T>
struct callable_arity : callable_arity<decltype(&T::operator())> {};
template <typename C, typename R, typename... A>
struct callable_arity<R (C::*)(A...) const> : std::integral_constant<std::size_t, sizeof...(A)> {};
template <typename C, typename R, typename... A>
struct callable_arity<R (C::*)(A...)> : std::integral_constant<std::size_t, sizeof...(A)> {};

const char* positional_name(std::size_t index);

// The C++ side of a method: positional parameters that accept any object, None included
// (nanobind refuses None for an unannotated parameter).
template <std::size_t>
using handle_at = nb::handle;

// Each method parks its thread if the interpreter ends it inside (see parking_on_exit).
template <typename Func, std::size_t... I>
nb::object positional_function(Func&& f, const char* name, std::index_sequence<I...>) {
  auto guarded = [f = std::forward<Func>(f)](handle_at<I>... args) -> decltype(auto) {
    return quorvex::pyglue::parking_on_exit([&]() -> decltype(auto) { return f(args...); });
  };
  return nb::cpp_function(std::move(guarded), nb::name(name), nb::arg(positional_name(I)).none()...);
}
template <typename Func>
nb::object positional_function(Func&& f, const char* name) {
  constexpr std::size_t n = callable_arity<std::decay_t<Func>>::value;
  return positional_function(std::forward<Func>(f), name, std::make_index_sequence<n>{});
}
}  // namespace detail

// What each service area receives to add its methods and properties to SolaceAPI.
//
// A method's behaviour is a C++ function taking `nb::handle self` and then one handle per
// parameter. The class attribute is a small generated Python function with the method's
// real signature and defaults that forwards positionally to it, so SolaceAPI has the
// signatures, default objects, argument errors and binding of an ordinary Python class.
class ApiClass {
 public:
  ApiClass(nb::module_ module, nb::object cls) : module_(std::move(module)), cls_(std::move(cls)) {}

  const nb::module_& module() const { return module_; }
  const nb::object& cls() const { return cls_; }

  // Adds a method. `params` names the parameters after self, in order: nb::arg("cb") for
  // a required one, nb::arg("timeout") = 5000 for one with a default (the object given is
  // the default itself, shared by all calls).
  template <typename Func, typename... Params>
  void method(const char* name, Func&& f, const Params&... params) {
    std::vector<Parameter> list;
    (add_parameter(list, params), ...);
    install(name, detail::positional_function(std::forward<Func>(f), name), list, false);
  }

  // Adds a read-only property; `getter` takes `nb::handle self`.
  template <typename Func>
  void property(const char* name, Func&& getter) {
    install(name, detail::positional_function(std::forward<Func>(getter), name), {}, true);
  }

 private:
  struct Parameter {
    std::string name;
    nb::object dflt;  // not valid when the parameter is required
  };
  static void add_parameter(std::vector<Parameter>& list, const nb::arg_v& a) {
    list.push_back({a.name_, a.value});
  }
  static void add_parameter(std::vector<Parameter>& list, const nb::arg& a) { list.push_back({a.name_, {}}); }
  void install(const char* name, nb::handle impl, const std::vector<Parameter>& params, bool as_property);

  nb::module_ module_;
  nb::object cls_;
};

// Service areas, one file each. The module calls them in this order.
void define_frame(ApiClass& api);        // construction, topics, default handlers (frame.cpp)
void define_events(ApiClass& api);       // session events, messages, order events (events.cpp)
void define_session(ApiClass& api);      // logins, logout, trace log (session.cpp)
void define_signing(ApiClass& api);      // certificates (signing.cpp)
void define_market_data(ApiClass& api);  // quotes, history, snapshots, scanners (market_data.cpp)
void define_contracts(ApiClass& api);    // contract download (contracts.cpp)
void define_orders(ApiClass& api);       // orders, trade book, combination orders (orders.cpp)
void define_accounts(ApiClass& api);     // balance, margin, settlements, positions, P&L (accounts.cpp)
void define_reserve(ApiClass& api);      // reservation and earmarking (reserve.cpp)

// Binds more client-library names as module attributes (searched in quorvex.constant,
// .account, .contracts, .order, .position, .data, .reserve, .error, .utils); a service area
// calls this for the records it uses.
void import_names(ApiClass& api, std::initializer_list<const char*> names);

// ---- Python semantics in C++ -------------------------------------------------------

// A new reference from the C API as an object; the pending Python error raised when it is null.
inline nb::object checked(PyObject* result) {
  if (!result) throw nb::python_error();
  return nb::steal(result);
}

// obj.<name>, fetched now. Use this (or nb::getattr) for every value passed on to a call:
// nanobind converts call arguments in noexcept code, so a lazy `obj.attr(...)` accessor
// whose lookup fails there ends the process instead of raising AttributeError.
// A name given as a C string (a literal or an entry of a static table) as an interned str,
// made once per name: the interpreter caches attribute lookups only for interned names.
nb::handle interned(const char* name);

inline nb::object attr(nb::handle obj, nb::handle name) { return nb::getattr(obj, name); }
inline nb::object attr(nb::handle obj, const char* name) { return nb::getattr(obj, interned(name)); }
// obj.<name> = value
inline void set_attr(nb::handle obj, const char* name, nb::handle value) {
  if (PyObject_SetAttr(obj.ptr(), interned(name).ptr(), value.ptr()) != 0) throw nb::python_error();
}

// The api module's attribute `name`, read now (so a substitute set by a test is seen).
nb::object module_attr(nb::handle name);
inline nb::object module_attr(const char* name) { return module_attr(interned(name)); }
void set_module(nb::handle module);
// A builtin (`print`, `sum`) as module code sees it: the api module's attribute of that name
// when one is set (a test's substitute), else the interpreter's own.
nb::object builtin(nb::handle name);

// mapping.get(key, default), with a fast path for exact dicts; any other object is asked
// for its `get` method, so None fails with the interpreter's own AttributeError.
nb::object get(nb::handle mapping, nb::handle key, nb::handle dflt);
inline nb::object get(nb::handle mapping, const char* key, nb::handle dflt) {
  return get(mapping, nb::handle(nb::str(key)), dflt);
}
// dict.pop(key, default) and dict.pop(key) (KeyError when missing).
nb::object pop(nb::handle mapping, nb::handle key, nb::handle dflt);
nb::object pop(nb::handle mapping, nb::handle key);
void set_item(nb::handle mapping, nb::handle key, nb::handle value);

bool truthy(nb::handle obj);
bool equals(nb::handle obj, long value);
bool equals(nb::handle a, nb::handle b);
nb::object empty_dict();
nb::object empty_list();

// callable(**fields): a dict is passed as it stands, any other mapping is copied first, and
// anything else is a TypeError naming the callable, as the interpreter's own `**` would be.
nb::object call_with_fields(nb::handle callable, nb::handle fields);
// [cls(**row) for row in rows], as a new list.
nb::list records_from(nb::handle cls, nb::handle rows);

// ---- the library's records (records.cpp) ------------------------------------------

// record.dict(): for the library's own records built from the instance's fields (the same
// dict, at a fraction of the serializer's cost); any other object is asked for its dict().
nb::object record_dict(nb::handle record);
// A library record's fields as a new dict with nested records left as records (a shallow
// dict()); an invalid object for anything else.
nb::object record_fields(nb::handle record);
// True when the dict `fields` holds exactly a library record's fields with equal values
// (nested dicts compared with nested records field by field).
bool same_fields(nb::handle record, nb::handle fields);
// record.<name> = value, stored without revalidation when the record is a library record whose
// field has no validator and the value is of the same class as the field's current value (the
// assignment's validation would pass it through unchanged).
void set_field(nb::handle record, const char* name, nb::handle value);

// `fmt`.format(args...) with Python's str.format.
template <typename... Args>
nb::object format(const char* fmt, Args&&... args) {
  return nb::str(fmt).attr("format")(std::forward<Args>(args)...);
}

// The reply's status.status_code, 0 where either is absent.
nb::object status_code_of(nb::handle resp);
inline bool is_ok(nb::handle status_code) { return equals(status_code, 200); }

// raise_resp_error(status_code, resp, self.session), looked up in the module now.
void raise_resp_error(nb::handle self, nb::handle status_code, nb::handle resp);

// `log.error(msg)` (the client library's logger) and `logger.warning(msg)` (loguru).
void log_error(nb::handle msg);
void logger_warning(nb::handle msg);

// Refuses an argument that is neither None nor an instance of `type` with a TypeError in the
// interpreter's words for a typed parameter, e.g. "Argument 'corrid' has incorrect type
// (expected str, got int)". Checks run before a method does anything else.
void check_arg_type(nb::handle value, const char* name, PyTypeObject* type);

// Writes "Simulation not support {method} yet" through logger.warning and returns true when
// the instance runs in simulation; returns false otherwise.
bool refuse_in_simulation(nb::handle self, const char* method);

// datetime.datetime.now().strftime(fmt), through the module's `datetime`.
nb::object local_now_text(const char* fmt);

// ---- the request/reply exchange shared by the queries ------------------------------

// self.session._gen_reqid()
nb::object new_corrid(nb::handle self);

// self.session.request(topic, payload, corrid=corrid, timeout=timeout, cb=handler)
nb::object send_request(nb::handle self, nb::handle topic, nb::handle payload, nb::handle corrid,
                        nb::handle timeout, nb::handle handler);

// One query's topic attribute and reply handler attribute, e.g.
// {"account_balance_topic", "_account_balance_cb"}.
struct Query {
  const char* topic_attr;
  const char* handler_attr;
};

// The common sequence once the payload and correlation id exist: register `cb` under the
// id when non-blocking, store the placeholder made by `make_placeholder` in _reqrep, send
// with the query's handler, run the handler at once on the returned reply when blocking,
// and return the placeholder. The placeholder is stored before the send so that a reply
// handled on the messaging thread before request() returns still finds it, and taken back
// out when the send raises, since no reply will come for it.
nb::object send_query(nb::handle self, const Query& query, nb::handle corrid, nb::handle payload,
                      nb::handle timeout, nb::handle cb, const std::function<nb::object()>& make_placeholder);

// The first steps of a reply handler: take the caller's callback out of
// _rep_callback_map (None when absent), read the status code, take the placeholder out of
// _reqrep (KeyError when absent).
struct Reply {
  nb::object cb;
  nb::object status_code;
  nb::object result;
  bool ok() const { return is_ok(status_code); }
  // The last step: cb(result) when a callback was registered.
  void call_back() const;
};
Reply begin_reply(nb::handle self, nb::handle corrid, nb::handle resp);

}  // namespace quorvex::api
