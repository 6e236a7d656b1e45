// pymqlink.SolClient: a bus session for Python callers.
//
// GIL rules: every call into the session releases the GIL first (the session's locks are also
// taken by bus threads), except sends: they only queue the message or hand it to a service,
// and never wait for the GIL under a bus lock, so they keep it, and a blocking request
// releases it for its wait only. The dispatcher thread takes the GIL once per batch of
// deliveries and calls the Python callbacks with it held. The callback fields are read and
// written only with the GIL held, so the GIL is their lock.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <chrono>
#include <cmath>
#include <functional>

#include "interpreter.hpp"
#include "quorvex/bus/session.hpp"
#include "quorvex/core/topic.hpp"
#include "wire.hpp"

namespace pymqlink {
namespace {

namespace bus = quorvex::bus;

// Callers' topics are checked here, so a bad topic is a ValueError before anything is sent.
void check_topic(const std::string& topic) { quorvex::core::check_topic(topic); }

class ClientCallbacks final : public bus::SessionListener {
 public:
  PyRef on_message;        // f(topic, msg)
  PyRef on_p2p;            // f(topic, state)
  PyRef on_event;          // f(resp_code, event_code, info, event)
  PyRef on_session_down;   // f()
  PayloadDecoder decoder;  // used with the GIL held

  void deliver(std::vector<bus::Delivery>& batch, const std::atomic<bool>& stop) override {
    if (!interpreter_alive()) return;
    quorvex::pyglue::GilAcquire gil;
    // A callback the interpreter ends at shutdown parks this thread, inside the GIL's scope.
    quorvex::pyglue::parking_on_exit([&] {
      TopicText topics;
      for (const auto& delivery : batch) {
        if (stop.load(std::memory_order_relaxed)) return;
        deliver_one(delivery, topics);
      }
    });
  }

 private:
  // Consecutive messages often share a topic; its str is made once.
  struct TopicText {
    std::string last;
    nb::object text;
    nb::object of(const std::string& topic) {
      if (!text.is_valid() || topic != last) {
        text =
            nb::steal(PyUnicode_DecodeUTF8(topic.data(), static_cast<Py_ssize_t>(topic.size()), "replace"));
        last = topic;
      }
      return text;
    }
  };

  void deliver_one(const bus::Delivery& d, TopicText& topics) {
    const char* where = "callback";
    try {
      switch (d.kind) {
        case bus::DeliveryKind::Message: {
          where = "message callback";
          nb::object cb = on_message.borrow();
          if (!cb.is_valid()) return;
          nb::object msg = decoder.decode(d.message->payload);
          cb(topics.of(d.message->topic), msg);
          break;
        }
        case bus::DeliveryKind::Direct: {
          where = "point-to-point callback";
          nb::object cb = on_p2p.borrow();
          if (!cb.is_valid()) return;
          nb::object state = decoder.decode(d.message->payload);
          cb(topics.of(d.message->topic), state);
          break;
        }
        case bus::DeliveryKind::Reply: {
          where = "reply callback";
          auto target = std::static_pointer_cast<PyRef>(d.request->context);
          if (!target || !*target) return;
          nb::object cb = target->borrow();
          nb::object reply = decoder.decode(d.message->payload);
          cb(topics.of(d.message->topic), d.request->corrid, reply);
          break;
        }
        case bus::DeliveryKind::Event: {
          where = "event callback";
          nb::object cb = on_event.borrow();
          if (!cb.is_valid()) return;
          cb(d.event->response_code, static_cast<int>(d.event->code), d.event->info,
             bus::event_name(d.event->code));
          break;
        }
        case bus::DeliveryKind::SessionDown: {
          where = "session-down callback";
          nb::object cb = on_session_down.borrow();
          if (!cb.is_valid()) return;
          cb();
          break;
        }
      }
    } catch (nb::python_error& e) {
      e.restore();
      report_callback_error(describe(where, d));
    } catch (const std::exception& e) {
      PyErr_SetString(PyExc_RuntimeError, e.what());
      report_callback_error(describe(where, d));
    }
  }

  static std::string describe(const char* where, const bus::Delivery& d) {
    return d.message ? std::string(where) + " for topic '" + d.message->topic + "'" : std::string(where);
  }
};

class SolClient {
 public:
  SolClient()
      : callbacks_(std::make_shared<ClientCallbacks>()),
        session_(std::make_unique<bus::Session>(callbacks_)) {}

  ~SolClient() {
    // The dispatcher may be waiting for the GIL to finish a delivery; let it.
    GilRelease release;
    session_.reset();
  }

