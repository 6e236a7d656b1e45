// pymqlink.Responder: services on the bus written in Python, mainly for tests and tools.
// Handlers run on the responder's worker thread (or inline on the requester's thread) and take
// the GIL there; every call into the bus releases the GIL first.
#include "quorvex/bus/responder.hpp"

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "interpreter.hpp"
#include "quorvex/core/topic.hpp"
#include "wire.hpp"

namespace pymqlink {
namespace {

namespace bus = quorvex::bus;

// What a handler learns about one request, and the way to answer it later.
class RequestInfo {
 public:
  RequestInfo(const bus::ServiceRequest& request)
      : topic(request.topic()),
        token(request.token()),
        client_name(request.client_name()),
        session_id(request.session_id()),
        handle_(request.reply_handle()) {}

  // False when a reply was already sent or the responder is closed.
  bool reply(nb::handle msg) {
    std::string bytes = encode_payload(msg, "reply");
    return without_gil([&] { return handle_.reply(std::move(bytes)); });
  }
  bool replied() const { return handle_.replied(); }
  std::string repr() const {
    // The token is a secret: never shown.
    return "<RequestInfo topic='" + topic + "' client_name='" + client_name + "' session_id='" + session_id +
           "'>";
  }

  const std::string topic;
  const std::string token;
  const std::string client_name;
  const std::string session_id;

 private:
  bus::ReplyHandle handle_;
};

class PyResponder {
 public:
  PyResponder(const std::string& host, const std::string& client_name, bool inline_dispatch) {
    bus::ResponderOptions options;
    options.client_name = client_name;
    options.dispatch = inline_dispatch ? bus::Dispatch::Inline : bus::Dispatch::Worker;
    responder_ = without_gil([&] { return std::make_unique<bus::Responder>(host, options); });
  }

  ~PyResponder() {
    GilRelease release;
    responder_.reset();
  }

  void serve(const std::string& filter, nb::handle handler) {
    quorvex::core::check_topic_filter(filter);
    require_callable(handler, "serve");
    auto target = std::make_shared<PyRef>(handler);
    without_gil([&] {
      responder_->serve(filter, [target](const bus::ServiceRequest& request) { handle(*target, request); });
    });
  }

  void stop_serving(const std::string& filter) {
    without_gil([&] { responder_->stop_serving(filter); });
  }

  void publish(const std::string& topic, nb::handle msg) {
    quorvex::core::check_topic(topic);
    std::string bytes = encode_payload(msg, "msg");
    without_gil([&] { responder_->publish(topic, std::move(bytes)); });
  }

  std::size_t send_p2p(const std::string& target, const std::string& topic, nb::handle msg) {
    quorvex::core::check_topic(topic);
    std::string bytes = encode_payload(msg, "msg");
    return without_gil([&] {
      // A session id names one session; anything else is taken as a client name.
      const std::size_t sent = responder_->send_to_session(target, topic, bytes);
      return sent ? sent : responder_->send_to_client(target, topic, std::move(bytes));
    });
  }

  void watch_subscriptions(nb::handle watcher) {
    if (watcher.is_none()) {
      without_gil([&] { responder_->watch_subscriptions(nullptr); });
      return;
    }
    require_callable(watcher, "watch_subscriptions");
    auto target = std::make_shared<PyRef>(watcher);
    without_gil([&] {
      responder_->watch_subscriptions([target](const std::string& filter, bool active) {
        if (!interpreter_alive()) return;
        quorvex::pyglue::GilAcquire gil;
        try {
          target->borrow()(filter, active);
        } catch (nb::python_error& e) {
          e.restore();
          report_callback_error("subscription watcher for '" + filter + "'");
        }
      });
    });
  }

  bool has_subscribers(const std::string& topic) const {
    return without_gil([&] { return responder_->has_subscribers(topic); });
  }

  std::string session_id() const { return responder_->session_id(); }

  void close() {
    without_gil([&] { responder_->close(); });
  }

 private:
  static void require_callable(nb::handle f, const char* what) {
    if (!PyCallable_Check(f.ptr())) {
      throw nb::type_error(
          (std::string(what) + " expects a callable, got " + Py_TYPE(f.ptr())->tp_name).c_str());
    }
  }

  // On the worker (or requesting) thread: decode, call the handler, send what it returns.
  static void handle(const PyRef& target, const bus::ServiceRequest& request) {
    if (!interpreter_alive()) return;
    quorvex::pyglue::GilAcquire gil;
    try {
      nb::object payload = decode_payload(request.payload());
      nb::object info = nb::cast(RequestInfo(request));
      nb::object result = target.borrow()(request.topic(), payload, info);
      if (result.is_none()) return;
      std::string bytes = encode_payload(result, "reply");
      without_gil([&] { request.reply(std::move(bytes)); });
    } catch (nb::python_error& e) {
      e.restore();
      report_callback_error("responder handler for topic '" + request.topic() + "'");
    }
  }

  std::unique_ptr<bus::Responder> responder_;
};

}  // namespace

void bind_responder(nb::module_& m) {
  nb::class_<RequestInfo>(m, "RequestInfo", "Who sent a request, and the way to answer it later.")
      .def_ro("topic", &RequestInfo::topic)
      .def_ro("token", &RequestInfo::token)
      .def_ro("client_name", &RequestInfo::client_name)
      .def_ro("session_id", &RequestInfo::session_id)
      .def("reply", &RequestInfo::reply, nb::arg("msg").none())
      .def_prop_ro("replied", &RequestInfo::replied)
      .def("__repr__", &RequestInfo::repr);

  nb::class_<PyResponder>(m, "Responder", "A service endpoint on the bus.")
      .def(nb::init<const std::string&, const std::string&, bool>(), nb::arg("host"),
           nb::arg("client_name") = "responder", nb::arg("inline") = false)
      .def("serve", &PyResponder::serve, nb::arg("topic_filter"), nb::arg("handler"))
      .def("stop_serving", &PyResponder::stop_serving, nb::arg("topic_filter"))
      .def("publish", &PyResponder::publish, nb::arg("topic"), nb::arg("msg").none())
      .def("send_p2p", &PyResponder::send_p2p, nb::arg("target"), nb::arg("topic"), nb::arg("msg").none())
      .def("watch_subscriptions", &PyResponder::watch_subscriptions, nb::arg("watcher").none())
      .def("has_subscribers", &PyResponder::has_subscribers, nb::arg("topic"))
      .def_prop_ro("session_id", &PyResponder::session_id)
      .def("close", &PyResponder::close)
      .def("__enter__", [](nb::handle self) { return nb::borrow(self); })
      .def("__exit__", [](PyResponder& self, nb::args) { self.close(); });
}

}  // namespace pymqlink
