// pymqlink._core: the messaging binding over the bus core.
#include <nanobind/nanobind.h>

#include "interpreter.hpp"
#include "quorvex/bus/message.hpp"
#include "quorvex/bus/transport.hpp"
#include "wire.hpp"

namespace pymqlink {
void bind_client(nb::module_& m);
void bind_responder(nb::module_& m);
void bind_bench(nb::module_& m);
}  // namespace pymqlink

NB_MODULE(_core, m) {
  namespace nb = nanobind;
  using namespace pymqlink;
  m.doc() = "Sessions, services and the wire codec of the message bus.";
  nb::set_leak_warnings(false);
  init_interpreter();
  init_wire();

  nb::exception<quorvex::bus::BusError>(m, "BusError", PyExc_ConnectionError);

  m.def(
      "packb",
      [](nb::handle obj) {
        const std::string bytes = encode_payload(obj, "obj");
        return nb::bytes(bytes.data(), bytes.size());
      },
      nb::arg("obj").none(), "Encode a Python object as msgpack bytes, the way payloads travel.");
  m.def(
      "unpackb",
      [](nb::handle data) {
        Py_buffer view;
        if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) {
          PyErr_Clear();
          throw nb::type_error(
              (std::string("unpackb expects bytes-like data, got ") + Py_TYPE(data.ptr())->tp_name).c_str());
        }
        struct Release {
          Py_buffer* view;
          ~Release() { PyBuffer_Release(view); }
        } release{&view};
        return decode_payload(
            std::string_view(static_cast<const char*>(view.buf), static_cast<std::size_t>(view.len)));
      },
      nb::arg("data"), "Decode msgpack bytes into plain Python objects.");

  m.def(
      "_close_all", [] { without_gil([] { quorvex::bus::close_all_endpoints(); }); },
      "Disconnects every session and closes every responder of the process (run at exit, so that no "
      "bus thread calls into an interpreter that is shutting down).");

  bind_client(m);
  bind_responder(m);
  bind_bench(m);
}