  void connect(const std::string& host, const std::string& vpn, const std::string& user,
               const std::string& password, const std::string& clientname, int connect_timeout_ms,
               int reconnect_retries, int keep_alive_ms, int reconnect_retry_wait, int keep_alive_limit) {
    bus::ConnectOptions o;
    o.host = host;
    o.vpn = vpn;
    o.user = user;
    o.password = password;
    o.client_name = clientname;
    o.connect_timeout_ms = connect_timeout_ms;
    o.reconnect_retries = reconnect_retries;
    o.keep_alive_ms = keep_alive_ms;
    o.reconnect_retry_wait_ms = reconnect_retry_wait;
    o.keep_alive_limit = keep_alive_limit;
    without_gil([&] { session_->connect(o); });
    host_ = bus::host_for_display(host);
  }

  void disconnect() {
    without_gil([&] { session_->disconnect(); });
  }

  nb::object request(const std::string& topic, nb::handle payload, nb::handle corrid, nb::handle timeout,
                     nb::handle cb) {
    check_topic(topic);
    // Left out (the `...` default): the session's default wait. Given: a false value (0 or
    // None) is non-blocking, as it is for every query of SolaceAPI.
    const long long timeout_ms = timeout.is(nb::ellipsis()) ? default_timeout_ms_
                                 : timeout.is_none()        ? 0
                                                            : to_milliseconds(timeout, "timeout");
    if (!cb.is_none() && !PyCallable_Check(cb.ptr())) {
      throw nb::type_error(("cb must be callable or None, got " + type_name(cb)).c_str());
    }
    if (!corrid.is_none() && !PyUnicode_Check(corrid.ptr())) {
      throw nb::type_error(("corrid must be str or None, got " + type_name(corrid)).c_str());
    }
    std::string bytes = encode_payload(payload, "payload");
    if (timeout_ms > 0) {
      // Sent with the lock held, like a non-blocking request; it is released only if the reply
      // is not there when the send returns. A service answering on this thread (the embedded
      // broker) thus costs no hand-over of the lock to the messaging thread and back.
      bus::MessagePtr reply =
          session_->request(topic, std::move(bytes), std::chrono::milliseconds(timeout_ms),
                            [](const std::function<void()>& wait) { without_gil(wait); });
      if (!reply) return nb::none();
      try {
        return decode_payload(reply->payload);
      } catch (nb::python_error& e) {
        throw nb::value_error(("the reply on '" + topic + "' cannot be decoded: " + e.what()).c_str());
      }
    }
    std::string id = corrid.is_none() ? session_->next_correlation_id() : nb::cast<std::string>(corrid);
    std::shared_ptr<PyRef> target = cb.is_none() ? nullptr : std::make_shared<PyRef>(cb);
    // The lock is kept through the send: the caller stores what the reply handler looks up
    // right after request() returns, and the messaging thread needs the lock to run the
    // handler, so the reply cannot overtake that store. The send only queues the request;
    // the bus never waits for the interpreter lock while holding its own locks.
    session_->request_async(topic, std::move(bytes), std::move(id), std::move(target));
    return nb::none();
  }

  std::string gen_reqid() { return session_->next_correlation_id(); }

  void subscribe(const std::string& filter) {
    quorvex::core::check_topic_filter(filter);
    without_gil([&] { session_->subscribe(filter); });
  }
  void unsubscribe(const std::string& filter) {
    without_gil([&] { session_->unsubscribe(filter); });
  }

  void set_msg_callback(nb::handle f) { store(callbacks_->on_message, f, "set_msg_callback"); }
  void set_p2p_callback(nb::handle f) { store(callbacks_->on_p2p, f, "set_p2p_callback"); }
  void set_event_callback(nb::handle f) { store(callbacks_->on_event, f, "set_event_callback"); }
  void set_session_down_callback(nb::handle f) {
    store(callbacks_->on_session_down, f, "set_session_down_callback");
  }

  void set_session(const std::string& token) {
    without_gil([&] { session_->set_token(token); });
  }
  void set_client_name(const std::string& name) {
    without_gil([&] { session_->set_client_name(name); });
  }

  bool sol() const {
    return without_gil([&] { return session_->is_open(); });
  }
  std::string token() const {
    return without_gil([&] { return session_->token(); });
  }
  std::string client_name() const {
    return without_gil([&] { return session_->client_name(); });
  }
  std::string session_id() const {
    return without_gil([&] { return session_->session_id(); });
  }
  long long default_timeout() const { return default_timeout_ms_; }
  void set_default_timeout(nb::handle ms) {
    const long long value = to_milliseconds(ms, "default_timeout");
    if (value == 0) throw nb::value_error("default_timeout must be positive milliseconds, got 0");
    default_timeout_ms_ = value;
  }

  std::string repr() const {
    if (!sol()) return "<SolClient not connected>";
    // Never the token or the password.
    return "<SolClient connected to '" + host_ + "' as '" + client_name() + "', session " + session_id() +
           ">";
  }

