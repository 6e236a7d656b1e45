// SolaceAPI: password, token and simulation logins, logout, trade-report switch, error
// tracking and the trace log.
#include "api.hpp"

namespace quorvex::api {
namespace {

// The format of the login-time client name and of its time part (UTC).
constexpr const char* kLoginClientName = "PYAPI/{}/{}/LOGINING";
constexpr const char* kClientNameTime = "%m%d/%H%M%S/%f";

// How the interpreter names a callable in argument errors: "Account()", "SolClient.connect()".
std::string callable_name(nb::handle fn) {
  if (nb::hasattr(fn, "__qualname__")) return std::string(nb::str(attr(fn, "__qualname__")).c_str()) + "()";
  return std::string(PyEval_GetFuncName(fn.ptr())) + PyEval_GetFuncDesc(fn.ptr());
}

// fn(**mapping, **extra), with the interpreter's own errors for a non-mapping and for a
// keyword given twice.
nb::object call_with_mapping(nb::handle fn, nb::handle mapping, nb::handle extra = nb::handle()) {
  nb::dict kwargs;
  if (!PyDict_Check(mapping.ptr()) && !nb::hasattr(mapping, "keys")) {
    PyErr_Format(PyExc_TypeError, "%.200s argument after ** must be a mapping, not %.200s",
                 callable_name(fn).c_str(), Py_TYPE(mapping.ptr())->tp_name);
    throw nb::python_error();
  }
  if (PyDict_Merge(kwargs.ptr(), mapping.ptr(), 1) != 0) throw nb::python_error();
  if (extra.is_valid()) {
    for (auto [key, value] : nb::borrow<nb::dict>(extra)) {
      if (PyDict_Contains(kwargs.ptr(), key.ptr()) == 1) {
        PyErr_Format(PyExc_TypeError, "%.200s got multiple values for keyword argument '%U'",
                     callable_name(fn).c_str(), key.ptr());
        throw nb::python_error();
      }
      kwargs[key] = value;
    }
  }
  return checked(PyObject_Call(fn.ptr(), nb::tuple().ptr(), kwargs.ptr()));
}

// Opens a fresh bus connection under the provisional login name; the service replaces the
// name once the login is accepted.
void connect(nb::handle self, nb::handle who, nb::handle now_text) {
  nb::dict extra;
  extra["clientname"] = format(kLoginClientName, who, now_text);
  nb::object connect_fn = attr(self, QV_NAME("session")).attr("connect");
  call_with_mapping(connect_fn, attr(self, "__sol_setup__"), extra);
}

// datetime.datetime.now(datetime.timezone.utc), through the module's `datetime` so that a
// test can freeze the clock.
nb::object utc_now() {
  nb::object datetime_module = module_attr(QV_NAME("datetime"));
  nb::object utc = attr(attr(datetime_module, "timezone"), "utc");
  return datetime_module.attr("datetime").attr("now")(utc);
}

nb::object request(nb::handle self, const char* topic_attr, nb::handle payload) {
  return attr(self, QV_NAME("session")).attr(QV_NAME("request"))(attr(self, topic_attr), payload);
}

nb::object response_of(nb::handle resp) { return get(resp, QV_NAME("response"), empty_dict()); }

// The first account of each kind in the service's order becomes the default for orders
// and queries that name no account.
void choose_default_accounts(nb::handle self) {
  nb::object stock_cls = module_attr(QV_NAME("StockAccount"));
  nb::object future_cls = module_attr(QV_NAME("FutureAccount"));
  nb::object stock = nb::none();
  nb::object future = nb::none();
  for (nb::handle account : attr(self, "accounts")) {
    const int is_stock = PyObject_IsInstance(account.ptr(), stock_cls.ptr());
    const int is_future = PyObject_IsInstance(account.ptr(), future_cls.ptr());
    if (is_stock < 0 || is_future < 0) throw nb::python_error();
    if (is_stock && stock.is_none()) stock = nb::borrow(account);
    if (is_future && future.is_none()) future = nb::borrow(account);
  }
  nb::setattr(self, "default_stock_account", stock);
  nb::setattr(self, "default_futopt_account", future);
}

// What every kind of login does with the reply. A refusal closes the connection before
// the error is raised, so a failed login leaves nothing open. An accepted reply installs
// the accounts, the public address, the token (unless the caller installed one before
// sending) and the service's client name. Returns the reply's `response`.
nb::object accept_login(nb::handle self, nb::handle resp, nb::handle status_code, bool install_token) {
  nb::object session = attr(self, QV_NAME("session"));
  if (!is_ok(status_code)) {
    session.attr("disconnect")();
    raise_resp_error(self, status_code, resp);
    // Only a substituted raise_resp_error returns here; the login then has no result.
    PyErr_SetString(PyExc_UnboundLocalError,
                    "local variable 'contract_download' referenced before assignment");
    throw nb::python_error();
  }
  nb::object response = response_of(resp);
  nb::object account_cls = module_attr(QV_NAME("Account"));
  nb::list accounts;
  for (nb::handle fields : get(response, "accounts", empty_list())) {
    accounts.append(call_with_mapping(account_cls, fields).attr("astype")());
  }
  nb::setattr(self, "accounts", accounts);
  nb::object token = get(response, "token", nb::str(""));
  nb::object client_name = get(response, "client_name", nb::str(""));
  nb::setattr(self, "_public_ip", get(response, "ip_address", nb::str("0.0.0.0")));
  if (install_token) session.attr("set_session")(token);
  if (truthy(client_name)) session.attr("set_client_name")(client_name);
  choose_default_accounts(self);
  return response;
}

nb::object hash_password(nb::handle password, nb::handle hashed) {
  if (truthy(hashed)) return nb::borrow(password);
  nb::object digest = module_attr(QV_NAME("hashlib")).attr("md5")(password.attr("encode")("utf-8"));
  return digest.attr("hexdigest")();
}

// SigningKey(secret_key.encode(), encoder=Base58Encoder). The failure names what was
// expected and never shows the secret itself.
nb::object signing_key_of(nb::handle secret_key) {
  if (secret_key.is_none()) {
    PyErr_SetString(PyExc_TypeError,
                    "the secret key is missing; expected the Base58 text of a 32-byte Ed25519 seed");
    throw nb::python_error();
  }
  try {
    return module_attr(QV_NAME("SigningKey"))(secret_key.attr("encode")(),
                                              "encoder"_a = module_attr(QV_NAME("Base58Encoder")));
  } catch (nb::python_error& e) {
    if (!e.matches(PyExc_ValueError) && !e.matches(PyExc_TypeError)) throw;
    nb::object kind = nb::borrow(e.type());
    nb::raise_from(e, kind,
                   "the secret key is not usable (%s); expected the Base58 text of a 32-byte Ed25519 seed",
                   nb::str(e.value()).c_str());
  }
}

nb::object b58_text(nb::handle data) {
  return module_attr(QV_NAME("base58")).attr("b58encode")(data).attr("decode")("utf-8");
}

nb::object trace_record(nb::handle self, nb::handle account, const char* action, nb::handle func_content,
                        const char* result) {
  return module_attr(QV_NAME("TraceLog"))(
      "person_id"_a = attr(self, "_person_id"), "account"_a = account, "ip"_a = attr(self, "_public_ip"),
      "action"_a = action, "func"_a = action, "func_content"_a = func_content, "result"_a = result);
}

nb::object value_of(nb::handle member) { return attr(member, "value"); }

}  // namespace

void define_session(ApiClass& api) {
  api.method(
      "login",
      [](nb::handle self, nb::handle person_id, nb::handle password, nb::handle hashed,
         nb::handle subscribe_trade) -> nb::object {
        check_arg_type(person_id, "person_id", &PyUnicode_Type);
        check_arg_type(password, "password", &PyUnicode_Type);
        nb::setattr(self, "_person_id", person_id);
        nb::object now_text = utc_now().attr("strftime")(kClientNameTime);
        connect(self, person_id, now_text);
        nb::setattr(self, "hash_password", hash_password(password, hashed));

        nb::dict payload;
        payload["person_id"] = person_id;
        payload["password"] = attr(self, "hash_password");
        payload["simulation"] = attr(self, "_simulation");
        payload["hashed"] = true;
        payload["version"] = module_attr(QV_NAME("__version__"));
        payload["subscribe_trade"] = subscribe_trade;
        nb::object resp = request(self, "login_topic", payload);
        nb::object status_code = status_code_of(resp);
        module_attr(QV_NAME("login_check"))(person_id);

        nb::object response = accept_login(self, resp, status_code, true);
        return nb::make_tuple(attr(self, "accounts"), get(response, "contract_download", nb::bool_(false)),
                              get(response, "web_token", nb::str("")));
      },
      nb::arg("person_id"), nb::arg("password"), nb::arg("hashed") = false,
      nb::arg("subscribe_trade") = true);

  api.method("list_accounts", [](nb::handle self) { return attr(self, "accounts"); });

  api.method(
      "subscribe_trade",
      [](nb::handle self, nb::handle account, nb::handle subscribe_trade) -> nb::object {
        nb::dict payload;
        payload["account"] = account.attr("dict")();
        payload["subscribe_trade"] = subscribe_trade;
        payload["version"] = module_attr(QV_NAME("__version__"));
        nb::object resp = request(self, "subscribe_trade_topic", payload);
        nb::object status_code = status_code_of(resp);
        if (is_ok(status_code)) return nb::bool_(true);
        raise_resp_error(self, status_code, resp);
        return nb::none();
      },
      nb::arg("account"), nb::arg("subscribe_trade"));

  api.method(
      "error_tracking",
      [](nb::handle self, nb::handle person_id) -> nb::object {
        nb::setattr(self, "_person_id", person_id);
        nb::dict payload;
        payload["person_id"] = person_id;
        nb::object resp = request(self, "error_tracking_topic", payload);
        return get(response_of(resp), "error_tracking", nb::bool_(true));
      },
      nb::arg("person_id"));

  api.method(
      "token_login",
      [](nb::handle self, nb::handle key, nb::handle secret_key, nb::handle subscribe_trade,
         nb::handle receive_window) -> nb::object {
        check_arg_type(key, "key", &PyUnicode_Type);
        check_arg_type(secret_key, "secret_key", &PyUnicode_Type);
        nb::object now = utc_now();
        nb::object ts = now.attr("timestamp")();
        connect(self, key, now.attr("strftime")(kClientNameTime));

        // The service checks the signature over these exact bytes, so the key order and
        // the float time stamp are part of the contract.
        nb::dict document;
        document["key"] = key;
        document["simulation"] = attr(self, "_simulation");
        document["version"] = module_attr(QV_NAME("__version__"));
        document["source"] = "pyqv";
        document["subscribe_trade"] = subscribe_trade;
        document["receive_window"] = receive_window;
        document["ts"] = ts;

        nb::object signing_key = signing_key_of(secret_key);
        nb::object login_msgp = module_attr(QV_NAME("msgpack")).attr("dumps")(document);
        nb::object signed_message = signing_key.attr("sign")(login_msgp);
        // sign() returns the 64-byte signature followed by the message; only the signature travels.
        nb::object signature = checked(PySequence_GetSlice(signed_message.ptr(), 0, 64));

        nb::dict payload;
        payload["msg"] = b58_text(login_msgp);
        payload["sign"] = b58_text(signature);
        nb::object resp = request(self, "token_login_topic", payload);
        nb::object status_code = status_code_of(resp);

        nb::object response = accept_login(self, resp, status_code, true);
        return nb::make_tuple(attr(self, "accounts"), get(response, "contract_download", nb::bool_(false)),
                              get(response, "person_id", nb::str("")));
      },
      nb::arg("key"), nb::arg("secret_key"), nb::arg("subscribe_trade"), nb::arg("receive_window"));

  api.method(
      "simulation_login",
      [](nb::handle self, nb::handle token, nb::handle person_id, nb::handle subscribe_trade) -> nb::object {
        check_arg_type(token, "token", &PyUnicode_Type);
        check_arg_type(person_id, "person_id", &PyUnicode_Type);
        nb::setattr(self, "_person_id", person_id);
        connect(self, person_id, utc_now().attr("strftime")(kClientNameTime));
        // The caller's token authenticates the login request itself.
        attr(self, QV_NAME("session")).attr("set_session")(token);

        nb::dict payload;
        payload["subscribe_trade"] = subscribe_trade;
        nb::object resp = request(self, "simulation_login_topic", payload);
        nb::object status_code = status_code_of(resp);

        nb::object response = accept_login(self, resp, status_code, false);
        return nb::make_tuple(attr(self, "accounts"), get(response, "contract_download", nb::bool_(false)));
      },
      nb::arg("token"), nb::arg("person_id"), nb::arg("subscribe_trade") = true);

  // Also the interpreter exit hook: without a token there is no session to end.
  api.method("logout", [](nb::handle self) -> nb::object {
    nb::object session = attr(self, QV_NAME("session"));
    if (!truthy(attr(session, "_token"))) return nb::bool_(true);
    nb::object resp = request(self, "logout_topic", nb::dict());
    status_code_of(resp);  // a refused logout still ends the session here
    session.attr("disconnect")();
    session.attr("set_session")("");
    return nb::bool_(true);
  });

  api.method(
      "trace_log",
      [](nb::handle self, nb::handle trade) {
        // The first order report of a process is preceded by the login record.
        if (equals(attr(self, "_prev_trace_log_ts"), nb::float_(0.0))) {
          attr(self, "_trace_log")(trace_record(self, nb::none(), "login", nb::dict(), "S"));
        }
        nb::object now = module_attr(QV_NAME("time")).attr("time")();
        nb::object elapsed = checked(PyNumber_Subtract(now.ptr(), attr(self, "_prev_trace_log_ts").ptr()));
        const int too_soon = PyObject_RichCompareBool(elapsed.ptr(), nb::int_(1).ptr(), Py_LT);
        if (too_soon < 0) throw nb::python_error();
        if (too_soon) return;  // at most one order report per second

        nb::object contract = attr(trade, "contract");
        nb::object order = attr(trade, "order");
        nb::dict content;
        content["code"] = attr(contract, "code");
        content["action"] = value_of(attr(order, "action"));
        content["price"] = attr(order, "price");
        content["quantity"] = attr(order, "quantity");
        content["price_type"] = value_of(attr(order, "price_type"));
        content["order_type"] = value_of(attr(order, "order_type"));
        const bool failed =
            equals(attr(attr(trade, "status"), "status"), attr(module_attr(QV_NAME("Status")), "Failed"));
        nb::object record =
            trace_record(self, attr(order, "account"), "place_order", content, failed ? "F" : "S");
        nb::setattr(self, "_prev_trace_log_ts", now);
        attr(self, "_trace_log")(record);
      },
      nb::arg("trade"));

  api.method(
      "_trace_log",
      [](nb::handle self, nb::handle trace_log) -> nb::object {
        nb::object resp = request(self, "trace_log_topic", trace_log.attr("dict")());
        return get(response_of(resp), "success", nb::bool_(false));
      },
      nb::arg("trace_log"));
}

}  // namespace quorvex::api
