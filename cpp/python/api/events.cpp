// SolaceAPI: session events, published messages and point-to-point order reports, and the
// user handlers they reach.
#include "api.hpp"

namespace quorvex::api {
namespace {

// Hands the error being propagated to an entered catcher's __exit__; re-raises it unless
// the catcher suppressed it.
void exit_with_error(nb::handle catcher, nb::python_error& e) {
  // Before 3.12 an error raised from C holds a bare message until normalized; the catcher
  // formats an exception instance.
  e.restore();
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback) PyException_SetTraceback(value, traceback);
  nb::object error_type = nb::steal(type), error = nb::steal(value);
  nb::object error_traceback = traceback ? nb::steal(traceback) : nb::none();
  nb::object suppressed = catcher.attr(QV_NAME("__exit__"))(error_type, error, error_traceback);
  if (!truthy(suppressed)) {
    PyErr_Restore(error_type.release().ptr(), error.release().ptr(),
                  traceback ? error_traceback.release().ptr() : nullptr);
    throw nb::python_error();
  }
}

bool is_library_logger(nb::handle logger) {
  static PyObject* const library_logger =
      nb::getattr(nb::module_::import_("loguru"), "logger").release().ptr();
  return logger.ptr() == library_logger;
}

// Calls `self.<handler>(args...)` inside a fresh `logger.catch()` of the logging library: an
// error, including a missing or non-callable handler, is logged with its traceback and
// swallowed, so it never reaches the messaging thread.
// Making the library's catcher costs about 20 us (it builds a class), far more than routing
// a quote, and an entered one does nothing until an error leaves it; so with the library's
// own logger the catcher is made and entered only once the handler has raised. Any other
// `logger` (a substitute) gets its catcher made, entered and left around every call.
template <typename... Args>
void call_caught(nb::handle self, nb::handle handler, Args&&... args) {
  nb::object logger = module_attr(QV_NAME("logger"));
  if (is_library_logger(logger)) {
    try {
      attr(self, handler)(std::forward<Args>(args)...);
    } catch (nb::python_error& e) {
      nb::object catcher = logger.attr(QV_NAME("catch"))();
      catcher.attr(QV_NAME("__enter__"))();
      exit_with_error(catcher, e);
    }
    return;
  }
  nb::object catcher = logger.attr(QV_NAME("catch"))();
  catcher.attr(QV_NAME("__enter__"))();
  try {
    attr(self, handler)(std::forward<Args>(args)...);
  } catch (nb::python_error& e) {
    exit_with_error(catcher, e);
    return;
  }
  catcher.attr(QV_NAME("__exit__"))(nb::none(), nb::none(), nb::none());
}

// Order-report topic words, tried in this order as suffixes: the longer words come first so
// that "TFT_ORDER" is not taken for "ORDER" nor "FORDER" for "ORDER".
struct ReportWord {
  const char* word;
  const char* state;
};
constexpr ReportWord kReportWords[] = {
    {"TFT_ORDER", "TFTOrder"}, {"TFT_DEAL", "TFTDeal"}, {"FORDER", "FOrder"},
    {"FDEAL", "FDeal"},        {"ORDER", "Order"},      {"DEAL", "Deal"},
};

bool ends_with(nb::handle topic, const char* word) {
  if (PyUnicode_CheckExact(topic.ptr())) {
    const Py_ssize_t r = PyUnicode_Tailmatch(topic.ptr(), interned(word).ptr(), 0, PY_SSIZE_T_MAX, +1);
    if (r < 0) throw nb::python_error();
    return r == 1;
  }
  return truthy(topic.attr("endswith")(word));
}

}  // namespace

void define_events(ApiClass& api) {
  api.method(
      "on_msg_wrap",
      [](nb::handle self, nb::handle topic, nb::handle msg) {
        call_caught(self, QV_NAME("on_quote_wrap"), topic, msg);
      },
      nb::arg("topic"), nb::arg("msg"));

  api.method(
      "on_event_wrap",
      [](nb::handle self, nb::handle resp_code, nb::handle event_code, nb::handle info, nb::handle event) {
        call_caught(self, QV_NAME("on_event_callback"), resp_code, event_code, info, event);
      },
      nb::arg("resp_code"), nb::arg("event_code"), nb::arg("info"), nb::arg("event"));

  api.method("on_session_down_wrap",
             [](nb::handle self) { call_caught(self, QV_NAME("on_session_down_callback")); });

  api.method(
      "set_msg_callback",
      [](nb::handle self, nb::handle func) {
        set_attr(self, "on_msg_callback", func);
        attr(self, "session").attr("set_msg_callback")(attr(self, "on_msg_wrap"));
      },
      nb::arg("func"));

  api.method(
      "set_event_callback",
      [](nb::handle self, nb::handle func) {
        set_attr(self, "on_event_callback", func);
        attr(self, "session").attr("set_event_callback")(attr(self, "on_event_wrap"));
      },
      nb::arg("func"));

  api.method(
      "set_session_down_callback",
      [](nb::handle self, nb::handle func) {
        set_attr(self, "on_session_down_callback", func);
        attr(self, "session").attr("set_session_down_callback")(attr(self, "on_session_down_wrap"));
      },
      nb::arg("func"));

  // Decorator forms: register and hand the function back unchanged.
  for (auto [name, setter] :
       {std::pair{"on_quote", "set_quote_callback"}, std::pair{"on_event", "set_event_callback"},
        std::pair{"on_order", "set_order_callback"}}) {
    const char* setter_name = setter;
    api.method(
        name,
        [setter_name](nb::handle self, nb::handle func) -> nb::object {
          attr(self, setter_name)(func);
          return nb::borrow(func);
        },
        nb::arg("func"));
  }

  api.method(
      "set_order_callback",
      [](nb::handle self, nb::handle func) {
        set_attr(self, "on_order_callback", func);
        attr(self, "session").attr("set_p2p_callback")(attr(self, "on_p2p_wrap"));
      },
      nb::arg("func"));

  // Runs on the messaging thread without the catcher: an error in the user's order
  // callback reaches the messaging layer, which logs it.
  api.method(
      "on_p2p_wrap",
      [](nb::handle self, nb::handle topic, nb::handle state) {
        for (const ReportWord& w : kReportWords) {
          if (!ends_with(topic, w.word)) continue;
          if (w.state == std::string("FOrder")) attr(self, "set_forder_ordno")(state);
          nb::object order_state = attr(module_attr(QV_NAME("OrderState")), w.state);
          attr(self, QV_NAME("on_order_wrap"))(order_state, state);
          return;
        }
      },
      nb::arg("topic"), nb::arg("state"));

  api.method(
      "on_order_wrap",
      [](nb::handle self, nb::handle order_state, nb::handle state) {
        attr(self, QV_NAME("on_order_callback"))(order_state, state);
      },
      nb::arg("order_state"), nb::arg("state"));

  api.method(
      "set_forder_ordno",
      [](nb::handle self, nb::handle msg) {
        nb::object order = get(msg, QV_NAME("order"), empty_dict());
        nb::object order_id = get(order, QV_NAME("id"), nb::str(""));
        nb::object trade = get(attr(self, QV_NAME("_trades")), order_id, nb::none());
        if (truthy(trade)) {
          set_attr(attr(trade, "order"), "ordno", get(order, QV_NAME("ordno"), nb::str("")));
        }
      },
      nb::arg("msg"));
}

}  // namespace quorvex::api