  // Garbage-collector support: the callbacks may refer back to the object owning this client.
  int traverse(visitproc visit, void* arg) const {
    for (const PyRef* ref : {&callbacks_->on_message, &callbacks_->on_p2p, &callbacks_->on_event,
                             &callbacks_->on_session_down}) {
      Py_VISIT(ref->get().ptr());
    }
    return 0;
  }
  void clear() {
    callbacks_->on_message.reset();
    callbacks_->on_p2p.reset();
    callbacks_->on_event.reset();
    callbacks_->on_session_down.reset();
  }

 private:
  static std::string type_name(nb::handle h) { return Py_TYPE(h.ptr())->tp_name; }

  static long long to_milliseconds(nb::handle value, const char* name) {
    if (PyBool_Check(value.ptr()) || !(PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr()))) {
      throw nb::type_error(
          (std::string(name) + " must be a number of milliseconds, got " + type_name(value)).c_str());
    }
    const double ms = PyFloat_AsDouble(value.ptr());
    if (PyErr_Occurred()) throw nb::python_error();
    if (!(ms >= 0) || ms > 1e12) {
      throw nb::value_error(
          (std::string(name) + " must be zero or more milliseconds, got " + nb::repr(value).c_str()).c_str());
    }
    return static_cast<long long>(std::ceil(ms));
  }

  static void store(PyRef& field, nb::handle f, const char* setter) {
    if (!f.is_none() && !PyCallable_Check(f.ptr())) {
      throw nb::type_error(
          (std::string(setter) + " expects a callable or None, got " + type_name(f)).c_str());
    }
    if (f.is_none()) {
      field.reset();
    } else {
      field.assign(f);
    }
  }

  std::shared_ptr<ClientCallbacks> callbacks_;
  std::unique_ptr<bus::Session> session_;
  std::string host_;
  long long default_timeout_ms_ = 5000;
};

int solclient_traverse(PyObject* self, visitproc visit, void* arg) {
#if PY_VERSION_HEX >= 0x03090000
  Py_VISIT(Py_TYPE(self));
#endif
  if (!nb::inst_ready(self)) return 0;
  return nb::inst_ptr<SolClient>(self)->traverse(visit, arg);
}

int solclient_clear(PyObject* self) {
  if (nb::inst_ready(self)) nb::inst_ptr<SolClient>(self)->clear();
  return 0;
}

PyType_Slot solclient_slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(solclient_traverse)},
                                 {Py_tp_clear, reinterpret_cast<void*>(solclient_clear)},
                                 {0, nullptr}};

}  // namespace

void bind_client(nb::module_& m) {
  nb::class_<SolClient>(m, "SolClient", nb::type_slots(solclient_slots),
                        "A session on the message bus: request/reply, subscriptions, point-to-point messages "
                        "and session events. Constructing it connects nothing.")
      .def(nb::init<>())
      .def("connect", &SolClient::connect, nb::arg("host"), nb::arg("vpn"), nb::arg("user"),
           nb::arg("password"), nb::arg("clientname"), nb::arg("connect_timeout_ms") = 3000,
           nb::arg("reconnect_retries") = 10, nb::arg("keep_alive_ms") = 3000,
           nb::arg("reconnect_retry_wait") = 3000, nb::arg("keep_alive_limit") = 3)
      .def("disconnect", &SolClient::disconnect)
      .def("request", &SolClient::request, nb::arg("topic"), nb::arg("payload").none(),
           nb::arg("corrid").none() = nb::none(), nb::arg("timeout").none() = nb::ellipsis(),
           nb::arg("cb").none() = nb::none())
      .def("_gen_reqid", &SolClient::gen_reqid)
      .def("subscribe", &SolClient::subscribe, nb::arg("topic"))
      .def("unsubscribe", &SolClient::unsubscribe, nb::arg("topic"))
      .def("set_msg_callback", &SolClient::set_msg_callback, nb::arg("f").none())
      .def("set_p2p_callback", &SolClient::set_p2p_callback, nb::arg("f").none())
      .def("set_event_callback", &SolClient::set_event_callback, nb::arg("f").none())
      .def("set_session_down_callback", &SolClient::set_session_down_callback, nb::arg("f").none())
      .def("set_session", &SolClient::set_session, nb::arg("token"))
      .def("set_client_name", &SolClient::set_client_name, nb::arg("name"))
      .def_prop_ro("sol", &SolClient::sol)
      .def_prop_ro("_token", &SolClient::token)
      .def_prop_ro("client_name", &SolClient::client_name)
      .def_prop_ro("session_id", &SolClient::session_id)
      .def_prop_rw("default_timeout", &SolClient::default_timeout, &SolClient::set_default_timeout)
      .def("__repr__", &SolClient::repr);
}

}  // namespace pymqlink
